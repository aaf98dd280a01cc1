#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/mutex.h"
#include "worker/liveness.h"
#include "worker/worker_info.h"

namespace tavrel::worker {

using WorkerPtr = std::shared_ptr<const WorkerInfo>;

/// One entry of the registry's journal: what became of a worker.
struct WorkerChange {
  std::string worker_id;
  WorkerPtr worker;  ///< the record now; null when it left
};

/// All workers as JSON text.
struct WorkerListing {
  std::string workers;  ///< an array of the records, in id order
  std::size_t count = 0;
};

/// Inference workers by id, in id order. Owns the records and hands out immutable snapshots.
/// Threads: any; mu_ is a leaf lock, nothing foreign is called under it.
/// Time: callers pass `now`. Failure: an unknown id gives null or false, never an exception.
class WorkerRegistry {
 public:
  /// How many changes the journal remembers.
  static constexpr std::size_t kJournalLength = 4096;

  WorkerRegistry() = default;
  WorkerRegistry(const WorkerRegistry&) = delete;
  WorkerRegistry& operator=(const WorkerRegistry&) = delete;

  /// Stores the record under its id. Other records of the same name are removed, those without a
  /// name only when `displace_empty_name`; their ids come back, in id order.
  std::vector<std::string> registerWorker(WorkerInfo info, bool displace_empty_name)
      TV_EXCLUDES(mu_);

  /// Replaces the record by a changed copy. `change` edits a copy, outside the lock, and runs again
  /// on a fresh copy when another change came first. What it throws leaves the record as it was; a
  /// changed id is put back. False when the id is unknown.
  bool update(const std::string& worker_id, const std::function<void(WorkerInfo&)>& change)
      TV_EXCLUDES(mu_);

  bool remove(const std::string& worker_id) TV_EXCLUDES(mu_);

  /// Marks silent workers offline and forgets those silent for longer; tells which, in id order.
  std::vector<ReapedWorker> reap(platform::WallTime now) TV_EXCLUDES(mu_);

  WorkerPtr find(const std::string& worker_id) const TV_EXCLUDES(mu_);
  std::vector<WorkerPtr> snapshot() const TV_EXCLUDES(mu_);  ///< in id order
  std::size_t size() const TV_EXCLUDES(mu_);
  /// The text of a record is made once and kept as long as the record does not change. Bytes that
  /// are not UTF-8 are replaced.
  WorkerListing listing() const TV_EXCLUDES(mu_);

  /// Online workers that have the model installed, in id order.
  std::vector<WorkerPtr> onlineWithModel(const std::string& model) const TV_EXCLUDES(mu_);
  bool modelAvailable(const std::string& model) const TV_EXCLUDES(mu_);
  /// Every model installed on an online worker, sorted.
  std::vector<std::string> onlineModels() const TV_EXCLUDES(mu_);

  /// Grows with every change; cheap to compare.
  std::uint64_t version() const { return version_.load(std::memory_order_acquire); }

  /// Appends what changed after `since` (a value this call or version() returned) and returns the
  /// new version. When the journal no longer reaches back that far, `changes` gets every record and
  /// `*complete` is set: what the caller held before is void. A worker that left may come up more
  /// than once.
  std::uint64_t changesSince(std::uint64_t since, std::vector<WorkerChange>& changes,
                             bool* complete) const TV_EXCLUDES(mu_);

 private:
  /// A record as it was at one time, with its JSON text once somebody asked for it.
  class Snapshot;
  using SnapshotPtr = std::shared_ptr<const Snapshot>;

  struct Entry {
    SnapshotPtr record;
    std::string_view id;        ///< the entry's own key
    std::uint64_t version = 0;  ///< of its last change
  };
  struct ById {
    bool operator()(const Entry* a, const Entry* b) const { return a->id < b->id; }
  };
  /// Entries by one of their texts. Entries never move, so a new record of the same texts costs the
  /// index nothing.
  using Index = std::map<std::string, std::set<const Entry*, ById>, std::less<>>;
  using Entries = std::map<std::string, Entry, std::less<>>;

  static WorkerPtr publish(const SnapshotPtr& record);
  static bool indexedAlike(const WorkerInfo& a, const WorkerInfo& b);

  /// Puts `replacement`, or nothing when it is null, in the place of `expected`; false when
  /// somebody else changed it meanwhile.
  bool replaceIf(const WorkerPtr& expected, SnapshotPtr replacement, bool reindex) TV_EXCLUDES(mu_);
  void eraseLocked(Entries::iterator place) TV_REQUIRES(mu_);
  void indexLocked(const Entry& entry) TV_REQUIRES(mu_);
  void unindexLocked(const Entry& entry) TV_REQUIRES(mu_);
  std::uint64_t noteLocked(std::string_view worker_id) TV_REQUIRES(mu_);

  mutable platform::Mutex mu_;
  Entries workers_ TV_GUARDED_BY(mu_);
  Index by_name_ TV_GUARDED_BY(mu_);
  Index online_by_model_ TV_GUARDED_BY(mu_);
  std::deque<std::string> journal_ TV_GUARDED_BY(mu_);  ///< ids; the last belongs to version_
  std::atomic<std::uint64_t> version_{0};               ///< written under mu_
};

}  // namespace tavrel::worker
