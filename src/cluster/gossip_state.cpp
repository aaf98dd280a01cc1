#include "cluster/gossip_state.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "platform/sha256.h"

namespace tavrel::cluster {

using platform::MutexLock;

namespace {

/// Ids of ours have 36 characters; what is kept of a foreign one is no longer than twice that.
constexpr std::size_t kMaxIdBytes = 72;
constexpr std::size_t kMaxNodeIdBytes = 256;

}  // namespace

bool SeenMessages::insert(const std::string& message_id) {
  std::string id = message_id.size() <= kMaxIdBytes ? message_id : platform::sha256Hex(message_id);
  const MutexLock lock(mu_);
  if (!ids_.insert(std::move(id)).second) return false;
  if (ids_.size() > kMaxIds) ids_.erase(ids_.begin(), std::next(ids_.begin(), kForgotten));
  return true;
}

std::size_t SeenMessages::size() const {
  const MutexLock lock(mu_);
  return ids_.size();
}

VectorClock::VectorClock(std::string self_id) : self_id_(std::move(self_id)) {
  entries_[self_id_] = 0;
}

ClockEntries VectorClock::tick() {
  const MutexLock lock(mu_);
  std::uint64_t& own = entries_[self_id_];
  if (own < std::numeric_limits<std::uint64_t>::max()) ++own;  // a peer may have told the maximum
  return entries_;
}

void VectorClock::merge(const ClockEntries& other) {
  const MutexLock lock(mu_);
  for (const auto& [node, counter] : other) {
    const auto place = entries_.find(node);
    if (place != entries_.end()) {
      place->second = std::max(place->second, counter);
    } else if (entries_.size() < kMaxEntries && node.size() <= kMaxNodeIdBytes) {
      entries_.emplace(node, counter);
    }
  }
}

ClockEntries VectorClock::entries() const {
  const MutexLock lock(mu_);
  return entries_;
}

}  // namespace tavrel::cluster
