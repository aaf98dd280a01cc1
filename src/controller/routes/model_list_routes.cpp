#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "controller/routes/families.h"
#include "inference/model_catalogue.h"

namespace tavrel::controller {

using api::Response;

void addModelListRoutes(api::RouteBook& book, const inference::ModelCatalogue& models) {
  // Controllers ask each other for their own models only.
  book.get("/api/v1/models", [&models](auto&, auto& req) {
    return Response::ok(models.detailedList(/*own_only=*/req.getQuery("scope") == "own"));
  });
  book.get("/v1/models", [&models](auto&, auto&) { return Response::ok(models.openAiList()); });
}

}  // namespace tavrel::controller
