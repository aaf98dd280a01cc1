#include "models/training_jobs.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "platform/json_fields.h"
#include "platform/side_by_side.h"
#include "platform/text.h"

namespace tavrel::models {
namespace {

using nlohmann::json;
using platform::Outcome;
using worker::TypedWorkerPtr;

constexpr const char* kWorkerKey = "training_worker_id";

std::string jobsUrl(const TypedWorkerPtr& worker) {
  return net::joinUrl(worker->baseUrl(), "/api/v1/jobs");
}

std::string jobUrl(const TypedWorkerPtr& worker, const std::string& job_id) {
  return jobsUrl(worker) + '/' + platform::percentEncode(job_id);
}

/// The object a worker answered; anything else is wrapped as text.
json objectFrom(const std::string& text) {
  json answer = net::parsedJson(text);
  return answer.is_object() ? std::move(answer) : net::rawResponse(text);
}

/// The jobs of a list answer: a bare array, or an object with a "jobs" array.
json jobsIn(const std::string& text) {
  json answer = net::parsedJson(text);
  if (answer.is_object()) {
    const json* jobs = platform::jsonMember(answer, "jobs");
    return jobs != nullptr && jobs->is_array() ? *jobs : json::array();
  }
  return answer.is_array() ? std::move(answer) : json::array();
}

Outcome requestFailed(const net::HttpResult& result) {
  return Outcome::refused(502, "Training worker request failed: " + net::failureOf(result));
}

Outcome unknownJob(const std::string& job_id) {
  return Outcome::refused(404, "Training job not found: " + job_id);
}

}  // namespace

Outcome TrainingJobs::submit(json body, platform::WallTime now) {
  std::string backend;
  platform::readFieldUnlessNull(body, "backend", backend);
  const TypedWorkerPtr worker = choose(backend, now);
  if (worker == nullptr) {
    return Outcome::refused(503,
                            "No suitable training worker available" +
                                (backend.empty() ? "" : " (requested backend: " + backend + ")"));
  }
  const std::string data_worker = registry_.storageWorkerUrl(now);
  if (!data_worker.empty()) body["data_worker_url"] = data_worker;
  const net::HttpResult result =
      client_.post(net::CallKind::kSubmitTraining, jobsUrl(worker), body);
  if (!net::canBePassedOn(result)) return requestFailed(result);
  json answer = objectFrom(result.body);
  answer[kWorkerKey] = worker->id;
  return {result.status, std::move(answer), {}};
}

Outcome TrainingJobs::list(platform::WallTime now) {
  const std::vector<TypedWorkerPtr> workers = fresh(now);
  std::vector<json> lists(workers.size());
  std::vector<std::function<void()>> calls;
  for (std::size_t i = 0; i < workers.size(); ++i) {
    calls.emplace_back([&, i] {
      const net::HttpResult result = client_.get(net::CallKind::kTrainingJobs, jobsUrl(workers[i]));
      if (result.ok()) lists[i] = jobsIn(result.body);
    });
  }
  platform::runSideBySide(calls, kMaxCallsAtOnce, asking_time_);

  json jobs = json::array();
  for (std::size_t i = 0; i < workers.size(); ++i) {
    for (json& job : lists[i]) {
      if (!job.is_object()) continue;
      job[kWorkerKey] = workers[i]->id;
      jobs.push_back(std::move(job));
    }
  }
  const std::size_t count = jobs.size();
  return Outcome::ok({{"jobs", std::move(jobs)}, {"count", count}});
}

Outcome TrainingJobs::find(const std::string& job_id) {
  Found found = locate(job_id);
  if (found.worker == nullptr) return unknownJob(job_id);
  found.job[kWorkerKey] = found.worker->id;
  return Outcome::ok(std::move(found.job));
}

Outcome TrainingJobs::cancel(const std::string& job_id) {
  const Found found = locate(job_id);
  if (found.worker == nullptr) return unknownJob(job_id);
  const net::HttpResult result = client_.post(
      net::CallKind::kTrainingJobs, jobUrl(found.worker, job_id) + "/cancel", json::object());
  if (!net::canBePassedOn(result)) return requestFailed(result);
  return {result.status, objectFrom(result.body), {}};
}

TypedWorkerPtr TrainingJobs::choose(const std::string& backend, platform::WallTime now) const {
  TypedWorkerPtr best;
  for (const TypedWorkerPtr& worker : fresh(now)) {
    if (!backend.empty()) {
      const std::vector<std::string> offered = worker->list("backends");
      if (std::find(offered.begin(), offered.end(), backend) == offered.end()) continue;
    }
    if (best == nullptr || worker->number("active_jobs") < best->number("active_jobs")) {
      best = worker;
    }
  }
  return best;
}

std::vector<TypedWorkerPtr> TrainingJobs::fresh(platform::WallTime now) const {
  std::vector<TypedWorkerPtr> workers = training_workers_.snapshot();
  std::erase_if(workers, [&](const TypedWorkerPtr& worker) {
    return now - worker->last_heartbeat >= worker::kTrustedFor || worker->baseUrl().empty();
  });
  return workers;
}

TrainingJobs::Found TrainingJobs::locate(const std::string& job_id) {
  if (job_id.empty()) return {};  // its URL would be that of the whole list
  const platform::SteadyTime start = platform::steadyNow();
  bool asked = false;
  for (const TypedWorkerPtr& worker : training_workers_.snapshot()) {
    if (worker->baseUrl().empty()) continue;
    if (asked && platform::steadyNow() - start > asking_time_) return {};
    asked = true;
    const net::HttpResult result =
        client_.get(net::CallKind::kTrainingJobs, jobUrl(worker, job_id));
    json job = result.ok() ? net::parsedJson(result.body) : json();
    if (job.is_object()) return {worker, std::move(job)};
  }
  return {};
}

}  // namespace tavrel::models
