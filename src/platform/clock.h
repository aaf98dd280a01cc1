#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tavrel::platform {

/// Wall-clock time: what records and histories carry. Rules that depend on it take it as a
/// parameter.
using WallTime = std::chrono::system_clock::time_point;
/// Monotonic time: what durations, deadlines and timeouts are measured with.
using SteadyTime = std::chrono::steady_clock::time_point;

inline WallTime wallNow() {
  return std::chrono::system_clock::now();
}
inline SteadyTime steadyNow() {
  return std::chrono::steady_clock::now();
}

/// Seconds since the Unix epoch (the form of worker and registry records).
inline std::int64_t toEpochSeconds(WallTime time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

/// Milliseconds since the Unix epoch (the form of events and metrics).
inline std::int64_t toEpochMilliseconds(WallTime time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

/// Nanoseconds of the monotonic clock, for what must be atomic.
inline std::int64_t toNanoseconds(SteadyTime time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

/// "2026-01-31T12:00:00Z".
std::string toUtcText(WallTime time);

/// Milliseconds, fractions included, that have passed since `start`.
inline double millisecondsSince(SteadyTime start) {
  return std::chrono::duration<double, std::milli>(steadyNow() - start).count();
}

}  // namespace tavrel::platform
