#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "platform/mutex.h"

// What a gossiping node remembers of messages.
namespace tavrel::cluster {

/// How often each node has spoken.
using ClockEntries = std::map<std::string, std::uint64_t>;

/// The messages that were handled, so that none is handled twice. Any thread; mu_ is a leaf lock.
class SeenMessages {
 public:
  /// One more than this, and the smaller half of the ids (in their order) is forgotten.
  static constexpr std::size_t kMaxIds = 10'000;
  static constexpr std::size_t kForgotten = 5'000;

  /// False when it was there already.
  bool insert(const std::string& message_id) TV_EXCLUDES(mu_);
  std::size_t size() const TV_EXCLUDES(mu_);

 private:
  mutable platform::Mutex mu_;
  std::set<std::string> ids_ TV_GUARDED_BY(mu_);
};

/// Any thread; mu_ is a leaf lock.
class VectorClock {
 public:
  /// Nodes that are kept; every message carries them all.
  static constexpr std::size_t kMaxEntries = 2'000;

  explicit VectorClock(std::string self_id);

  /// Counts one message of this node; the clock after it.
  ClockEntries tick() TV_EXCLUDES(mu_);
  /// Takes the larger of each pair of counters.
  void merge(const ClockEntries& other) TV_EXCLUDES(mu_);
  ClockEntries entries() const TV_EXCLUDES(mu_);

 private:
  const std::string self_id_;
  mutable platform::Mutex mu_;
  ClockEntries entries_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::cluster
