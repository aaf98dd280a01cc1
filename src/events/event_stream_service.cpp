#include "events/event_stream_service.h"

#include <algorithm>
#include <exception>
#include <type_traits>

#include "platform/console.h"
#include "platform/random.h"

namespace tavrel::events {
namespace {

using nlohmann::json;

/// What the events about one kind of object have in common.
struct Subject {
  EventType first;
  EventType last;
  std::string_view source_type;
  std::string_view noun;
};
constexpr Subject kSubjects[] = {
    {EventType::kWorkerOnline, EventType::kWorkerOffline, "worker", "Worker "},
    {EventType::kRouterOnline, EventType::kRouterOffline, "router", "Router "},
    {EventType::kDataWorkerOnline, EventType::kDataWorkerOffline, "data_worker", "Data worker "},
    {EventType::kMediaWorkerOnline, EventType::kMediaWorkerOffline, "media_worker",
     "Media worker "},
    {EventType::kCommWorkerOnline, EventType::kCommWorkerOffline, "comm_worker", "Comm worker "},
    {EventType::kAgentWorkerOnline, EventType::kAgentWorkerOffline, "agent_worker",
     "Agent worker "},
    {EventType::kScienceWorkerOnline, EventType::kScienceWorkerOffline, "science_worker",
     "Science worker "},
    {EventType::kTrainingWorkerOnline, EventType::kTrainingWorkerOffline, "training_worker",
     "Training worker "},
    {EventType::kSwarmCreated, EventType::kLog, "swarm", "Swarm "},
};

const Subject& subjectOf(EventType type) {
  return *std::find_if(std::begin(kSubjects), std::end(kSubjects), [type](const Subject& subject) {
    return subject.first <= type && type <= subject.last;
  });
}

void setMember(json& data, const char* key, const std::string& value) {
  if (!data.is_object()) data = json::object();
  data[key] = value;
}

/// The newest `count` records of a history that match, oldest first.
template <class History, class Predicate>
auto newest(const History& history, std::size_t count, Predicate matches) {
  std::vector<typename History::value_type> found;
  for (auto record = history.rbegin(); record != history.rend() && found.size() < count; ++record) {
    if (matches(**record)) found.push_back(*record);
  }
  std::reverse(found.begin(), found.end());
  return found;
}

constexpr auto kEvery = [](const auto&) { return true; };

/// The record's text; keeps the record alive.
template <class RecordPtr>
SharedText textOf(const RecordPtr& record) {
  return SharedText(record, &record->sse());
}

}  // namespace

EventSubscription::~EventSubscription() {
  if (reader_ != nullptr) service_->close(reader_);
}

EventStreamService& EventStreamService::instance() {
  static EventStreamService service;
  return service;
}

EventStreamService::EventStreamService()
    : heartbeat_("event-heartbeat", kHeartbeatPeriod, kHeartbeatPeriod,
                 [this](const std::stop_token&) { sendHeartbeat(); }) {
  events_.max_history = kDefaultEventHistory;
  logs_.max_history = kDefaultLogHistory;
}

EventStreamService::~EventStreamService() = default;

void EventStreamService::initialize(std::size_t log_history, std::size_t event_history) {
  {
    platform::MutexLock lock(mutex_);
    if (initialized_) return;
    initialized_ = true;
    logs_.max_history = log_history;
    events_.max_history = event_history;
  }
  platform::printLine("[EventStream] Initialized with log_history=" + std::to_string(log_history) +
                      ", event_history=" + std::to_string(event_history));
}

void EventStreamService::start() {
  initialize(kDefaultLogHistory, kDefaultEventHistory);
  {
    platform::MutexLock lock(mutex_);
    if (running_) return;
    running_ = true;
    stopped_ = false;
  }
  heartbeat_.start();
  platform::printLine("[EventStream] Service started");
}

void EventStreamService::stop() {
  Readers readers;
  {
    platform::MutexLock lock(mutex_);
    if (!running_) return;
    running_ = false;
    stopped_ = true;
    readers = readers_;
  }
  for (const auto& reader : readers) reader->end();
  heartbeat_.stop();
  platform::printLine("[EventStream] Service stopped");
}

template <class Record>
EventStreamService::Channel<Record>& EventStreamService::channel() {
  if constexpr (std::is_same_v<Record, Event>) {
    return events_;
  } else {
    return logs_;
  }
}

template <class Record>
std::string EventStreamService::addCallback(Callback<Record> callback) {
  auto shared = std::make_shared<const Callback<Record>>(std::move(callback));
  platform::MutexLock order(order_mutex_);
  platform::MutexLock lock(mutex_);
  const std::string id = "sub-" + platform::randomHex(16);
  channel<Record>().callbacks[id] = std::move(shared);
  return id;
}

std::string EventStreamService::subscribe(EventCallback callback) {
  return addCallback<Event>(std::move(callback));
}

std::string EventStreamService::subscribeToLogs(LogCallback callback) {
  return addCallback<LogEntry>(std::move(callback));
}

void EventStreamService::unsubscribe(const std::string& id) {
  platform::MutexLock order(order_mutex_);
  platform::MutexLock lock(mutex_);
  events_.callbacks.erase(id);
  logs_.callbacks.erase(id);
}

std::vector<SharedText> EventStreamService::replayFor(const EventFilter& filter) {
  std::vector<SharedText> replay;
  for (const EventPtr& event : newest(events_.history, kReplayedEvents, kEvery)) {
    if (filter.accepts(*event)) replay.push_back(textOf(event));
  }
  for (const LogEntryPtr& entry : newest(logs_.history, kReplayedLogs, kEvery)) {
    if (filter.accepts(*entry)) replay.push_back(textOf(entry));
  }
  return replay;
}

EventSubscription EventStreamService::openReader(EventFilter filter) {
  auto reader = std::make_shared<EventReader>(std::move(filter));
  if (reader->descriptor() < 0) {
    platform::printError("[EventStream] No descriptor left for a reader of the stream");
  }
  bool refused = false;
  {
    platform::MutexLock lock(mutex_);
    refused = stopped_;
    if (!refused) {
      reader->preload(replayFor(reader->filter()));
      readers_.push_back(reader);
    }
  }
  if (refused) {
    reader->end();
  } else {
    reader->wake();
  }
  return EventSubscription(*this, std::move(reader));
}

void EventStreamService::close(const std::shared_ptr<EventReader>& reader) {
  platform::MutexLock lock(mutex_);
  std::erase(readers_, reader);
}

template <class Record>
void EventStreamService::Channel<Record>::append(std::shared_ptr<const Published<Record>> record) {
  ++published;
  history_bytes += record->sse().size();
  history.push_back(std::move(record));
  while (history.size() > max_history || (history_bytes > kMaxHistoryBytes && history.size() > 1)) {
    history_bytes -= history.front()->sse().size();
    history.pop_front();
  }
}

template <class Record>
EventStreamService::Callbacks<Record> EventStreamService::enqueue(
    const std::shared_ptr<const Published<Record>>& record, Keep keep, Readers& to_wake) {
  const SharedText text = textOf(record);
  platform::MutexLock lock(mutex_);
  Channel<Record>& target = channel<Record>();
  if (keep == Keep::kYes) target.append(record);
  for (const auto& reader : readers_) {
    if (reader->filter().accepts(*record) && reader->offer(text)) to_wake.push_back(reader);
  }
  return {target.callbacks.begin(), target.callbacks.end()};
}

template <class Record>
void EventStreamService::publish(Record record, Keep keep, std::string_view complaint) {
  // Serialised before any lock is taken, once for everybody.
  const auto published = std::make_shared<const Published<Record>>(std::move(record));
  const auto report = [complaint](const std::string& id, const char* reason) {
    if (!complaint.empty()) platform::printError(std::string(complaint) + id + ": " + reason);
  };
  Readers to_wake;
  {
    platform::MutexLock order(order_mutex_);
    for (const auto& [id, callback] : enqueue(published, keep, to_wake)) {
      try {
        (*callback)(*published);
      } catch (const std::exception& error) {
        report(id, error.what());
      } catch (...) {
        report(id, "not a standard exception");
      }
    }
  }
  // A system call each: made when no lock is held.
  for (const auto& reader : to_wake) reader->wake();
}

void EventStreamService::publishEvent(Event event) {
  publish(std::move(event), Keep::kYes, "[EventStream] Error notifying subscriber ");
}

void EventStreamService::publishLog(LogEntry entry) {
  publish(std::move(entry), Keep::kYes, "[EventStream] Error notifying log subscriber ");
}

void EventStreamService::sendHeartbeat() {
  const platform::WallTime now = platform::wallNow();
  publish(Event{generateId(now), EventType::kHeartbeat, "controller", "controller", now, getStats(),
                "Heartbeat"},
          Keep::kNo, "");
}

std::vector<EventPtr> EventStreamService::getRecentEvents(std::size_t count) const {
  platform::MutexLock lock(mutex_);
  return newest(events_.history, count, kEvery);
}

std::vector<LogEntryPtr> EventStreamService::getRecentLogs(std::size_t count) const {
  platform::MutexLock lock(mutex_);
  return newest(logs_.history, count, kEvery);
}

std::vector<LogEntryPtr> EventStreamService::getLogsByLevel(std::string_view level,
                                                            std::size_t count) const {
  platform::MutexLock lock(mutex_);
  return newest(logs_.history, count, [&](const LogEntry& entry) { return entry.level == level; });
}

std::vector<LogEntryPtr> EventStreamService::getLogsBySource(std::string_view source,
                                                             std::size_t count) const {
  platform::MutexLock lock(mutex_);
  return newest(logs_.history, count,
                [&](const LogEntry& entry) { return entry.source == source; });
}

json EventStreamService::getStats() const {
  platform::MutexLock lock(mutex_);
  const auto readersOf = [this](bool EventFilter::*kind) TV_REQUIRES(mutex_) {
    return static_cast<std::size_t>(
        std::count_if(readers_.begin(), readers_.end(),
                      [kind](const auto& reader) { return reader->filter().*kind; }));
  };
  return {{"running", running_},
          {"total_events_published", events_.published},
          {"total_logs_published", logs_.published},
          {"event_history_size", events_.history.size()},
          {"log_history_size", logs_.history.size()},
          {"max_event_history", events_.max_history},
          {"max_log_history", logs_.max_history},
          {"event_subscribers", events_.callbacks.size() + readersOf(&EventFilter::events)},
          {"log_subscribers", logs_.callbacks.size() + readersOf(&EventFilter::logs)}};
}

void EventStreamService::announce(EventType type, Id id, Data data, std::string_view ending) {
  const Subject& subject = subjectOf(type);
  const platform::WallTime now = platform::wallNow();
  std::string message(subject.noun);
  message.append(id).append(ending);
  publishEvent({generateId(now), type, id, std::string(subject.source_type), now, std::move(data),
                std::move(message)});
}

void EventStreamService::swarmFailed(Id id, Id error, Data data) {
  setMember(data, "error", error);
  announce(EventType::kSwarmFailed, id, std::move(data), " failed: " + error);
}

void EventStreamService::swarmStatusUpdate(Id id, Id new_status, Data data) {
  setMember(data, "new_status", new_status);
  announce(EventType::kLog, id, std::move(data), " status changed to " + new_status);
}

void EventStreamService::notify(EventType type, Id source, Id source_type, Id message, Data data) {
  const platform::WallTime now = platform::wallNow();
  publishEvent({generateId(now), type, source, source_type, now, std::move(data), message});
}

void EventStreamService::log(std::string_view level, Id source, Id source_type, Id message,
                             Data metadata) {
  const platform::WallTime now = platform::wallNow();
  publishLog({generateId(now), std::string(level), source, source_type, now, message,
              std::move(metadata)});
}

}  // namespace tavrel::events
