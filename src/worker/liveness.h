#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/clock.h"

// The rules by which silent workers of every kind are marked offline and forgotten.
namespace tavrel::worker {

/// An online worker this long without a heartbeat is offline.
inline constexpr std::chrono::seconds kOfflineAfter{91};
/// A worker this long without a heartbeat is forgotten, whatever its status.
inline constexpr std::chrono::seconds kForgottenAfter{301};

/// A daemon heard of less than this ago is trusted with work.
inline constexpr std::chrono::seconds kTrustedFor{121};

/// What one reaper pass did to one worker. The caller prints reapedLine().
struct ReapedWorker {
  std::string id;
  std::string name;
  std::int64_t silent_seconds = 0;  ///< whole seconds since the last heartbeat
  bool removed = false;             ///< otherwise it was marked offline
};

enum class Silence { kNone, kOffline, kForgotten };

constexpr Silence judgeSilence(platform::WallTime last_heartbeat, platform::WallTime now,
                               bool online) {
  const auto silent = now - last_heartbeat;
  if (silent >= kForgottenAfter) return Silence::kForgotten;
  return online && silent >= kOfflineAfter ? Silence::kOffline : Silence::kNone;
}

/// The entry for a worker of which judgeSilence said `silence`.
ReapedWorker reapedWorker(const std::string& id, const std::string& name,
                          platform::WallTime last_heartbeat, platform::WallTime now,
                          Silence silence);

/// The console line, e.g. for the label "Workers".
std::string reapedLine(std::string_view label, const ReapedWorker& worker);

}  // namespace tavrel::worker
