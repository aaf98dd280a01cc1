#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "platform/clock.h"
#include "platform/fiber_stacks.h"
#include "platform/mutex.h"

namespace tavrel::api {

/// Serves requests on fibers, so that one that waits for a socket costs a stack and no thread.
///
/// A wait (platform::waitForSocket) arms its descriptors in the engine's epoll set, and the thread
/// takes the next event. Events are no more than hints: whoever gets one resumes the request, which
/// looks at its sockets itself and waits again if nothing is there. So an event that comes late
/// hurts nobody. It carries the number of a slot and of the request that was in it, and one atomic
/// state per slot makes one resumption of several events.
///
/// Threads: `run` and `handleEvent` belong to the threads that take events from the epoll set;
/// `wakeDue` and `trim` to housekeeping. A request may go on on another thread after each wait.
class RequestFibers {
 public:
  /// `epoll` is the engine's set, in which the sockets of the clients are; at most `maximum`
  /// requests are on fibers, on stacks of `stack_bytes`.
  RequestFibers(int epoll, std::size_t maximum, std::size_t stack_bytes);
  /// All requests must have ended.
  ~RequestFibers();
  RequestFibers(const RequestFibers&) = delete;
  RequestFibers& operator=(const RequestFibers&) = delete;

  /// Begins to receive events; false when the system refuses.
  bool start();

  /// Runs `serve` for the client with that socket, and returns when it has ended or waits. Beyond
  /// the maximum, or without memory, it runs without a fiber, and its waits block the thread.
  void run(int client_socket, std::function<void()> serve);

  /// True for the data of events that `handleEvent` is for; pointers never look like them.
  static bool owns(std::uint64_t event_data) { return (event_data & 1) != 0; }
  void handleEvent(std::uint64_t event_data);

  /// Resumes, on other threads, the requests whose deadlines have passed.
  void wakeDue(platform::SteadyTime now);
  /// See platform::FiberStacks.
  void trim() { stacks_.trim(); }

 private:
  class Slot;

  Slot* takeSlot() TV_EXCLUDES(mutex_);
  void giveSlot(Slot& slot) TV_EXCLUDES(mutex_);
  void go(Slot& slot);
  void resumeElsewhere(Slot& slot) TV_EXCLUDES(mutex_);
  void resumeNextReady() TV_EXCLUDES(mutex_);
  void announceReady() const;

  const int epoll_;
  const std::size_t maximum_;
  const int ready_event_;  ///< an eventfd in the epoll set, written when a slot became ready
  platform::FiberStacks stacks_;

  // Both by slot. Slots are made when they are first needed and stay, so that a late event finds
  // one; the deadlines lie side by side, because housekeeping reads them all.
  const std::unique_ptr<std::atomic<Slot*>[]> slots_;
  const std::unique_ptr<std::atomic<std::int64_t>[]> deadlines_;
  std::atomic<std::size_t> slot_count_{0};

  platform::Mutex mutex_;
  std::vector<Slot*> free_ TV_GUARDED_BY(mutex_);
  std::deque<Slot*> ready_ TV_GUARDED_BY(mutex_);
};

}  // namespace tavrel::api
