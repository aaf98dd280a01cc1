#include "api/auth_middleware_rate_limiter.h"

#include <algorithm>

namespace tavrel::api {

RateLimiter::Verdict RateLimiter::take(const std::string& credential, std::int32_t limit,
                                       platform::SteadyTime now) {
  const platform::MutexLock lock(mu_);
  auto [item, is_new] = states_.try_emplace(credential);
  State& state = item->second;
  if (is_new || now - state.window_start >= kWindow) state = {0, now};
  Verdict verdict;
  if (state.count < limit) {
    ++state.count;
  } else {
    const auto rest = std::chrono::ceil<std::chrono::seconds>(state.window_start + kWindow - now);
    verdict = {false, std::clamp(rest, std::chrono::seconds(1), kWindow)};
  }
  if (is_new && states_.size() > sweep_at_) dropIdleLocked(now);
  return verdict;
}

/// A state whose window is over says nothing: the credential's next request starts a new one.
void RateLimiter::dropIdleLocked(platform::SteadyTime now) {
  std::erase_if(states_,
                [now](const auto& item) { return now - item.second.window_start >= kWindow; });
  sweep_at_ = std::max(kMinSweepSize, 2 * states_.size());
}

std::size_t RateLimiter::size() const {
  const platform::MutexLock lock(mu_);
  return states_.size();
}

}  // namespace tavrel::api
