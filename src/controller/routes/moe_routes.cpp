#include <nlohmann/json.hpp>

#include "ai/moe_router.h"
#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

struct MoeRoutes {
  ai::MoeRouter& experts;

  Response update(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    return Response::ok(experts.update(*req.json()));
  }

  Response add(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    json expert = {{"id", body.value("id", "")},
                   {"model", body.value("model", "")},
                   {"description", body.value("description", "")},
                   {"keywords", body.value("keywords", std::vector<std::string>())},
                   {"categories", body.value("categories", json::array())},
                   {"enabled", true}};
    if (expert["id"] == "" || expert["model"] == "") {
      return Response::error(400, "id and model are required");
    }
    experts.addExpert(expert);
    return Response::ok(expert);
  }

  Response remove(const Request& req) const {
    if (!experts.removeExpert(req.getPathParam("id"))) {
      return Response::error(404, "Expert not found");
    }
    return Response::ok({{"status", "removed"}});
  }

  Response route(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string query = req.json()->value("query", "");
    if (query.empty()) return Response::error(400, "query is required");
    return Response::ok(experts.route(query));
  }
};

}  // namespace

void addMoeRoutes(api::RouteBook& book, ai::MoeRouter& experts) {
  const MoeRoutes h{experts};
  book.get("/api/v1/moe/config", [h](auto&, auto&) { return Response::ok(h.experts.config()); });
  book.post("/api/v1/moe/config", [h](auto&, auto& req) { return h.update(req); });
  book.post("/api/v1/moe/experts", [h](auto&, auto& req) { return h.add(req); });
  book.del("/api/v1/moe/experts/:id", [h](auto&, auto& req) { return h.remove(req); });
  book.post("/api/v1/moe/route", [h](auto&, auto& req) { return h.route(req); });
}

}  // namespace tavrel::controller
