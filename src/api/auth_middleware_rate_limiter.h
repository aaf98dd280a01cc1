#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::api {

/// Counts requests per credential in windows of 60 seconds. A window starts with its first request
/// and does not slide; requests are counted exactly, refused ones are not counted.
///
/// Threads: any thread may call; the lock is held for one look-up, or for a sweep of the table when
/// that has doubled since the last one.
/// Time: callers pass `now`.
class RateLimiter {
 public:
  struct Verdict {
    bool allowed = true;
    std::chrono::seconds retry_after{0};  ///< when refused: until the window ends, at least 1

    explicit operator bool() const { return allowed; }
  };

  /// Counts one request of the credential if its window has fewer than `limit`.
  Verdict take(const std::string& credential, std::int32_t limit, platform::SteadyTime now)
      TV_EXCLUDES(mu_);
  /// Credentials with a window.
  std::size_t size() const TV_EXCLUDES(mu_);

  static constexpr std::chrono::seconds kWindow{60};
  /// No sweep below so many credentials.
  static constexpr std::size_t kMinSweepSize = 1024;

 private:
  struct State {
    std::int32_t count = 0;
    platform::SteadyTime window_start{};
  };
  void dropIdleLocked(platform::SteadyTime now) TV_REQUIRES(mu_);

  mutable platform::Mutex mu_;
  std::unordered_map<std::string, State> states_ TV_GUARDED_BY(mu_);
  std::size_t sweep_at_ TV_GUARDED_BY(mu_) = kMinSweepSize;
};

}  // namespace tavrel::api
