#include "cluster/worker_pool.h"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>

#include "platform/blocking.h"
#include "platform/console.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/random.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::MutexLock;
using std::chrono::milliseconds;

namespace {

constexpr std::int32_t kNeverRan = -1;

double millisecondsBetween(platform::SteadyTime from, platform::SteadyTime to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

WorkerResult failure(std::string error) {
  WorkerResult result;
  result.error = std::move(error);
  result.exit_code = kNeverRan;
  return result;
}

WorkerResult readResult(const std::string& body) {
  const json object = platform::parseForeignJson(body);
  WorkerResult result;
  platform::readField(object, "success", result.success);
  platform::readField(object, "result", result.result);
  platform::readField(object, "error", result.error);
  platform::readField(object, "exit_code", result.exit_code);
  platform::readField(object, "stdout", result.standard_output);
  platform::readField(object, "stderr", result.standard_error);
  return result;
}

}  // namespace

/// What the available workers have together. Tells at little cost of most requirements that nobody
/// meets that it is so; the balancer has the last word.
struct WorkerPool::Offer {
  explicit Offer(std::vector<NodePtr> available) : workers(std::move(available)) {
    for (const NodePtr& node : workers) {
      capabilities.insert(node->capabilities.begin(), node->capabilities.end());
      models.insert(node->models.begin(), node->models.end());
    }
  }
  bool mayMeet(const TaskRequirements& wanted) const {
    return (wanted.model.empty() || models.contains(wanted.model)) &&
           std::all_of(wanted.capabilities.begin(), wanted.capabilities.end(),
                       [this](const std::string& name) { return capabilities.contains(name); });
  }

