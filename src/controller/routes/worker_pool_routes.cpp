#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/route_book.h"
#include "cluster/load_balancer.h"
#include "cluster/task_executor.h"
#include "cluster/worker_pool.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

struct WorkerPoolRoutes {
  const cluster::LoadBalancer* balancer;
  cluster::WorkerPool* pool;
  const cluster::TaskExecutor& executor;

  Response balancerStats() const {
    if (balancer == nullptr) return Response::error(503, "Load balancer not initialized");
    return Response::ok(balancer->getStats());
  }

  Response stats() const {
    return pool == nullptr ? notInitialized() : Response::ok(pool->getStats());
  }

  Response tasks() const {
    if (pool == nullptr) return notInitialized();
    json tasks = platform::jsonArray(pool->getPendingTasks());
    for (const auto& task : pool->getRunningTasks()) tasks.push_back(task.toJson());
    return Response::ok({{"tasks", std::move(tasks)}});
  }

  Response task(const Request& req) const {
    if (pool == nullptr) return notInitialized();
    const auto task = pool->getTaskStatus(req.getPathParam("task_id"));
    return task ? Response::ok(task->toJson()) : Response::error(404, "Task not found");
  }

  Response submit(const Request& req) const {
    if (pool == nullptr) return notInitialized();
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    cluster::WorkerTask task;
    platform::readField(body, "type", task.type);
    platform::readField(body, "payload", task.payload);
    platform::readField(body, "priority", task.priority);
    platform::readField(body, "timeout_ms", task.timeout_ms);
    platform::readField(body, "capabilities", task.requirements.capabilities);
    platform::readField(body, "model", task.requirements.model);
    const std::string id = pool->submit(std::move(task));
    if (id.empty()) return Response::error(503, "Worker pool queue is full");
    return Response::ok({{"task_id", id}});
  }

  Response execute(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    try {
      return Response::ok(executor.execute(*req.json()));
    } catch (const cluster::TaskRefused& refusal) {
      return Response::error(refusal.status, refusal.what());
    }
  }

 private:
  static Response notInitialized() { return Response::error(503, "Worker pool not initialized"); }
};

}  // namespace

void addWorkerPoolRoutes(api::RouteBook& book, const cluster::LoadBalancer* balancer,
                         cluster::WorkerPool* pool, const cluster::TaskExecutor& executor) {
  const WorkerPoolRoutes h{balancer, pool, executor};
  book.get("/api/v1/cluster/workers/stats", [h](auto&, auto&) { return h.stats(); });
  book.post("/api/v1/cluster/workers/submit", [h](auto&, auto& req) { return h.submit(req); });
  book.get("/api/v1/cluster/workers/tasks", [h](auto&, auto&) { return h.tasks(); });
  book.get("/api/v1/cluster/loadbalancer/stats", [h](auto&, auto&) { return h.balancerStats(); });
  book.post("/worker/execute", [h](auto&, auto& req) { return h.execute(req); });
  book.get("/api/v1/cluster/workers/tasks/:task_id", [h](auto&, auto& req) { return h.task(req); });
}

}  // namespace tavrel::controller
