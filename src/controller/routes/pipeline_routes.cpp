#include <nlohmann/json.hpp>
#include <set>

#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/relay.h"
#include "controller/routes/route_input.h"
#include "models/model_registry.h"
#include "pipeline/pipeline_coordinator.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using pipeline::PipelineConfig;

struct PipelineRoutes {
  pipeline::PipelineCoordinator& pipelines;
  models::ModelRegistry& registry;

  Response deploy(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    json body = *req.json();
    // Without workers the coordinator refuses, after it has looked at the model.
    if (!body.contains("workers") || !body["workers"].is_array()) body["workers"] = json::array();
    return toResponse(pipelines.deploy(pipeline::PipelineDeployRequest::fromJson(body)));
  }

  /// What the registry stores, then the files that pipelines were made from.
  Response models() const {
    json list = registryModels();
    std::set<std::string> seen;
    for (const PipelineConfig& config : pipelines.all()) {
      if (!config.model_id.empty() || !seen.insert(config.model_path).second) continue;
      list.push_back({{"id", config.model_path},
                      {"name", config.model_name},
                      {"source", "local"},
                      {"model_path", config.model_path},
                      {"architecture", config.architecture},
                      {"quantization", config.quantization},
                      {"total_layers", config.total_layers},
                      {"size", config.model_size_bytes}});
    }
    return counted("models", std::move(list));
  }

  Response status() const { return counted("pipelines", platform::jsonArray(pipelines.all())); }

  Response show(const Request& req) const {
    const std::string id = req.getPathParam("pipeline_id");
    const auto found = pipelines.find(id);
    return found ? Response::ok(found->toJson())
                 : Response::error(404, "Pipeline not found: " + id);
  }

  /// A change to the pipeline that the body names.
  Response change(const Request& req, platform::Outcome (pipeline::PipelineCoordinator::*act)(
                                          const std::string&)) const {
    if (!req.json()) return invalidJsonBody();
    const auto id = req.json()->value("pipeline_id", std::string());
    if (id.empty()) return Response::error(400, "pipeline_id is required");
    return toResponse((pipelines.*act)(id));
  }

 private:
  /// Models that are stored as GGUF, or do not say how.
  json registryModels() const {
    json list = json::array();
    const std::string url = registry.storageWorkerUrl(platform::wallNow());
    const net::HttpResult answer = url.empty() ? net::HttpResult() : registry.list(url);
    if (!answer.ok()) return list;
    for (json& entry : models::listedModels(answer.body)) {
      const json* format = platform::jsonMember(entry, "format");
      if (format != nullptr && format->is_string() && *format != "gguf") continue;
      entry["source"] = "registry";
      list.push_back(std::move(entry));
    }
    return list;
  }
};

}  // namespace

void addPipelineRoutes(api::RouteBook& book, pipeline::PipelineCoordinator& pipelines,
                       models::ModelRegistry& registry) {
  using pipeline::PipelineCoordinator;
  const PipelineRoutes h{pipelines, registry};
  book.post("/api/v1/pipeline/deploy", [h](auto&, auto& req) { return h.deploy(req); });
  book.get("/api/v1/pipeline/models", [h](auto&, auto&) { return h.models(); });
  book.get("/api/v1/pipeline/status", [h](auto&, auto&) { return h.status(); });
  book.get("/api/v1/pipeline/:pipeline_id", [h](auto&, auto& req) { return h.show(req); });
  book.post("/api/v1/pipeline/undeploy",
            [h](auto&, auto& req) { return h.change(req, &PipelineCoordinator::undeploy); });
  book.post("/api/v1/pipeline/rebalance",
            [h](auto&, auto& req) { return h.change(req, &PipelineCoordinator::rebalance); });
  book.del("/api/v1/pipeline/:pipeline_id", [h](auto&, auto& req) {
    return toResponse(h.pipelines.remove(req.getPathParam("pipeline_id")));
  });
}

}  // namespace tavrel::controller
