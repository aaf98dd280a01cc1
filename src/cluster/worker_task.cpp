#include "cluster/worker_task.h"

namespace tavrel::cluster {

using nlohmann::json;

json WorkerResult::toJson() const {
  return {{"success", success},     {"result", result},          {"error", error},
          {"exit_code", exit_code}, {"stdout", standard_output}, {"stderr", standard_error}};
}

const char* taskStateToString(TaskState state) {
  switch (state) {
    case TaskState::kPending:
      return "pending";
    case TaskState::kRunning:
      return "running";
    case TaskState::kCompleted:
      return "completed";
    case TaskState::kFailed:
      return "failed";
    default:
      return "cancelled";
  }
}

json TaskStatus::toJson() const {
  json object = {{"task_id", task.task_id},
                 {"type", task.type},
                 {"priority", task.priority},
                 {"timeout_ms", task.timeout_ms},
                 {"capabilities", task.requirements.capabilities},
                 {"model", task.requirements.model},
                 {"status", taskStateToString(state)},
                 {"submitted_at", platform::toEpochMilliseconds(submitted_at)}};
  if (state == TaskState::kPending) return object;
  if (!node_id.empty()) {
    object["node_id"] = node_id;
    object["started_at"] = platform::toEpochMilliseconds(started_at);
  }
  if (state == TaskState::kRunning) return object;
  object["finished_at"] = platform::toEpochMilliseconds(finished_at);
  object["result"] = result.toJson();
  return object;
}

}  // namespace tavrel::cluster
