#include "worker/typed_worker_registry.h"

#include <utility>

namespace tavrel::worker {

using platform::MutexLock;

namespace {

bool sameText(const std::string& a, const std::string& b) {
  return !a.empty() && a == b;
}

bool isReachable(const TypedWorkerInfo& worker, platform::WallTime now) {
  return worker.statusAt(now) == "online" && !worker.baseUrl().empty();
}

}  // namespace

std::vector<PurgedWorker> TypedWorkerRegistry::registerWorker(TypedWorkerInfo info) {
  const auto stored = std::make_shared<const TypedWorkerInfo>(std::move(info));
  std::vector<PurgedWorker> purged;
  MutexLock lock(mu_);
  for (auto place = workers_.begin(); kind_.purges && place != workers_.end();) {
    const TypedWorkerInfo& other = *place->second;
    const bool replaced = sameText(other.name, stored->name) || sameText(other.url, stored->url);
    const bool stale =
        judgeSilence(other.last_heartbeat, stored->last_heartbeat, false) == Silence::kForgotten;
    if (other.id == stored->id || (!replaced && !stale)) {
      ++place;
      continue;
    }
    purged.push_back({other.id, other.name, replaced});
    place = workers_.erase(place);
  }
  workers_[stored->id] = stored;
  return purged;
}

bool TypedWorkerRegistry::replaceIf(const TypedWorkerPtr& expected, TypedWorkerPtr replacement) {
  MutexLock lock(mu_);
  const auto place = workers_.find(expected->id);
  if (place == workers_.end() || place->second != expected) return false;
  if (replacement == nullptr) {
    workers_.erase(place);
  } else {
    place->second = std::move(replacement);
  }
  return true;
}

bool TypedWorkerRegistry::update(const std::string& id,
                                 const std::function<void(TypedWorkerInfo&)>& change) {
  while (const TypedWorkerPtr current = find(id)) {
    TypedWorkerInfo changed = *current;
    change(changed);
    changed.id = id;
    if (replaceIf(current, std::make_shared<const TypedWorkerInfo>(std::move(changed)))) {
      return true;
    }
  }
  return false;
}

TypedWorkerPtr TypedWorkerRegistry::remove(const std::string& id) {
  MutexLock lock(mu_);
  const auto place = workers_.find(id);
  if (place == workers_.end()) return nullptr;
  TypedWorkerPtr removed = std::move(place->second);
  workers_.erase(place);
  return removed;
}

std::vector<ReapedWorker> TypedWorkerRegistry::reap(platform::WallTime now) {
  std::vector<ReapedWorker> reaped;
  if (!kind_.reaped) return reaped;
  for (const TypedWorkerPtr& worker : snapshot()) {
    const Silence silence = judgeSilence(worker->last_heartbeat, now, worker->status == "online");
    if (silence == Silence::kNone) continue;
    TypedWorkerPtr replacement;
    if (silence == Silence::kOffline) {
      TypedWorkerInfo offline = *worker;
      offline.status = "offline";
      replacement = std::make_shared<const TypedWorkerInfo>(std::move(offline));
    }
    // A daemon that changed since the snapshot has just been heard of.
    if (!replaceIf(worker, std::move(replacement))) continue;
    reaped.push_back(reapedWorker(worker->id, worker->name, worker->last_heartbeat, now, silence));
  }
  return reaped;
}

TypedWorkerPtr TypedWorkerRegistry::find(const std::string& id) const {
  MutexLock lock(mu_);
  const auto place = workers_.find(id);
  return place == workers_.end() ? nullptr : place->second;
}

std::vector<TypedWorkerPtr> TypedWorkerRegistry::snapshot() const {
  std::vector<TypedWorkerPtr> workers;
  MutexLock lock(mu_);
  workers.reserve(workers_.size());
  for (const auto& [id, worker] : workers_) workers.push_back(worker);
  return workers;
}

std::size_t TypedWorkerRegistry::size() const {
  MutexLock lock(mu_);
  return workers_.size();
}

TypedWorkerPtr TypedWorkerRegistry::firstOnline(platform::WallTime now) const {
  for (const TypedWorkerPtr& worker : snapshot()) {
    if (isReachable(*worker, now)) return worker;
  }
  return nullptr;
}

std::vector<std::string> TypedWorkerRegistry::onlineUrls(platform::WallTime now) const {
  std::vector<std::string> urls;
  for (const TypedWorkerPtr& worker : snapshot()) {
    if (isReachable(*worker, now)) urls.push_back(worker->baseUrl());
  }
  return urls;
}

TypedWorkerRegistries::TypedWorkerRegistries() {
  for (const TypedWorkerKind& kind : typedWorkerKinds()) {
    registries_[static_cast<std::size_t>(kind.kind)] = std::make_unique<TypedWorkerRegistry>(kind);
  }
}

std::vector<std::string> TypedWorkerRegistries::reap(platform::WallTime now) {
  std::vector<std::string> lines;
  for (const auto& registry : registries_) {
    for (const ReapedWorker& worker : registry->reap(now)) {
      lines.push_back(reapedLine(registry->kind().label, worker));
    }
  }
  return lines;
}

}  // namespace tavrel::worker
