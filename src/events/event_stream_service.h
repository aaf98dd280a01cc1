#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "events/event.h"
#include "events/event_reader.h"
#include "platform/mutex.h"
#include "platform/periodic_task.h"

namespace tavrel::events {

class EventStreamService;

/// Keeps a reader connected to the service for as long as it lives. Must not outlive the service.
class EventSubscription {
 public:
  EventSubscription(EventStreamService& service, std::shared_ptr<EventReader> reader)
      : service_(&service), reader_(std::move(reader)) {}
  EventSubscription(EventSubscription&& other) noexcept = default;
  EventSubscription& operator=(EventSubscription&&) = delete;
  ~EventSubscription();

  EventReader& reader() const { return *reader_; }

 private:
  EventStreamService* service_;
  std::shared_ptr<EventReader> reader_;  ///< null once moved from
};

/// The bus of the whole process for cluster events and structured log entries: keeps the newest of
/// both, hands every new one to callbacks and to the readers of the event stream, and sends all of
/// them a heartbeat every 30 s.
///
/// Threads: any, except that start and stop belong to the owner. mutex_ is a leaf that guards all
///   state. order_mutex_ is held around a whole publication, callbacks included, so that histories,
///   callbacks and readers all see one order; hence a callback must not publish, subscribe or
///   unsubscribe, and delays other publishers (readers never do). After unsubscribe has returned
///   the callback runs no more.
/// Lifetime: instance() lives until the process ends; tests build their own. Only the heartbeat has
///   a thread: the histories are trimmed as they grow, so there is nothing to tidy up later.
/// Failure: an exception from a callback is reported and the other callbacks are still called.
class EventStreamService {
 public:
  using EventCallback = std::function<void(const Event&)>;
  using LogCallback = std::function<void(const LogEntry&)>;

  static constexpr std::chrono::seconds kHeartbeatPeriod{30};
  static constexpr std::size_t kDefaultLogHistory = 1000;
  static constexpr std::size_t kDefaultEventHistory = 500;
  /// Bounds what huge records can make each history hold, beside its count. The newest record is
  /// always kept.
  static constexpr std::size_t kMaxHistoryBytes = std::size_t{32} << 20;
  /// How much a new reader of the stream is shown of what happened before.
  static constexpr std::size_t kReplayedEvents = 50;
  static constexpr std::size_t kReplayedLogs = 100;

  static EventStreamService& instance();

  EventStreamService();
  ~EventStreamService();
  EventStreamService(const EventStreamService&) = delete;
  EventStreamService& operator=(const EventStreamService&) = delete;

  /// Sets how many records are kept. Only the first call has an effect.
  void initialize(std::size_t log_history, std::size_t event_history) TV_EXCLUDES(mutex_);
  void start() TV_EXCLUDES(mutex_);
  /// Ends the heartbeat and every reader. Publishing goes on working.
  void stop() TV_EXCLUDES(mutex_);

  /// Returns an id for unsubscribe. Callbacks run on the publishing thread, in id order.
  std::string subscribe(EventCallback callback) TV_EXCLUDES(order_mutex_, mutex_);
  std::string subscribeToLogs(LogCallback callback) TV_EXCLUDES(order_mutex_, mutex_);
  void unsubscribe(const std::string& id) TV_EXCLUDES(order_mutex_, mutex_);

  /// A reader that begins with the recent records its filter accepts (events, then log entries) and
  /// then gets every later one: none is missed and none comes twice.
  EventSubscription openReader(EventFilter filter) TV_EXCLUDES(mutex_);

  void publishEvent(Event event) TV_EXCLUDES(order_mutex_, mutex_);
  void publishLog(LogEntry entry) TV_EXCLUDES(order_mutex_, mutex_);
  /// Tells everybody that the service lives; neither kept nor counted.
  void sendHeartbeat() TV_EXCLUDES(order_mutex_, mutex_);

  /// The newest `count` records (that match exactly), oldest first.
  std::vector<EventPtr> getRecentEvents(std::size_t count) const TV_EXCLUDES(mutex_);
  std::vector<LogEntryPtr> getRecentLogs(std::size_t count) const TV_EXCLUDES(mutex_);
  std::vector<LogEntryPtr> getLogsByLevel(std::string_view level, std::size_t count) const
      TV_EXCLUDES(mutex_);
  std::vector<LogEntryPtr> getLogsBySource(std::string_view source, std::size_t count) const
      TV_EXCLUDES(mutex_);

  nlohmann::json getStats() const TV_EXCLUDES(mutex_);