  const std::vector<NodePtr> workers;  // own the texts
  std::set<std::string_view> capabilities;
  std::set<std::string_view> models;
};

struct WorkerPool::Job {
  TaskStatus status;  // the payload is in `body`
  Place place{};
  std::string body;  // what is posted
  platform::SteadyTime submitted;
  platform::SteadyTime started;
  platform::SteadyTime deadline;  // of finding a node
  std::size_t kept_bytes = 0;
  std::promise<WorkerResult> promise;
};

WorkerPool::WorkerPool(const NodeRegistry& registry, LoadBalancer& balancer,
                       ClusterTransport& transport)
    : registry_(registry),
      balancer_(balancer),
      transport_(transport),
      expiry_("worker-expiry", kExpiryPass, kExpiryPass,
              [this](const std::stop_token&) { failExpired(); }) {}

WorkerPool::~WorkerPool() {
  stop();
}

void WorkerPool::start(std::size_t dispatchers) {
  {
    const MutexLock lock(mu_);
    if (running_) return;
    running_ = true;
  }
  for (std::size_t i = 0; i < dispatchers; ++i) dispatchers_.emplace_back([this] { dispatch(); });
  expiry_.start();
  platform::printLine("[WorkerPool] Started with " + std::to_string(dispatchers) +
                      " dispatcher threads");
}

void WorkerPool::stop() {
  std::vector<JobPtr> queued;
  {
    const MutexLock lock(mu_);
    if (!running_) return;
    running_ = false;
    for (const auto& [requirements, queue] : queues_) {
      for (const auto& [place, job] : queue) queued.push_back(job);
    }
    for (const JobPtr& job : queued) unqueueLocked(job, TaskState::kFailed);
  }
  changed_.notifyAll();
  expiry_.stop();
  for (const JobPtr& job : queued) handleTaskFailed(job, TaskState::kFailed, "Worker pool stopped");
  for (std::thread& thread : dispatchers_) thread.join();
  dispatchers_.clear();
}

std::string WorkerPool::submit(WorkerTask task) {
  return enqueue(std::move(task)).first;
}

std::future<WorkerResult> WorkerPool::submitAsync(WorkerTask task) {
  return enqueue(std::move(task)).second;
}

WorkerResult WorkerPool::submitSync(WorkerTask task) {
  std::future<WorkerResult> result = submitAsync(std::move(task));
  const platform::BlockingScope blocking;
  return result.get();
}

std::pair<std::string, std::future<WorkerResult>> WorkerPool::enqueue(WorkerTask task) {
  task.task_id = platform::generateUUID();
  if (task.timeout_ms < 1) task.timeout_ms = WorkerTask::kDefaultTimeoutMs;
  const auto job = std::make_shared<Job>();
  job->body = platform::dumpJson({{"task_id", task.task_id},
                                  {"type", task.type},
                                  {"payload", task.payload},
                                  {"timeout_ms", task.timeout_ms}});
  task.payload = nullptr;
  job->status.submitted_at = platform::wallNow();
  job->submitted = platform::steadyNow();
  job->deadline = job->submitted + milliseconds(task.timeout_ms);
  job->status.task = std::move(task);
  std::pair<std::string, std::future<WorkerResult>> ticket{job->status.task.task_id,
                                                           job->promise.get_future()};
  {
    const MutexLock lock(mu_);
    if (running_ && queued_ < kMaxQueued && queued_bytes_ + job->body.size() <= kMaxQueuedBytes) {
      job->place = {-std::int64_t{job->status.task.priority}, ++submitted_};
      queues_[job->status.task.requirements][job->place] = job;
      jobs_[ticket.first] = job;
      ++queued_;
      queued_bytes_ += job->body.size();
      changed_.notifyOne();
      return ticket;
    }
  }
  job->promise.set_value(failure("The queue is full or the pool has stopped"));
  ticket.first.clear();
  return ticket;
}

bool WorkerPool::cancel(const std::string& task_id) {
  JobPtr job;
  {
    const MutexLock lock(mu_);
    const auto place = jobs_.find(task_id);
    if (place == jobs_.end() || place->second->status.state != TaskState::kPending) return false;
    job = place->second;
    unqueueLocked(job, TaskState::kCancelled);
  }
  handleTaskFailed(job, TaskState::kCancelled, "Task cancelled");
  return true;
}

void WorkerPool::dispatch() {
  platform::nameThisThread("worker-pool");
  for (;;) {
    const bool dispatched = dispatchOne();
    const MutexLock lock(mu_);
    if (!running_) return;
    if (dispatched) continue;
    if (queued_ == 0) {
      changed_.wait(mu_);
    } else {
      changed_.waitFor(mu_, kRetryPause);
    }
  }
}

/// Runs the first task for which there is a node. False when there is none.
bool WorkerPool::dispatchOne() {
  if (getQueueDepth() == 0) return false;
  const Offer offer(getAvailableWorkers());
  if (offer.workers.empty()) return false;
  for (const TaskRequirements& wanted : wantedOf(offer)) {
    const NodePtr node = balancer_.selectNode(wanted.capabilities, wanted.model, NodeType::kWorker);
    if (node == nullptr) continue;
    const JobPtr job = take(wanted, *node);
    if (job == nullptr) continue;  // another dispatcher was faster
    balancer_.incrementConnections(node->id);
    WorkerResult result = executeOnWorker(*node, *job);
    balancer_.decrementConnections(node->id);
    finish(job, result.success ? TaskState::kCompleted : TaskState::kFailed, std::move(result));
    return true;
  }
  return false;
}

/// What the queued tasks require of it, in the order in which they are to run.
std::vector<TaskRequirements> WorkerPool::wantedOf(const Offer& offer) const {
  std::vector<std::pair<Place, TaskRequirements>> wanted;
  {
    const MutexLock lock(mu_);
    for (const auto& [requirements, queue] : queues_) {
      if (offer.mayMeet(requirements)) wanted.emplace_back(queue.begin()->first, requirements);
    }
  }
  std::sort(wanted.begin(), wanted.end());
  std::vector<TaskRequirements> in_order;
  for (auto& [place, requirements] : wanted) in_order.push_back(std::move(requirements));
  return in_order;
}

WorkerPool::JobPtr WorkerPool::take(const TaskRequirements& requirements, const NodeInfo& node) {
  const MutexLock lock(mu_);
  const auto queue = queues_.find(requirements);
  if (queue == queues_.end()) return nullptr;
  const JobPtr job = queue->second.begin()->second;
  unqueueLocked(job, TaskState::kRunning);
  active_[job->status.task.task_id] = job;
  job->status.node_id = node.id;
  job->status.started_at = platform::wallNow();
  job->started = platform::steadyNow();
  ++started_;
  wait_ms_ += millisecondsBetween(job->submitted, job->started);
  return job;
}

/// Reads of the job only what does not change any more.
WorkerResult WorkerPool::executeOnWorker(const NodeInfo& node, const Job& job) const {
  ClusterCall call;
  call.to = {node.address, node.port};
  call.path = "/worker/execute";
  call.body = job.body;
  call.total = milliseconds(job.status.task.timeout_ms);
  call.connect = std::min(kConnectTimeout, call.total);
  call.max_answer_bytes = kMaxAnswerBytes;
  const ClusterAnswer answer = transport_.send(call);
  if (!answer.error.empty()) return failure(answer.error);
  if (answer.status != 200) return failure("HTTP " + std::to_string(answer.status));
  try {
    return readResult(answer.body);
  } catch (const std::exception& error) {
    return failure(std::string("Failed to parse response: ") + error.what());
  }
}

void WorkerPool::handleTaskFailed(const JobPtr& job, TaskState state, std::string error) {
  finish(job, state, failure(std::move(error)));
}

void WorkerPool::finish(const JobPtr& job, TaskState state, WorkerResult result) {
  const std::size_t size =
      result.result.dump(-1, ' ', false, json::error_handler_t::replace).size() +
      result.error.size() + result.standard_output.size() + result.standard_error.size();
  {
    const MutexLock lock(mu_);
    if (active_.erase(job->status.task.task_id) > 0) {
      ++executed_;
      execution_ms_ += platform::millisecondsSince(job->started);
    }
    if (state == TaskState::kCompleted) ++completed_;
    if (state == TaskState::kFailed) ++failed_;
    job->body.clear();
    job->body.shrink_to_fit();
    job->status.state = state;
    job->status.finished_at = platform::wallNow();
    job->status.result = result;
    job->kept_bytes = size;
    kept_.push_back(job);
    kept_bytes_ += size;
    forgetOldLocked();
  }
  job->promise.set_value(std::move(result));
}

void WorkerPool::failExpired() {
  std::vector<JobPtr> expired;
  {
    const MutexLock lock(mu_);
    const platform::SteadyTime now = platform::steadyNow();
    for (const auto& [requirements, queue] : queues_) {
      for (const auto& [place, job] : queue) {
        if (job->deadline <= now) expired.push_back(job);
      }
    }
    for (const JobPtr& job : expired) unqueueLocked(job, TaskState::kFailed);
  }
  for (const JobPtr& job : expired) {
    handleTaskFailed(job, TaskState::kFailed, "No available worker for task");
  }
}

void WorkerPool::unqueueLocked(const JobPtr& job, TaskState next) {
  job->status.state = next;
  const auto queue = queues_.find(job->status.task.requirements);
  queue->second.erase(job->place);
  if (queue->second.empty()) queues_.erase(queue);
  --queued_;
  queued_bytes_ -= job->body.size();
}

void WorkerPool::forgetOldLocked() {
  while (kept_.size() > kKeptResults || (kept_bytes_ > kKeptBytes && kept_.size() > 1)) {
    kept_bytes_ -= kept_.front()->kept_bytes;
    jobs_.erase(kept_.front()->status.task.task_id);
    kept_.pop_front();
  }
}

std::optional<TaskStatus> WorkerPool::getTaskStatus(const std::string& task_id) const {
  const MutexLock lock(mu_);
  const auto place = jobs_.find(task_id);
  if (place == jobs_.end()) return std::nullopt;
  return place->second->status;
}

std::vector<TaskStatus> WorkerPool::getPendingTasks() const {
  std::vector<std::pair<Place, TaskStatus>> tasks;
  {
    const MutexLock lock(mu_);
    for (const auto& [requirements, queue] : queues_) {
      for (const auto& [place, job] : queue) tasks.emplace_back(place, job->status);
    }
  }
  std::sort(tasks.begin(), tasks.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<TaskStatus> in_order;
  for (auto& [place, status] : tasks) in_order.push_back(std::move(status));
  return in_order;
}

std::vector<TaskStatus> WorkerPool::getRunningTasks() const {
  std::vector<TaskStatus> tasks;
  const MutexLock lock(mu_);
  for (const auto& [id, job] : active_) tasks.push_back(job->status);
  return tasks;
}

std::size_t WorkerPool::getQueueDepth() const {
  const MutexLock lock(mu_);
  return queued_;
}

std::size_t WorkerPool::getWorkerCount() const {
  return registry_.getNodesByType(NodeType::kWorker).size();
}

std::size_t WorkerPool::getBusyWorkerCount() const {
  std::set<std::string> busy;
  const MutexLock lock(mu_);
  for (const auto& [id, job] : active_) busy.insert(job->status.node_id);
  return busy.size();
}

std::vector<NodePtr> WorkerPool::getAvailableWorkers() const {
  std::vector<NodePtr> nodes = registry_.getNodesByType(NodeType::kWorker);
  std::erase_if(nodes, [](const NodePtr& node) { return !isAvailable(node->status); });
  return nodes;
}

double WorkerPool::getAverageWaitTime() const {
  const MutexLock lock(mu_);
  return started_ == 0 ? 0 : wait_ms_ / static_cast<double>(started_);
}

double WorkerPool::getAverageExecutionTime() const {
  const MutexLock lock(mu_);
  return executed_ == 0 ? 0 : execution_ms_ / static_cast<double>(executed_);
}

json WorkerPool::getStats() const {
  json stats = {{"busy_workers", getBusyWorkerCount()},
                {"avg_wait_time_ms", getAverageWaitTime()},
                {"avg_exec_time_ms", getAverageExecutionTime()},
                {"worker_count", getWorkerCount()}};
  const MutexLock lock(mu_);
  stats["total_submitted"] = submitted_;
  stats["total_completed"] = completed_;
  stats["total_failed"] = failed_;
  stats["queue_depth"] = queued_;
  return stats;
}

}  // namespace tavrel::cluster
