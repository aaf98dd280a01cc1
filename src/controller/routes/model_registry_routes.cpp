
#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/relay.h"
#include "controller/routes/route_input.h"
#include "models/model_registry.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;

struct ModelRegistryRoutes {
  models::ModelRegistry& registry;

  Response list() const {
    return forward([this](const std::string& url) { return registry.list(url); });
  }

  Response show(const Request& req) const {
    return forwardId(req, [this](auto& url, auto& id) { return registry.find(url, id); });
  }

  Response remove(const Request& req) const {
    return forwardId(req, [this](auto& url, auto& id) { return registry.remove(url, id); });
  }

  Response upload(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    return forward([&](const std::string& url) { return registry.upload(url, req.body); });
  }

 private:
  template <class Call>
  Response forward(const Call& call) const {
    const std::string url = registry.storageWorkerUrl(platform::wallNow());
    if (url.empty()) return Response::error(503, "No data worker with storage available");
    return relayed(call(url), "Failed to reach data worker");
  }

  template <class Call>
  Response forwardId(const Request& req, const Call& call) const {
    const std::string id = req.getPathParam("id");
    if (id.empty()) return Response::error(400, "Model ID required");
    return forward([&](const std::string& url) { return call(url, id); });
  }
};

}  // namespace

void addModelRegistryRoutes(api::RouteBook& book, models::ModelRegistry& registry) {
  const ModelRegistryRoutes h{registry};
  book.get("/api/v1/model-registry", [h](auto&, auto&) { return h.list(); });
  book.get("/api/v1/model-registry/:id", [h](auto&, auto& req) { return h.show(req); });
  book.del("/api/v1/model-registry/:id", [h](auto&, auto& req) { return h.remove(req); });
  book.post("/api/v1/model-registry/upload", [h](auto&, auto& req) { return h.upload(req); });
}

}  // namespace tavrel::controller
