#include "inference/worker_health.h"

#include <algorithm>

namespace tavrel::inference {

bool WorkerHealth::failed(platform::SteadyTime now) {
  if (passedOver(now)) return false;
  if (faults_ < kTolerated) ++faults_;
  if (faults_ < kTolerated) return false;
  pass_ = pass_ == std::chrono::seconds(0) ? kFirstPass : std::min(pass_ * 2, kLongestPass);
  until_ = now + pass_;
  return true;
}

}  // namespace tavrel::inference
