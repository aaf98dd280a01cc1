#include "worker/worker_registry.h"

#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::worker {

using platform::MutexLock;

class WorkerRegistry::Snapshot {
 public:
  explicit Snapshot(WorkerInfo record) : info(std::move(record)) {}

  const std::string& text() const {
    std::call_once(written_, [this] {
      text_ = info.toJson().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    });
    return text_;
  }

  const WorkerInfo info;

 private:
  mutable std::once_flag written_;
  mutable std::string text_;
};

WorkerPtr WorkerRegistry::publish(const SnapshotPtr& record) {
  return {record, &record->info};
}

bool WorkerRegistry::indexedAlike(const WorkerInfo& a, const WorkerInfo& b) {
  return a.worker_name == b.worker_name &&
         (a.status == WorkerStatus::kOnline) == (b.status == WorkerStatus::kOnline) &&
         a.capabilities.installed_models == b.capabilities.installed_models;
}

void WorkerRegistry::indexLocked(const Entry& entry) {
  const WorkerInfo& info = entry.record->info;
  by_name_[info.worker_name].insert(&entry);
  if (info.status != WorkerStatus::kOnline) return;
  for (const std::string& model : info.capabilities.installed_models) {
    online_by_model_[model].insert(&entry);
  }
}

void WorkerRegistry::unindexLocked(const Entry& entry) {
  const auto drop = [&entry](Index& index, const std::string& text) {
    const auto place = index.find(text);
    if (place == index.end()) return;  // a model may be listed twice
    place->second.erase(&entry);
    if (place->second.empty()) index.erase(place);
  };
  const WorkerInfo& info = entry.record->info;
  drop(by_name_, info.worker_name);
  if (info.status != WorkerStatus::kOnline) return;
  for (const std::string& model : info.capabilities.installed_models) {
    drop(online_by_model_, model);
  }
}

std::uint64_t WorkerRegistry::noteLocked(std::string_view worker_id) {
  journal_.emplace_back(worker_id);
  if (journal_.size() > kJournalLength) journal_.pop_front();
  return version_.fetch_add(1, std::memory_order_release) + 1;
}

void WorkerRegistry::eraseLocked(Entries::iterator place) {
  noteLocked(place->first);
  unindexLocked(place->second);
  workers_.erase(place);
}

std::vector<std::string> WorkerRegistry::registerWorker(WorkerInfo info, bool displace_empty_name) {
  const auto record = std::make_shared<const Snapshot>(std::move(info));
  const WorkerInfo& stored = record->info;
  std::vector<std::string> displaced;
  std::vector<SnapshotPtr> replaced;  // outlives the lock: records are not freed under it
  MutexLock lock(mu_);
  const auto same_name = by_name_.find(stored.worker_name);
  if (same_name != by_name_.end() && (displace_empty_name || !stored.worker_name.empty())) {
    for (const Entry* entry : same_name->second) {
      if (entry->id != stored.worker_id) displaced.emplace_back(entry->id);
    }
  }
  for (const std::string& id : displaced) {
    const auto place = workers_.find(id);
    replaced.push_back(place->second.record);
    eraseLocked(place);
  }
  const auto [place, added] = workers_.try_emplace(stored.worker_id);
  Entry& entry = place->second;
  if (added) {
    entry.id = place->first;
  } else {
    unindexLocked(entry);
    replaced.push_back(entry.record);
  }
  entry.record = record;
  entry.version = noteLocked(entry.id);
  indexLocked(entry);
  return displaced;
}

bool WorkerRegistry::replaceIf(const WorkerPtr& expected, SnapshotPtr replacement, bool reindex) {
  MutexLock lock(mu_);
  const auto place = workers_.find(expected->worker_id);
  if (place == workers_.end() || &place->second.record->info != expected.get()) return false;
  Entry& entry = place->second;
  if (replacement == nullptr) {
    eraseLocked(place);
    return true;
  }
  if (reindex) unindexLocked(entry);
  entry.record = std::move(replacement);
  if (reindex) indexLocked(entry);
  entry.version = noteLocked(entry.id);
  return true;
}

bool WorkerRegistry::update(const std::string& worker_id,
                            const std::function<void(WorkerInfo&)>& change) {
  // Every turn after the first means that another update of this worker went through.
  while (const WorkerPtr current = find(worker_id)) {
    WorkerInfo changed = *current;
    change(changed);
    changed.worker_id = worker_id;
    const bool reindex = !indexedAlike(*current, changed);
    if (replaceIf(current, std::make_shared<const Snapshot>(std::move(changed)), reindex)) {
      return true;
    }
  }
  return false;
}

