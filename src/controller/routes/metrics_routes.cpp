#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "metrics/metrics_collector.h"
#include "metrics/metrics_history.h"
#include "platform/clock.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;
using nlohmann::json;

constexpr std::int32_t kDefaultDurationMinutes = 60;

template <class Point>
json historyJson(std::int32_t duration_minutes, std::int32_t resolution_seconds,
                 const std::vector<Point>& points) {
  return {{"duration_minutes", duration_minutes},
          {"resolution_seconds", resolution_seconds},
          {"data_points", platform::jsonArray(points)},
          {"count", points.size()}};
}

struct MetricsRoutes {
  metrics::MetricsCollector& collector;
  metrics::MetricsHistory& history;

  Response workerHistory(const Request& req) const {
    const std::int32_t duration = queryNumber(req, "duration", kDefaultDurationMinutes);
    const std::int32_t resolution = queryNumber(req, "resolution", 0);
    const std::string worker_id = req.getPathParam("worker_id");
    json answer =
        historyJson(duration, resolution,
                    history.getWorkerHistory(worker_id, duration, resolution, platform::wallNow()));
    answer["worker_id"] = worker_id;
    return Response::ok(answer);
  }

  Response clusterHistory(const Request& req) const {
    const std::int32_t duration = queryNumber(req, "duration", kDefaultDurationMinutes);
    const std::int32_t resolution = queryNumber(req, "resolution", 0);
    return Response::ok(historyJson(duration, resolution,
                                    history.getClusterHistory(duration, platform::wallNow())));
  }

  Response historyStats() const { return Response::ok(history.getStats()); }

  Response latestOfWorker(const Request& req) const {
    const auto latest = history.getLatestWorkerMetrics(req.getPathParam("worker_id"));
    if (!latest) return Response::error(404, "No metrics found for worker");
    return Response::ok(latest->toJson());
  }

  Response prometheus() const {
    return Response::text(collector.getPrometheusMetrics(), "text/plain; version=0.0.4");
  }

  Response dump() const { return Response::text(collector.getJsonMetrics(), "application/json"); }
};

}  // namespace

void addMetricsRoutes(api::RouteBook& book, metrics::MetricsCollector& collector,
                      metrics::MetricsHistory& history) {
  const MetricsRoutes r{collector, history};
  book.get("/api/v1/metrics/history/workers/:worker_id",
           [r](Context&, const Request& req) { return r.workerHistory(req); });
  book.get("/api/v1/metrics/history/cluster",
           [r](Context&, const Request& req) { return r.clusterHistory(req); });
  book.get("/api/v1/metrics/history/stats",
           [r](Context&, const Request&) { return r.historyStats(); });
  book.get("/api/v1/metrics/workers/:worker_id/latest",
           [r](Context&, const Request& req) { return r.latestOfWorker(req); });
  book.get("/metrics", [r](Context&, const Request&) { return r.prometheus(); });
  book.get("/api/v1/metrics", [r](Context&, const Request&) { return r.dump(); });
}

}  // namespace tavrel::controller
