#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "api/route_book.h"
#include "cluster/controller_tiers.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using platform::Outcome;

Response answer(const Outcome& outcome) {
  return outcome.error.empty() ? Response::json(outcome.body, outcome.status)
                               : Response::error(outcome.status, outcome.error);
}

struct ControllerRoutes {
  cluster::ControllerTiers& tiers;

  Response connect(const Request& req) const {
    return req.json() ? answer(tiers.connect(*req.json())) : invalidJsonBody();
  }

  Response disconnect(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    std::string id;
    platform::readField(*req.json(), "id", id);
    return answer(tiers.disconnect(id));
  }

  Response capabilities(const Request& req) const {
    return Response::ok(tiers.capabilities(std::max(queryNumber(req, "hops", 0), 0)));
  }

  Response forward(const Request& req) const {
    return req.json() ? answer(tiers.forward(*req.json())) : invalidJsonBody();
  }

  Response delegate(const Request& req) const {
    return req.json() ? answer(tiers.delegate(*req.json())) : invalidJsonBody();
  }
};

}  // namespace

void addControllerRoutes(api::RouteBook& book, cluster::ControllerTiers& tiers) {
  const ControllerRoutes h{tiers};
  book.get("/api/v1/controllers", [h](auto&, auto&) { return Response::ok(h.tiers.list()); });
  book.post("/api/v1/controllers/connect", [h](auto&, auto& req) { return h.connect(req); });
  book.post("/api/v1/controllers/disconnect", [h](auto&, auto& req) { return h.disconnect(req); });
  book.get("/api/v1/controllers/capabilities",
           [h](auto&, auto& req) { return h.capabilities(req); });
  book.post("/api/v1/controllers/forward", [h](auto&, auto& req) { return h.forward(req); });
  book.post("/api/v1/controllers/delegate", [h](auto&, auto& req) { return h.delegate(req); });
  book.get("/api/v1/controllers/hierarchy",
           [h](auto&, auto&) { return Response::ok(h.tiers.hierarchy()); });
}

}  // namespace tavrel::controller
