#include "models/pull_jobs.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "platform/console.h"
#include "platform/random.h"

namespace tavrel::models {
namespace {

using nlohmann::json;

std::string newJobId() {
  return "pull-" + platform::secureRandomText(8, "0123456789abcdef");
}

}  // namespace

json PullJob::toJson() const {
  json list = json::array();
  for (const PullJobWorkerResult& result : results) {
    json& entry = list.emplace_back(json{{"worker_id", result.worker_id},
                                         {"worker_name", result.worker_name},
                                         {"status", result.status}});
    if (!result.error.empty()) entry["error"] = result.error;
  }
  return {{"job_id", job_id},
          {"model", model},
          {"status", status},
          {"workers_total", workers_total},
          {"workers_completed", workers_completed},
          {"workers_failed", workers_failed},
          {"results", std::move(list)},
          {"created_at", platform::toEpochSeconds(created_at)}};
}

PullJobs::PullJobs(net::WorkerClient& client, events::EventStreamService& events)
    : client_(client), events_(events), threads_("pull", kMaxPullsAtOnce) {}

PullJob PullJobs::start(const std::string& model, const std::vector<TargetWorker>& targets) {
  PullJob job;
  job.model = model;
  job.created_at = platform::wallNow();
  job.workers_total = static_cast<std::int32_t>(targets.size());
  for (const TargetWorker& target : targets) {
    job.results.push_back({target.worker_id, target.worker_name, "pending", ""});
  }
  {
    const platform::MutexLock lock(mu_);
    do job.job_id = newJobId();
    while (!jobs_.emplace(job.job_id, job).second);
  }
  platform::printLine("[Models] Pull job " + job.job_id + " started: " + model + " -> " +
                      std::to_string(targets.size()) + " workers");
  for (std::size_t index = 0; index < targets.size(); ++index) {
    threads_.run([this, id = job.job_id, index, target = targets[index], model] {
      pullModelToWorkerAsync(id, index, target, model);
    });
  }
  return job;
}

std::optional<PullJob> PullJobs::find(const std::string& job_id) const {
  const platform::MutexLock lock(mu_);
  const auto found = jobs_.find(job_id);
  return found == jobs_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<PullJob> PullJobs::all() const {
  std::vector<PullJob> jobs;
  const platform::MutexLock lock(mu_);
  jobs.reserve(jobs_.size());
  for (const auto& [id, job] : jobs_) jobs.push_back(job);
  return jobs;
}

void PullJobs::pullModelToWorkerAsync(const std::string& job_id, std::size_t index,
                                      const TargetWorker& target, const std::string& model) {
  begin(job_id, index);
  const std::string failure =
      !target.error.empty() ? target.error
                            : net::reportedFailure(client_.post(
                                  net::CallKind::kPullInBackground,
                                  target.base_url + "/api/v1/models/pull", json{{"model", model}}));
  const PullJob job = finish(job_id, index, failure);
  report(job, job.results.front());
}

void PullJobs::begin(const std::string& job_id, std::size_t index) {
  const platform::MutexLock lock(mu_);
  jobs_.at(job_id).results[index].status = "pulling";
}

PullJob PullJobs::finish(const std::string& job_id, std::size_t index, const std::string& error) {
  const platform::MutexLock lock(mu_);
  PullJob& job = jobs_.at(job_id);
  PullJobWorkerResult& result = job.results[index];
  result.status = error.empty() ? "completed" : "error";
  result.error = error;
  ++(error.empty() ? job.workers_completed : job.workers_failed);
  if (job.workers_completed + job.workers_failed >= job.workers_total) {
    job.status = job.workers_completed == 0 ? "failed"
                 : job.workers_failed > 0   ? "partial"
                                            : "completed";
    job.completed_at = platform::wallNow();
  }
  // The list may be long: it is left out of the copy.
  std::vector<PullJobWorkerResult> results = std::move(job.results);
  job.results = {results[index]};
  PullJob copy = job;
  job.results = std::move(results);
  return copy;
}

void PullJobs::report(const PullJob& job, const PullJobWorkerResult& result) {
  const bool failed = !result.error.empty();
  const std::string line = "Pull of " + job.model + (failed ? " failed on " : " completed on ") +
                           result.worker_name + (failed ? ": " + result.error : "");
  platform::printLine("[Models] " + line);
  json data = {{"job_id", job.job_id},
               {"model", job.model},
               {"status", job.status},
               {"worker_id", result.worker_id},
               {"worker_status", result.status},
               {"workers_total", job.workers_total},
               {"workers_completed", job.workers_completed},
               {"workers_failed", job.workers_failed}};
  events_.notify(failed ? events::EventType::kError : events::EventType::kInfo, job.job_id,
                 "pull_job", line, data);
  if (job.status == "running") return;
  const std::string end = "Pull job " + job.job_id + " finished: " + job.status + " (" +
                          std::to_string(job.workers_completed) + "/" +
                          std::to_string(job.workers_total) + " succeeded)";
  platform::printLine("[Models] " + end);
  events_.notify(job.workers_failed > 0 ? events::EventType::kWarning : events::EventType::kInfo,
                 job.job_id, "pull_job", end, std::move(data));
}

}  // namespace tavrel::models