bool WorkerRegistry::remove(const std::string& worker_id) {
  SnapshotPtr removed;
  MutexLock lock(mu_);
  const auto place = workers_.find(worker_id);
  if (place == workers_.end()) return false;
  removed = place->second.record;
  eraseLocked(place);
  return true;
}

std::vector<ReapedWorker> WorkerRegistry::reap(platform::WallTime now) {
  std::vector<ReapedWorker> reaped;
  for (const WorkerPtr& worker : snapshot()) {
    const bool online = worker->status == WorkerStatus::kOnline;
    const Silence silence = judgeSilence(worker->last_heartbeat, now, online);
    if (silence == Silence::kNone) continue;
    SnapshotPtr replacement;
    if (silence == Silence::kOffline) {
      WorkerInfo offline = *worker;
      offline.status = WorkerStatus::kOffline;
      replacement = std::make_shared<const Snapshot>(std::move(offline));
    }
    // A worker that changed since the snapshot has just been heard of.
    if (!replaceIf(worker, std::move(replacement), true)) continue;
    reaped.push_back(
        reapedWorker(worker->worker_id, worker->worker_name, worker->last_heartbeat, now, silence));
  }
  return reaped;
}

WorkerPtr WorkerRegistry::find(const std::string& worker_id) const {
  MutexLock lock(mu_);
  const auto place = workers_.find(worker_id);
  return place == workers_.end() ? nullptr : publish(place->second.record);
}

std::vector<WorkerPtr> WorkerRegistry::snapshot() const {
  std::vector<WorkerPtr> workers;
  MutexLock lock(mu_);
  workers.reserve(workers_.size());
  for (const auto& [id, entry] : workers_) workers.push_back(publish(entry.record));
  return workers;
}

std::size_t WorkerRegistry::size() const {
  MutexLock lock(mu_);
  return workers_.size();
}

WorkerListing WorkerRegistry::listing() const {
  std::vector<SnapshotPtr> records;
  {
    MutexLock lock(mu_);
    records.reserve(workers_.size());
    for (const auto& [id, entry] : workers_) records.push_back(entry.record);
  }
  std::size_t length = 66;  // brackets, and room for what the list may be put into
  for (const SnapshotPtr& record : records) length += record->text().size() + 1;
  WorkerListing listing{{}, records.size()};
  listing.workers.reserve(length);
  listing.workers.push_back('[');
  for (const SnapshotPtr& record : records) {
    if (listing.workers.size() > 1) listing.workers.push_back(',');
    listing.workers.append(record->text());
  }
  listing.workers.push_back(']');
  return listing;
}

std::vector<WorkerPtr> WorkerRegistry::onlineWithModel(const std::string& model) const {
  std::vector<WorkerPtr> workers;
  MutexLock lock(mu_);
  const auto place = online_by_model_.find(model);
  if (place == online_by_model_.end()) return workers;
  workers.reserve(place->second.size());
  for (const Entry* entry : place->second) workers.push_back(publish(entry->record));
  return workers;
}

bool WorkerRegistry::modelAvailable(const std::string& model) const {
  MutexLock lock(mu_);
  return online_by_model_.contains(model);
}

std::vector<std::string> WorkerRegistry::onlineModels() const {
  std::vector<std::string> models;
  MutexLock lock(mu_);
  models.reserve(online_by_model_.size());
  for (const auto& [model, workers] : online_by_model_) models.push_back(model);
  return models;
}

std::uint64_t WorkerRegistry::changesSince(std::uint64_t since, std::vector<WorkerChange>& changes,
                                           bool* complete) const {
  *complete = false;
  if (version() == since) return since;
  MutexLock lock(mu_);
  const std::uint64_t current = version();
  if (since > current || current - since > journal_.size()) {
    *complete = true;
    changes.reserve(changes.size() + workers_.size());
    for (const auto& [id, entry] : workers_) changes.push_back({id, publish(entry.record)});
    return current;
  }
  for (std::uint64_t version = since + 1; version <= current; ++version) {
    const std::string& id = journal_[journal_.size() - 1 - (current - version)];
    const auto place = workers_.find(id);
    if (place == workers_.end()) {
      changes.push_back({id, nullptr});
    } else if (place->second.version == version) {  // otherwise a later change tells it
      changes.push_back({id, publish(place->second.record)});
    }
  }
  return current;
}

}  // namespace tavrel::worker
