#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/relay.h"
#include "controller/routes/route_input.h"
#include "models/training_jobs.h"

namespace tavrel::controller {

void addTrainingRoutes(api::RouteBook& book, models::TrainingJobs& jobs) {
  book.post("/api/v1/training/jobs", [&jobs](auto&, auto& req) {
    if (!req.json()) return invalidJsonBody();
    return toResponse(jobs.submit(*req.json(), platform::wallNow()));
  });
  book.get("/api/v1/training/jobs",
           [&jobs](auto&, auto&) { return toResponse(jobs.list(platform::wallNow())); });
  book.get("/api/v1/training/jobs/:id",
           [&jobs](auto&, auto& req) { return toResponse(jobs.find(req.getPathParam("id"))); });
  book.post("/api/v1/training/jobs/:id/cancel",
            [&jobs](auto&, auto& req) { return toResponse(jobs.cancel(req.getPathParam("id"))); });
}

}  // namespace tavrel::controller
