#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/mutex.h"
#include "worker/liveness.h"
#include "worker/typed_worker_info.h"
#include "worker/typed_worker_kind.h"

namespace tavrel::worker {

using TypedWorkerPtr = std::shared_ptr<const TypedWorkerInfo>;

/// A record that made room for a new one.
struct PurgedWorker {
  std::string id;
  std::string name;
  bool replaced = false;  ///< by the new one; otherwise it was stale
};

/// The daemons of one kind by id, in id order. Owns the records and hands out immutable snapshots.
/// Threads: any; mu_ is a leaf lock, nothing foreign is called under it.
/// Time: callers pass `now`. Failure: an unknown id gives null or false.
class TypedWorkerRegistry {
 public:
  explicit TypedWorkerRegistry(const TypedWorkerKind& kind) : kind_(kind) {}
  TypedWorkerRegistry(const TypedWorkerRegistry&) = delete;
  TypedWorkerRegistry& operator=(const TypedWorkerRegistry&) = delete;

  const TypedWorkerKind& kind() const { return kind_; }

  /// Stores the record under its id. Where the kind purges, others of the same non-empty name or
  /// URL and those silent for too long go first and come back, in id order.
  std::vector<PurgedWorker> registerWorker(TypedWorkerInfo info) TV_EXCLUDES(mu_);

  /// Replaces the record by a changed copy. `change` edits a copy, outside the lock, and runs again
  /// on a fresh copy when another change came first. What it throws leaves the record as it was.
  bool update(const std::string& id, const std::function<void(TypedWorkerInfo&)>& change)
      TV_EXCLUDES(mu_);

  /// The record that was removed, or null.
  TypedWorkerPtr remove(const std::string& id) TV_EXCLUDES(mu_);

  /// Marks silent daemons offline and forgets those silent for longer, in id order. Does nothing
  /// for a kind that is not reaped.
  std::vector<ReapedWorker> reap(platform::WallTime now) TV_EXCLUDES(mu_);

  TypedWorkerPtr find(const std::string& id) const TV_EXCLUDES(mu_);
  std::vector<TypedWorkerPtr> snapshot() const TV_EXCLUDES(mu_);  ///< in id order
  std::size_t size() const TV_EXCLUDES(mu_);

  /// The first daemon in id order that is online and can be reached, or null.
  TypedWorkerPtr firstOnline(platform::WallTime now) const TV_EXCLUDES(mu_);
  /// Where the daemons that are online are reached, in id order.
  std::vector<std::string> onlineUrls(platform::WallTime now) const TV_EXCLUDES(mu_);

 private:
  bool replaceIf(const TypedWorkerPtr& expected, TypedWorkerPtr replacement) TV_EXCLUDES(mu_);

  const TypedWorkerKind& kind_;
  mutable platform::Mutex mu_;
  std::map<std::string, TypedWorkerPtr> workers_ TV_GUARDED_BY(mu_);
};

/// The registries of all kinds, each with a lock of its own. Any thread.
class TypedWorkerRegistries {
 public:
  TypedWorkerRegistries();

  TypedWorkerRegistry& of(WorkerKind kind) { return *registries_[static_cast<std::size_t>(kind)]; }
  const TypedWorkerRegistry& of(WorkerKind kind) const {
    return *registries_[static_cast<std::size_t>(kind)];
  }

  /// One reaper pass over every kind, in their order; the console lines of what it did.
  std::vector<std::string> reap(platform::WallTime now);

 private:
  std::array<std::unique_ptr<TypedWorkerRegistry>, kWorkerKinds> registries_;
};

}  // namespace tavrel::worker
