#include "cluster/task_executor.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "cluster/cluster_transport.h"
#include "cluster/node_info.h"
#include "cluster/worker_task.h"
#include "net/http_client.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/run_program.h"
#include "platform/text.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds kListTimeout{10'000};

json success(json result, const std::string& output) {
  return {{"success", true},
          {"result", std::move(result)},
          {"exit_code", 0},
          {"stdout", output},
          {"stderr", ""}};
}

json failed(const std::string& error) {
  return {{"success", false}, {"result", nullptr}, {"error", error},
          {"exit_code", 1},   {"stdout", ""},      {"stderr", error}};
}

/// The object under "params", else under "payload"; empty without either.
json paramsOf(const json& task) {
  for (const char* key : {"params", "payload"}) {
    const json* params = platform::jsonMember(task, key);
    if (params != nullptr && params->is_object()) return *params;
  }
  return json::object();
}

}  // namespace

json TaskExecutor::execute(const json& task) const {
  std::string type;
  std::int32_t timeout_ms = WorkerTask::kDefaultTimeoutMs;
  platform::readField(task, "type", type);
  platform::readField(task, "timeout_ms", timeout_ms);
  if (timeout_ms < 1) timeout_ms = WorkerTask::kDefaultTimeoutMs;
  json params = paramsOf(task);
  if (type == "bash" || type == "shell") return runCommand(params, timeout_ms);
  if (type == "health_check") return success({{"status", "healthy"}}, "Health check passed");
  if (type == "model_list") return listModels(params, timeout_ms);
  return success({{"type", type}, {"params", std::move(params)}},
                 "Task type '" + type + "' acknowledged");
}

json TaskExecutor::runCommand(const json& params, int timeout_ms) const {
  std::string command;
  platform::readField(params, "command", command);
  if (command.empty()) throw TaskRefused(400, "command is required for bash task");
  platform::ProgramResult run = platform::runProgram(
      {"/bin/sh", "-c", command}, {milliseconds(timeout_ms), kMaxOutputBytes, stop_});
  using End = platform::ProgramResult::End;
  if (run.end == End::kNotStarted) throw TaskRefused(500, "Failed to execute command");
  const std::string output = platform::replaceInvalidUtf8(run.output);
  json reply = {{"success", run.end == End::kExited && run.exit_status == 0},
                {"result", output},
                {"exit_code", run.exit_status},
                {"stdout", output},
                {"stderr", ""}};
  if (run.end == End::kTimedOut) {
    reply["error"] = "Command timed out after " + std::to_string(timeout_ms) + " ms";
  } else if (run.end == End::kStopped) {
    reply["error"] = "Controller is shutting down";
  }
  return reply;
}

json TaskExecutor::listModels(const json& params, int timeout_ms) const {
  std::string url = kDefaultDecisionUrl;
  platform::readField(params, "ollama_url", url);
  if (!net::isHttpUrl(url)) return failed("Not an http URL: " + url);
  const milliseconds limit = std::min(milliseconds(timeout_ms), kListTimeout);
  const net::HttpResult answer =
      http_.get(net::joinUrl(url, "/api/tags"), {kConnectTimeout, limit});
  if (!answer.transport_error.empty()) return failed(answer.transport_error);
  if (answer.status != 200) return failed("HTTP " + std::to_string(answer.status));
  json models = json::array();
  try {
    const json document = platform::parseForeignJson(answer.body);
    const json* listed = document.is_object() ? platform::jsonMember(document, "models") : nullptr;
    if (listed != nullptr && listed->is_array()) models = *listed;
  } catch (const std::exception& error) {
    return failed(std::string("Failed to parse response: ") + error.what());
  }
  const std::string count = std::to_string(models.size());
  return success({{"models", std::move(models)}}, "Model list retrieved (" + count + " models)");
}

}  // namespace tavrel::cluster
