#include "dev_worker/worker_pages.h"

#include <nlohmann/json.hpp>
#include <string>

#include "platform/clock.h"
#include "platform/text.h"

namespace tavrel::dev_worker {
namespace {

std::string dashboardPage(const Options& options, const ModelStore& store, const Stats& stats) {
  std::string models;
  for (const std::string& model : store.names()) {
    models += "<li>" + platform::escapeHtml(model) + "</li>";
  }
  const std::string title = options.name.empty() ? "Development worker" : options.name;
  return "<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta http-equiv=\"refresh\" content=\"5\"><title>" +
         platform::escapeHtml(title) + "</title></head><body><h1>" + platform::escapeHtml(title) +
         "</h1><p>Requests: " + std::to_string(stats.requests()) +
         ", in progress: " + std::to_string(stats.inProgress()) +
         ", tokens: " + std::to_string(stats.tokens()) + "</p><ul>" + models +
         "</ul><p><a href=\"dev/stats\">Figures as JSON</a></p></body></html>";
}

}  // namespace

void addWorkerPages(api::HttpServer& server, const Options& options, const ModelStore& models,
                    const Stats& stats) {
  const platform::SteadyTime start = platform::steadyNow();
  server.get("/api/v1/health", [&models, start](api::Context&, const api::Request&) {
    const auto uptime = static_cast<std::int64_t>(platform::millisecondsSince(start) / 1000);
    return api::Response::ok(
        {{"status", "healthy"}, {"models", models.names()}, {"uptime_seconds", uptime}});
  });
  server.get("/dashboard", [&options, &models, &stats](api::Context&, const api::Request&) {
    return api::Response::text(dashboardPage(options, models, stats), "text/html; charset=utf-8");
  });
  server.get("/dev/stats", [&stats](api::Context&, const api::Request&) {
    return api::Response::ok(stats.toJson());
  });
}

}  // namespace tavrel::dev_worker
