#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "events/event.h"
#include "platform/mutex.h"

namespace tavrel::events {

/// What one reader of the stream wants to see.
struct EventFilter {
  bool events = true;
  bool logs = true;
  std::string level{};   ///< of log entries; empty: every one
  std::string source{};  ///< of log entries; empty: every one

  /// Heartbeats reach everybody: they keep the connection alive.
  bool accepts(const Event& event) const { return events || event.type == EventType::kHeartbeat; }
  bool accepts(const LogEntry& entry) const {
    return logs && (level.empty() || entry.level == level) &&
           (source.empty() || entry.source == source);
  }
};

using SharedText = std::shared_ptr<const std::string>;

/// The queue between publishers and one client of the event stream.
///
/// Publishers never wait for it: a reader that lets more than kMaxRecords or kMaxBytes pile up is
/// ended. The client's thread polls descriptor() beside its socket and then takes what is there.
/// Threads: any number of publishers, one taker; mutex_ is a leaf.
/// Failure: without a descriptor (the process has too many open) the reader is ended from the
/// start.
class EventReader {
 public:
  static constexpr std::size_t kMaxRecords = 1024;
  static constexpr std::size_t kMaxBytes = std::size_t{4} << 20;

  explicit EventReader(EventFilter filter);
  ~EventReader();
  EventReader(const EventReader&) = delete;
  EventReader& operator=(const EventReader&) = delete;

  const EventFilter& filter() const { return filter_; }

  /// An eventfd, readable when there is something to take or the reader has ended. -1 without one.
  int descriptor() const { return descriptor_; }

  /// Replaces `batch` by everything queued, in order, without waiting; the batch may be empty.
  /// False once the reader has ended: what was still queued is dropped.
  bool take(std::vector<SharedText>& batch) TV_EXCLUDES(mutex_);

  /// What the reader starts with, to be followed by wake(). Does not count towards the limits,
  /// which are for readers that are slow. Before anybody else knows the reader.
  void preload(std::vector<SharedText> replay) TV_EXCLUDES(mutex_);

  /// Queues one text. True when the taker has to be woken for it; the publisher calls wake() for
  /// that once it holds no lock.
  bool offer(SharedText text) TV_EXCLUDES(mutex_);

  void end() TV_EXCLUDES(mutex_);
  void wake() const;

 private:
  const EventFilter filter_;
  const int descriptor_;

  platform::Mutex mutex_;
  std::vector<SharedText> queue_ TV_GUARDED_BY(mutex_);
  std::size_t live_bytes_ TV_GUARDED_BY(mutex_) = 0;  ///< of queue_, the replay left out
  std::size_t live_records_ TV_GUARDED_BY(mutex_) = 0;
  bool ended_ TV_GUARDED_BY(mutex_);
};

}  // namespace tavrel::events
