#include <nlohmann/json.hpp>
#include <utility>

#include "ai/ai_control.h"
#include "api/route_book.h"
#include "cluster/router_registry.h"
#include "controller/controller_identity.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/clock.h"
#include "platform/json_fields.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

std::string labelOr(const worker::WorkerInfo& worker, const char* label, const char* fallback) {
  const auto found = worker.labels.find(label);
  return found == worker.labels.end() ? fallback : found->second;
}

struct AiRoutes {
  const ControllerIdentity& self;
  ai::AiControl& control;
  const cluster::RouterRegistry& routers;
  const worker::WorkerRegistry& workers;

  Response status() const {
    const cluster::AIControlConfig config = control.config();
    json router_list = json::array();
    for (const cluster::RouterInfo& router : routers.all()) {
      router_list.push_back({{"id", router.id},
                             {"hostname", router.hostname},
                             {"ai_mode", cluster::aiControlModeToString(router.ai_control.mode)},
                             {"llm_mode", router.ai_control.model}});
    }
    // Workers tell how they use a model of their own through labels, if at all.
    json worker_list = json::array();
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      worker_list.push_back({{"id", worker->worker_id},
                             {"hostname", worker->hostname},
                             {"ai_mode", labelOr(*worker, "ai_mode", "unknown")},
                             {"llm_mode", labelOr(*worker, "llm_mode", "unknown")}});
    }
    return Response::ok({{"controller",
                          {{"hostname", self.name},
                           {"ai_mode", cluster::aiControlModeToString(config.mode)},
                           {"llm_model", config.model},
                           {"ollama_url", config.ollama_url},
                           {"decision_timeout_ms", config.decision_timeout_ms}}},
                         {"routers", std::move(router_list)},
                         {"workers_with_ai", std::move(worker_list)}});
  }

  Response configure(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    const auto mode = cluster::aiControlModeFromString(body.value("mode", ""));
    if (!mode) {
      return Response::error(400, "Invalid mode. Use: none, advisory, or autonomous");
    }
    cluster::AIControlConfig config = control.config();
    config.mode = *mode;
    config.model = body.value("llm_model", cluster::kDefaultDecisionModel);
    config.ollama_url = body.value("ollama_url", cluster::kDefaultDecisionUrl);
    config.decision_timeout_ms =
        platform::jsonNumberOr<std::int32_t>(body, "decision_timeout_ms", 0);
    control.configure(config);
    return Response::ok({{"success", true},
                         {"ai_mode", cluster::aiControlModeToString(*mode)},
                         {"llm_model", config.model}});
  }

  Response testDecision(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string type = req.json()->value("type", "routing");
    const std::string prompt = req.json()->value("prompt", "");
    if (prompt.empty()) return Response::error(400, "prompt is required");
    const auto start = platform::steadyNow();
    const std::string model = control.config().model;
    const ai::Generated reply = control.ask(prompt);
    if (!reply.error.empty()) return Response::error(500, reply.error);
    return Response::ok(
        {{"success", true},
         {"type", type},
         {"response", reply.text},
         {"model", model},
         {"latency_ms", static_cast<std::int64_t>(platform::millisecondsSince(start))}});
  }
};

}  // namespace

void addAiRoutes(api::RouteBook& book, const ControllerIdentity& self, ai::AiControl& control,
                 const cluster::RouterRegistry& routers, const worker::WorkerRegistry& workers) {
  const AiRoutes h{self, control, routers, workers};
  book.get("/api/v1/ai/status", [h](auto&, auto&) { return h.status(); });
  book.post("/api/v1/ai/configure", [h](auto&, auto& req) { return h.configure(req); });
  book.post("/api/v1/ai/test-decision", [h](auto&, auto& req) { return h.testDecision(req); });
}

}  // namespace tavrel::controller
