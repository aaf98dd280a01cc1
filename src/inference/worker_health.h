#pragma once

#include <chrono>

#include "platform/clock.h"

namespace tavrel::inference {

/// Whether one worker keeps failing, and until when it is passed over for that. After kTolerated
/// faults in a row a worker is passed over for kFirstPass; each further fault, once it had its
/// chance, doubles that up to kLongestPass. A success forgets everything.
///
/// A plain value. Time is passed in. Threads: its owner locks.
class WorkerHealth {
 public:
  static constexpr int kTolerated = 3;
  static constexpr std::chrono::seconds kFirstPass{1};
  static constexpr std::chrono::seconds kLongestPass{60};

  void succeeded() { *this = WorkerHealth(); }

  /// True when the worker is to be passed over from now on. Requests that were under way when it
  /// came to that say nothing new: their faults change nothing.
  bool failed(platform::SteadyTime now);

  bool passedOver(platform::SteadyTime now) const { return now < until_; }
  /// Meaningful while passed over.
  platform::SteadyTime until() const { return until_; }

 private:
  int faults_ = 0;  // in a row, those while passed over left out
  std::chrono::seconds pass_{0};
  platform::SteadyTime until_{};
};

}  // namespace tavrel::inference
