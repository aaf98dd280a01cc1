#include "inference/agent_host.h"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>

#include "platform/json_text.h"
#include "worker/worker_url.h"

namespace tavrel::inference {
namespace {

using nlohmann::json;

bool isRunning(const worker::WorkerInfo& worker, const std::string& model) {
  return std::any_of(worker.running_models.begin(), worker.running_models.end(),
                     [&](const worker::RunningModel& running) { return running.name == model; });
}

/// The text of a chat answer. Throws std::exception when there is none.
std::string readText(const std::string& body) {
  return platform::parseForeignJson(body).at("message").at("content").get<std::string>();
}

}  // namespace

/// A worker that has the model in memory goes before one that would have to load it.
std::string AgentHost::baseUrlFor(const std::string& model) const {
  worker::WorkerPtr chosen;
  for (const worker::WorkerPtr& worker : workers_.snapshot()) {
    if (worker->status != worker::WorkerStatus::kOnline || !isRunning(*worker, model)) continue;
    chosen = worker;
    break;
  }
  if (chosen == nullptr) {
    const auto installed = workers_.onlineWithModel(model);
    if (installed.empty()) return local_model_server_;
    chosen = installed.front();
  }
  const std::string& host = chosen->ip_address.empty() ? chosen->hostname : chosen->ip_address;
  return worker::httpUrl(host, chosen->port);
}

json AgentHost::run(const std::string& agent_type, const std::string& model,
                    const std::string& prompt) const {
  json reply = {{"success", false}, {"response", ""},  {"agent_type", agent_type},
                {"model", model},   {"iterations", 1}, {"tool_calls", json::array()}};
  const json body = {
      {"model", model}, {"messages", {{{"role", "user"}, {"content", prompt}}}}, {"stream", false}};
  const net::HttpResult answer = http_.postJson(net::joinUrl(baseUrlFor(model), "/api/chat"),
                                                body.dump(), {kConnectTimeout, kChatTimeout});
  if (!answer.transport_error.empty()) {
    reply["error"] = answer.transport_error;
  } else if (answer.status != 200) {
    reply["error"] = "HTTP " + std::to_string(answer.status);
  } else {
    try {
      reply["response"] = readText(answer.body);
      reply["success"] = true;
    } catch (const std::exception& error) {
      reply["error"] = std::string("Failed to parse response: ") + error.what();
    }
  }
  return reply;
}

}  // namespace tavrel::inference
