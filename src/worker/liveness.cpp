#include "worker/liveness.h"

namespace tavrel::worker {

ReapedWorker reapedWorker(const std::string& id, const std::string& name,
                          platform::WallTime last_heartbeat, platform::WallTime now,
                          Silence silence) {
  const auto silent = std::chrono::duration_cast<std::chrono::seconds>(now - last_heartbeat);
  return {id, name, silent.count(), silence == Silence::kForgotten};
}

std::string reapedLine(std::string_view label, const ReapedWorker& worker) {
  const std::string who = worker.id + " (" + worker.name + ")";
  const std::string how_long = std::to_string(worker.silent_seconds) + "s";
  std::string line = "[" + std::string(label) + "] ";
  if (worker.removed) return line + "Removing stale worker " + who + " - offline for " + how_long;
  return line + "Worker " + who + " marked offline - no heartbeat for " + how_long;
}

}  // namespace tavrel::worker
