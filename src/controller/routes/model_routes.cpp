#include <algorithm>
#include <nlohmann/json.hpp>

#include "ai/model_specialization_extractor.h"
#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/relay.h"
#include "controller/routes/route_input.h"
#include "models/model_distribution.h"
#include "models/ollama_client.h"
#include "models/pull_jobs.h"
#include "models/target_workers.h"
#include "platform/json_fields.h"
#include "worker/worker_url.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

/// Where the model servers of workers listen.
constexpr int kModelServerPort = 11434;

struct ModelRoutes {
  const worker::WorkerRegistry& workers;
  models::PullJobs& jobs;
  models::ModelDistribution& distribution;
  net::WorkerClient& client;
  const std::string& local_model_server;

  Response pull(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    const auto model = body.value("model", std::string());
    if (model.empty()) return Response::error(400, "model is required");
    const auto targets = models::pullTargets(workers, body.value("all", false),
                                             body.value("workers", std::vector<std::string>()));
    if (targets.empty()) return Response::error(400, "No online inference workers found");
    const models::PullJob job = jobs.start(model, targets);
    return Response::ok(
        {{"job_id", job.job_id},
         {"model", model},
         {"status", job.status},
         {"workers_total", job.workers_total},
         {"message",
          "Pull started in background. Check status at /api/v1/models/pull-jobs/" + job.job_id}});
  }

  Response listJobs() const { return counted("jobs", platform::jsonArray(jobs.all())); }

  Response showJob(const Request& req) const {
    const std::string id = req.getPathParam("job_id");
    if (id.empty()) return Response::error(400, "job_id is required");
    const auto job = jobs.find(id);
    return job ? Response::ok(job->toJson()) : Response::error(404, "Pull job not found: " + id);
  }

  Response distribute(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    return toResponse(distribution.distribute(models::DistributionRequest::fromJson(*req.json())));
  }

  Response show(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const auto model = req.json()->value("model", std::string());
    const bool specialization = req.json()->value("specialization", false);
    if (model.empty()) return Response::error(400, "model is required");
    try {
      const models::ModelDetails found =
          models::OllamaClient(client, modelServerOf(model)).showModel(model);
      if (!found.found) return Response::error(404, "Model not found");
      json reply = {{"success", true},
                    {"name", model},
                    {"modelfile", found.modelfile},
                    {"template", found.template_text},
                    {"system", found.system},
                    {"license", found.license},
                    {"parameters", found.parameters},
                    {"details", found.details}};
      if (specialization) {
        reply["specialization"] = ai::ModelSpecializationExtractor::detectThemeFromModelName(model);
      }
      return Response::ok(reply);
    } catch (const std::runtime_error& error) {
      return Response::error(500, std::string("Failed to get model details: ") + error.what());
    }
  }

 private:
  /// The model server of the first online worker with a valid address that has the model loaded,
  /// else the local one.
  std::string modelServerOf(const std::string& model) const {
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      if (worker->status != worker::WorkerStatus::kOnline) continue;
      const auto& loaded = worker->running_models;
      if (std::none_of(loaded.begin(), loaded.end(),
                       [&](const auto& running) { return running.name == model; })) {
        continue;
      }
      std::string url = worker::httpUrlIfValid(worker->ip_address, kModelServerPort);
      if (!url.empty()) return url;
    }
    return local_model_server;
  }
};

}  // namespace

void addModelRoutes(api::RouteBook& book, const worker::WorkerRegistry& workers,
                    models::PullJobs& jobs, models::ModelDistribution& distribution,
                    net::WorkerClient& client, const std::string& local_model_server) {
  const ModelRoutes h{workers, jobs, distribution, client, local_model_server};
  book.post("/api/v1/models/pull", [h](auto&, auto& req) { return h.pull(req); });
  book.get("/api/v1/models/pull-jobs", [h](auto&, auto&) { return h.listJobs(); });
  book.get("/api/v1/models/pull-jobs/:job_id", [h](auto&, auto& req) { return h.showJob(req); });
  book.post("/api/v1/models/distribute", [h](auto&, auto& req) { return h.distribute(req); });
  book.post("/api/v1/models/show", [h](auto&, auto& req) { return h.show(req); });
}

}  // namespace tavrel::controller
