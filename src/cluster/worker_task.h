#pragma once

#include <compare>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace tavrel::cluster {

/// What a node must offer to be given a task.
struct TaskRequirements {
  std::vector<std::string> capabilities;  ///< all of them
  std::string model;                      ///< empty: any

  auto operator<=>(const TaskRequirements&) const = default;
};

/// Work that is to be done by some worker node. A plain value.
struct WorkerTask {
  static constexpr std::int32_t kDefaultTimeoutMs = 60'000;

  std::string task_id;  ///< assigned when it is submitted
  std::string type;
  nlohmann::json payload = nlohmann::json::object();
  std::int32_t priority = 0;  ///< higher runs first
  /// Of waiting for a node, and again of the work; below 1: the default.
  std::int32_t timeout_ms = kDefaultTimeoutMs;
  TaskRequirements requirements;
};

/// What came of a task.
struct WorkerResult {
  bool success = false;
  nlohmann::json result;
  std::string error;
  std::int32_t exit_code = 0;
  std::string standard_output;
  std::string standard_error;

  nlohmann::json toJson() const;
};

enum class TaskState { kPending, kRunning, kCompleted, kFailed, kCancelled };

/// "pending", "running", "completed", "failed" or "cancelled".
const char* taskStateToString(TaskState state);

/// Where a task is. JSON: the times as milliseconds since the epoch; what is not known yet is left
/// out, and so is the payload, which may be large.
struct TaskStatus {
  WorkerTask task;
  TaskState state = TaskState::kPending;
  std::string node_id;  ///< who runs it, or ran it
  platform::WallTime submitted_at;
  platform::WallTime started_at;
  platform::WallTime finished_at;
  WorkerResult result;

  nlohmann::json toJson() const;
};

}  // namespace tavrel::cluster
