#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "worker/worker_registry.h"

namespace tavrel::inference {

/// Per model, the online workers that have it: in id order, and in order of a rank that the owner
/// defines (the lowest first, equal ranks in id order). A mirror of the worker registry that is
/// brought up to date from the registry's journal, so that a choice among ten thousand workers
/// costs a few tree steps, however often they send heartbeats.
///
/// Rank: a value with operator<. If it has `bool counted() const`, every group also knows how many
/// of its members say true.
/// Threads: not locked; the owner locks. refresh() takes the registry's own lock for an instant.
/// Failure: an unknown model has no group (null); an unknown id is ignored.
template <class Rank>
class RankedCandidates {
 public:
  struct Candidate {
    worker::WorkerPtr worker;
    Rank rank;
  };

  struct ByRank {
    bool operator()(const Candidate* a, const Candidate* b) const {
      if (a->rank < b->rank) return true;
      if (b->rank < a->rank) return false;
      return a->worker->worker_id < b->worker->worker_id;
    }
  };

  /// The candidates for one model; never empty.
  struct Group {
    std::string model;
    std::vector<const Candidate*> by_id;
    std::set<const Candidate*, ByRank> by_rank;
    std::size_t counted = 0;

    const Candidate& best() const { return **by_rank.begin(); }
  };

  /// `registry` must outlive this.
  explicit RankedCandidates(const worker::WorkerRegistry& registry) : registry_(registry) {}
  RankedCandidates(const RankedCandidates&) = delete;
  RankedCandidates& operator=(const RankedCandidates&) = delete;

  /// Takes over what changed in the registry. `rank_of(const WorkerInfo&)` is asked for the rank of
  /// every worker that changed. Candidates and groups seen before may be gone afterwards.
  template <class RankOf>
  void refresh(const RankOf& rank_of) {
    if (registry_.version() == seen_) return;
    bool complete = false;
    seen_ = registry_.changesSince(seen_, changes_, &complete);
    if (complete) ++load_;
    for (worker::WorkerChange& change : changes_) apply(change, rank_of);
    if (complete) dropUnlisted();
    changes_.clear();
  }

  /// Null when no online worker has the model.
  const Group* find(const std::string& model) const {
    const auto it = groups_.find(model);
    return it == groups_.end() ? nullptr : &it->second;
  }

  /// The candidate of that id, or null when it is not online or has no model.
  const Candidate* candidate(const std::string& worker_id) const {
    const auto it = slots_.find(worker_id);
    return it == slots_.end() ? nullptr : &it->second;
  }

  void rerank(const std::string& worker_id, Rank rank) {
    const auto it = slots_.find(worker_id);
    if (it != slots_.end()) changeRank(it->second, std::move(rank));
  }

 private:
  struct Slot : Candidate {
    std::vector<Group*> groups;
    std::uint64_t load = 0;  // the last full load that listed the worker, or later
  };

  static bool isCounted(const Rank& rank) {
    if constexpr (requires { rank.counted(); }) {
      return rank.counted();
    } else {
      return false;
    }
  }

  template <class RankOf>
  void apply(worker::WorkerChange& change, const RankOf& rank_of) {
    const auto it = slots_.find(change.worker_id);
    const bool usable = change.worker != nullptr &&
                        change.worker->status == worker::WorkerStatus::kOnline &&
                        !change.worker->capabilities.installed_models.empty();
    if (it == slots_.end()) {
      if (usable) add(std::move(change.worker), rank_of);
      return;
    }
    Slot& slot = it->second;
    slot.load = load_;
    if (slot.worker == change.worker) return;
    if (!usable) {
      leaveGroups(slot);
      slots_.erase(it);
    } else if (slot.worker->capabilities.installed_models ==
               change.worker->capabilities.installed_models) {
      slot.worker = std::move(change.worker);
      changeRank(slot, rank_of(*slot.worker));
    } else {
      leaveGroups(slot);
      slot.worker = std::move(change.worker);
      slot.rank = rank_of(*slot.worker);
      joinGroups(slot);
    }
  }

  template <class RankOf>
  void add(worker::WorkerPtr worker, const RankOf& rank_of) {
    Rank rank = rank_of(*worker);
    Slot& slot = slots_[worker->worker_id];
    slot.worker = std::move(worker);
    slot.rank = std::move(rank);
    slot.load = load_;
    joinGroups(slot);
  }

  /// After a full load, which is every record there is: what it did not list has left.
  void dropUnlisted() {
    for (auto it = slots_.begin(); it != slots_.end();) {
      if (it->second.load == load_) {
        ++it;
        continue;
      }
      leaveGroups(it->second);
      it = slots_.erase(it);
    }
  }

  void joinGroups(Slot& slot) {
    std::vector<std::string> models = slot.worker->capabilities.installed_models;
    std::sort(models.begin(), models.end());
    models.erase(std::unique(models.begin(), models.end()), models.end());
    for (std::string& model : models) {
      Group& group = groups_[model];
      if (group.by_id.empty()) group.model = std::move(model);
      group.by_id.insert(idPosition(group, slot.worker->worker_id), &slot);
      group.by_rank.insert(&slot);
      group.counted += isCounted(slot.rank) ? 1 : 0;
      slot.groups.push_back(&group);
    }
  }

  void leaveGroups(Slot& slot) {
    for (Group* group : slot.groups) {
      group->by_id.erase(idPosition(*group, slot.worker->worker_id));
      group->by_rank.erase(&slot);
      group->counted -= isCounted(slot.rank) ? 1 : 0;
      if (group->by_id.empty()) groups_.erase(std::string(group->model));
    }
    slot.groups.clear();
  }

  /// Where the worker is, or belongs, in id order. A full load arrives in id order: looked at
  /// first.
  static auto idPosition(Group& group, const std::string& worker_id) {
    auto& ids = group.by_id;
    if (ids.empty() || ids.back()->worker->worker_id < worker_id) return ids.end();
    return std::lower_bound(ids.begin(), ids.end(), worker_id,
                            [](const Candidate* candidate, const std::string& id) {
                              return candidate->worker->worker_id < id;
                            });
  }

  void changeRank(Slot& slot, Rank rank) {
    if (!(slot.rank < rank) && !(rank < slot.rank) && isCounted(slot.rank) == isCounted(rank)) {
      slot.rank = std::move(rank);
      return;
    }
    // The order hangs on the rank: every set lets go of the candidate before that changes.
    for (Group* group : slot.groups) {
      moving_.push_back(group->by_rank.extract(&slot));
      group->counted -= isCounted(slot.rank) ? 1 : 0;
    }
    slot.rank = std::move(rank);
    for (std::size_t i = 0; i < slot.groups.size(); ++i) {
      slot.groups[i]->by_rank.insert(std::move(moving_[i]));
      slot.groups[i]->counted += isCounted(slot.rank) ? 1 : 0;
    }
    moving_.clear();
  }

  const worker::WorkerRegistry& registry_;
  std::uint64_t seen_ = 0;
  std::uint64_t load_ = 0;                         // counts the full loads
  std::unordered_map<std::string, Slot> slots_;    // by worker id
  std::unordered_map<std::string, Group> groups_;  // by model
  std::vector<worker::WorkerChange> changes_;      // kept for its memory
  std::vector<typename std::set<const Candidate*, ByRank>::node_type> moving_;  // the same
};

}  // namespace tavrel::inference
