#include "events/event_reader.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace tavrel::events {

EventReader::EventReader(EventFilter filter)
    : filter_(std::move(filter)),
      descriptor_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      ended_(descriptor_ < 0) {}

EventReader::~EventReader() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool EventReader::take(std::vector<SharedText>& batch) {
  batch.clear();
  // Reset before the queue is looked at: whatever is queued later signals anew, so no wake-up is
  // lost. At worst the next poll returns for a record that was taken already.
  eventfd_t count = 0;
  if (descriptor_ >= 0) ::eventfd_read(descriptor_, &count);
  platform::MutexLock lock(mutex_);
  batch.swap(queue_);
  live_bytes_ = 0;
  live_records_ = 0;
  return !ended_;
}

void EventReader::preload(std::vector<SharedText> replay) {
  platform::MutexLock lock(mutex_);
  if (!ended_) queue_ = std::move(replay);
}

bool EventReader::offer(SharedText text) {
  platform::MutexLock lock(mutex_);
  if (ended_) return false;
  // A single record larger than the limit still reaches a reader that keeps up.
  const bool behind = live_records_ > 0;
  if (behind && (live_records_ >= kMaxRecords || live_bytes_ + text->size() > kMaxBytes)) {
    ended_ = true;
    queue_.clear();
    return true;
  }
  const bool was_empty = queue_.empty();
  live_bytes_ += text->size();
  ++live_records_;
  queue_.push_back(std::move(text));
  return was_empty;
}

void EventReader::end() {
  {
    platform::MutexLock lock(mutex_);
    ended_ = true;
    queue_.clear();
  }
  wake();
}

void EventReader::wake() const {
  if (descriptor_ >= 0) ::eventfd_write(descriptor_, 1);
}

}  // namespace tavrel::events