  // What happened to the object `id`; `data` is any JSON.
  using Id = const std::string&;
  using Data = nlohmann::json;
  void workerOnline(Id id, Data data) { online(EventType::kWorkerOnline, id, std::move(data)); }
  void workerOffline(Id id, Data data) { offline(EventType::kWorkerOffline, id, std::move(data)); }
  void routerOnline(Id id, Data data) { online(EventType::kRouterOnline, id, std::move(data)); }
  void routerOffline(Id id, Data data) { offline(EventType::kRouterOffline, id, std::move(data)); }
  void dataWorkerOnline(Id id, Data data) {
    online(EventType::kDataWorkerOnline, id, std::move(data));
  }
  void dataWorkerOffline(Id id, Data data) {
    offline(EventType::kDataWorkerOffline, id, std::move(data));
  }
  void mediaWorkerOnline(Id id, Data data) {
    online(EventType::kMediaWorkerOnline, id, std::move(data));
  }
  void mediaWorkerOffline(Id id, Data data) {
    offline(EventType::kMediaWorkerOffline, id, std::move(data));
  }
  void commWorkerOnline(Id id, Data data) {
    online(EventType::kCommWorkerOnline, id, std::move(data));
  }
  void commWorkerOffline(Id id, Data data) {
    offline(EventType::kCommWorkerOffline, id, std::move(data));
  }
  void agentWorkerOnline(Id id, Data data) {
    online(EventType::kAgentWorkerOnline, id, std::move(data));
  }
  void agentWorkerOffline(Id id, Data data) {
    offline(EventType::kAgentWorkerOffline, id, std::move(data));
  }
  void scienceWorkerOnline(Id id, Data data) {
    online(EventType::kScienceWorkerOnline, id, std::move(data));
  }
  void scienceWorkerOffline(Id id, Data data) {
    offline(EventType::kScienceWorkerOffline, id, std::move(data));
  }
  void trainingWorkerOnline(Id id, Data data) {
    online(EventType::kTrainingWorkerOnline, id, std::move(data));
  }
  void trainingWorkerOffline(Id id, Data data) {
    offline(EventType::kTrainingWorkerOffline, id, std::move(data));
  }
  void swarmCreated(Id id, Data data) {
    announce(EventType::kSwarmCreated, id, std::move(data), " created");
  }
  void swarmStarted(Id id, Data data) {
    announce(EventType::kSwarmStarted, id, std::move(data), " started executing");
  }
  void swarmCompleted(Id id, Data data) {
    announce(EventType::kSwarmCompleted, id, std::move(data), " completed");
  }
  void swarmFailed(Id id, Id error, Data data);
  void swarmCancelled(Id id, Data data) {
    announce(EventType::kSwarmCancelled, id, std::move(data), " cancelled");
  }
  /// Published with the type `log`: by that dashboards tell a change of status from the swarm's
  /// life cycle.
  void swarmStatusUpdate(Id id, Id new_status, Data data);

  /// What has no type of its own: `type` is one of kInfo, kWarning and kError.
  void notify(EventType type, Id source, Id source_type, Id message, Data data);

  void logDebug(Id source, Id source_type, Id message, Data metadata = Data::object()) {
    log("debug", source, source_type, message, std::move(metadata));
  }
  void logInfo(Id source, Id source_type, Id message, Data metadata = Data::object()) {
    log("info", source, source_type, message, std::move(metadata));
  }
  void logWarning(Id source, Id source_type, Id message, Data metadata = Data::object()) {
    log("warning", source, source_type, message, std::move(metadata));
  }
  void logError(Id source, Id source_type, Id message, Data metadata = Data::object()) {
    log("error", source, source_type, message, std::move(metadata));
  }

 private:
  friend class EventSubscription;

  template <class Record>
  using Callback = std::function<void(const Record&)>;
  template <class Record>
  using Callbacks = std::vector<std::pair<std::string, std::shared_ptr<const Callback<Record>>>>;
  using Readers = std::vector<std::shared_ptr<EventReader>>;

  /// Everything the service holds about one kind of record.
  template <class Record>
  struct Channel {
    std::deque<std::shared_ptr<const Published<Record>>> history;  ///< oldest first
    std::size_t history_bytes = 0;
    std::size_t max_history = 0;
    std::uint64_t published = 0;
    std::map<std::string, std::shared_ptr<const Callback<Record>>> callbacks;  ///< by subscriber id

    void append(std::shared_ptr<const Published<Record>> record);
  };

  enum class Keep { kYes, kNo };

  template <class Record>
  Channel<Record>& channel() TV_REQUIRES(mutex_);
  template <class Record>
  std::string addCallback(Callback<Record> callback) TV_EXCLUDES(order_mutex_, mutex_);
  /// `complaint` begins the line printed when a callback throws; empty: nothing is printed.
  template <class Record>
  void publish(Record record, Keep keep, std::string_view complaint)
      TV_EXCLUDES(order_mutex_, mutex_);
  /// The part of a publication that happens at one instant. Returns the callbacks to be called and
  /// adds the readers to be woken.
  template <class Record>
  Callbacks<Record> enqueue(const std::shared_ptr<const Published<Record>>& record, Keep keep,
                            Readers& to_wake) TV_REQUIRES(order_mutex_) TV_EXCLUDES(mutex_);
  std::vector<SharedText> replayFor(const EventFilter& filter) TV_REQUIRES(mutex_);

  void online(EventType type, Id id, Data data) {
    announce(type, id, std::move(data), " came online");
  }
  void offline(EventType type, Id id, Data data) {
    announce(type, id, std::move(data), " went offline");
  }
  /// `ending` is what the message says after the object's kind and id.
  void announce(EventType type, Id id, Data data, std::string_view ending);
  void log(std::string_view level, Id source, Id source_type, Id message, Data metadata);
  void close(const std::shared_ptr<EventReader>& reader) TV_EXCLUDES(mutex_);

  platform::Mutex order_mutex_;                  // taken before mutex_
  mutable platform::Mutex mutex_;                // a leaf
  Channel<Event> events_ TV_GUARDED_BY(mutex_);  // callbacks change under order_mutex_ as well
  Channel<LogEntry> logs_ TV_GUARDED_BY(mutex_);
  Readers readers_ TV_GUARDED_BY(mutex_);
  bool initialized_ TV_GUARDED_BY(mutex_) = false;
  bool running_ TV_GUARDED_BY(mutex_) = false;
  bool stopped_ TV_GUARDED_BY(mutex_) = false;  ///< no reader may open any more

  platform::PeriodicTask heartbeat_;  // last: its thread uses all of the above
};

}  // namespace tavrel::events
