#include "api/request_fibers.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <optional>
#include <utility>

#include "platform/fiber.h"
#include "platform/socket_wait.h"

namespace tavrel::api {
namespace {

constexpr std::int64_t kNoDeadline = std::numeric_limits<std::int64_t>::max();

/// The data of an event: number of the request in its slot (32 bits), slot (30), which descriptor
/// (1), and a bit that pointers do not have.
enum class Which : std::uint64_t { kClient = 0, kPeer = 2 };
constexpr std::uint64_t kReadyEvent = ~std::uint64_t{0};

std::uint64_t eventData(std::uint64_t request, std::size_t slot, Which which) {
  return request << 32 | std::uint64_t{slot} << 2 | static_cast<std::uint64_t>(which) | 1;
}

}  // namespace

/// Room for one request after the other, and the waits of the one that is in it.
class RequestFibers::Slot final : public platform::SocketWaiter {
 public:
  Slot(RequestFibers& owner, std::size_t index) : owner_(owner), index_(index) {}

  std::size_t index() const { return index_; }

  bool begin(int client_socket, std::function<void()> serve);
  /// Lets the request go on, on the calling thread. False when it has ended, and the slot is empty.
  bool resume();
  /// Arms what the request waits for and lets it rest, from when on it belongs to whoever wakes it.
  /// False when it is to be resumed at once.
  bool rest();

  /// Any thread: there may be something for `request`. True when the caller has to resume it.
  bool wake(std::uint64_t request);
  /// The request's number; another one each time the slot is used.
  std::uint64_t request() const { return state_.load(std::memory_order_relaxed) >> 2; }
  void peerFired() { peer_fired_.store(true, std::memory_order_relaxed); }

  bool suspend(int descriptor, short events, int client_descriptor,
               platform::SteadyTime deadline) override;

 private:
  /// In the two lower bits of the state, below the number of the request. Woken: by an event that
  /// came while it was running, which may be the one it is about to wait for.
  enum Phase : std::uint64_t { kRunning = 0, kWoken = 1, kResting = 2 };
  static constexpr std::uint64_t kPhases = 3;
  static constexpr std::uint64_t kRequests = 0xffffffff;

  bool arm();
  bool armDescriptor(int operation, int descriptor, std::uint32_t events, Which which) const;

  RequestFibers& owner_;
  const std::size_t index_;
  std::atomic<std::uint64_t> state_{kRunning};
  std::atomic<bool> peer_fired_{false};

  // Used by the thread that runs the request.
  platform::FiberStack stack_;
  std::optional<platform::Fiber> fiber_;
  int client_socket_ = -1;
  bool client_armed_ = false;  ///< for hang-ups, until the request ends

  // The wait, told by the fiber to the thread that it leaves.
  int descriptor_ = -1;
  std::uint32_t events_ = 0;
  bool watches_client_ = false;
  std::int64_t deadline_ = kNoDeadline;
  bool armed_ = false;
};

bool RequestFibers::Slot::begin(int client_socket, std::function<void()> serve) {
  stack_ = owner_.stacks_.take();
  if (stack_.lowest == nullptr) return false;
  client_socket_ = client_socket;
  client_armed_ = false;
  fiber_.emplace(stack_, std::move(serve));
  return true;
}

bool RequestFibers::Slot::resume() {
  owner_.deadlines_[index_].store(kNoDeadline, std::memory_order_relaxed);
  setOfThisThread(this);
  fiber_->resume();
  setOfThisThread(nullptr);
  if (!fiber_->finished()) return true;
  fiber_.reset();
  owner_.stacks_.give(std::exchange(stack_, {}));
  // From now on events for the request that was here find another one, or none.
  state_.store(((request() + 1) & kRequests) << 2 | kRunning, std::memory_order_release);
  return false;
}

bool RequestFibers::Slot::suspend(int descriptor, short events, int client_descriptor,
                                  platform::SteadyTime deadline) {
  // Only the client's own socket is in the epoll set.
  if (client_descriptor >= 0 && client_descriptor != client_socket_) return false;
  descriptor_ = descriptor;
  events_ = static_cast<std::uint16_t>(events);
  watches_client_ = client_descriptor >= 0;
  deadline_ = platform::toNanoseconds(deadline);
  fiber_->suspend();
  // An event silences its descriptor. Without one the descriptor must not stay armed: its owner may
  // close it, or keep the connection for another request.
  if (descriptor != client_socket_ && !peer_fired_.load(std::memory_order_relaxed)) {
    ::epoll_ctl(owner_.epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
  }
  return armed_;
}

bool RequestFibers::Slot::rest() {
  armed_ = arm();
  if (!armed_) return false;
  // Only now, after the fiber's last step on this thread, may another one take it.
  const std::uint64_t running = request() << 2 | kRunning;
  std::uint64_t state = running;
  if (state_.compare_exchange_strong(state, running | kResting, std::memory_order_acq_rel)) {
    return true;
  }
  state_.store(running, std::memory_order_relaxed);  // it was woken meanwhile
  return false;
}

bool RequestFibers::Slot::arm() {
  peer_fired_.store(false, std::memory_order_relaxed);
  owner_.deadlines_[index_].store(deadline_, std::memory_order_release);
  if (descriptor_ == client_socket_) {
    client_armed_ = false;
    return armDescriptor(EPOLL_CTL_MOD, client_socket_, events_, Which::kPeer);
  }
  if (watches_client_ && !client_armed_) {
    client_armed_ = armDescriptor(EPOLL_CTL_MOD, client_socket_, EPOLLRDHUP, Which::kClient);
    if (!client_armed_) return false;
  }
  // A descriptor that was waited for before is still in the set.
  return armDescriptor(EPOLL_CTL_MOD, descriptor_, events_, Which::kPeer) ||
         armDescriptor(EPOLL_CTL_ADD, descriptor_, events_, Which::kPeer);
}

bool RequestFibers::Slot::armDescriptor(int operation, int descriptor, std::uint32_t events,
                                        Which which) const {
  epoll_event event{};
  event.events = events | EPOLLONESHOT;
  event.data.u64 = eventData(request(), index_, which);
  return ::epoll_ctl(owner_.epoll_, operation, descriptor, &event) == 0;
}

bool RequestFibers::Slot::wake(std::uint64_t request) {
  std::uint64_t state = state_.load(std::memory_order_acquire);
  while (state >> 2 == request && (state & kPhases) != kWoken) {
    const bool resting = (state & kPhases) == kResting;
    const std::uint64_t next = request << 2 | (resting ? kRunning : kWoken);
    if (state_.compare_exchange_weak(state, next, std::memory_order_acq_rel)) return resting;
  }
  return false;
}

RequestFibers::RequestFibers(int epoll, std::size_t maximum, std::size_t stack_bytes)
    : epoll_(epoll),
      maximum_(maximum),
      ready_event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      stacks_(stack_bytes),
      slots_(std::make_unique<std::atomic<Slot*>[]>(maximum)),
      deadlines_(std::make_unique<std::atomic<std::int64_t>[]>(maximum)) {}

RequestFibers::~RequestFibers() {
  for (std::size_t i = 0; i < slot_count_.load(); ++i) delete slots_[i].load();
  ::close(ready_event_);
}

bool RequestFibers::start() {
  // Edge-triggered: each write wakes one thread, and nobody has to read.
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;
  event.data.u64 = kReadyEvent;
  return ::epoll_ctl(epoll_, EPOLL_CTL_ADD, ready_event_, &event) == 0;
}

void RequestFibers::run(int client_socket, std::function<void()> serve) {
  Slot* const slot = takeSlot();
  if (slot == nullptr) return serve();
  if (!slot->begin(client_socket, serve)) {
    giveSlot(*slot);
    return serve();
  }
  go(*slot);
}

void RequestFibers::go(Slot& slot) {
  do {
    if (!slot.resume()) return giveSlot(slot);
  } while (!slot.rest());
}

void RequestFibers::handleEvent(std::uint64_t event_data) {
  if (event_data == kReadyEvent) return resumeNextReady();
  Slot& slot = *slots_[(event_data & 0xffffffff) >> 2].load(std::memory_order_acquire);
  if ((event_data & static_cast<std::uint64_t>(Which::kPeer)) != 0) slot.peerFired();
  if (slot.wake(event_data >> 32)) go(slot);
}

void RequestFibers::wakeDue(platform::SteadyTime now) {
  const std::int64_t limit = platform::toNanoseconds(now);
  const std::size_t count = slot_count_.load(std::memory_order_acquire);
  for (std::size_t i = 0; i < count; ++i) {
    std::int64_t deadline = deadlines_[i].load(std::memory_order_relaxed);
    if (deadline > limit) continue;
    // Not one that a new wait has set meanwhile.
    if (!deadlines_[i].compare_exchange_strong(deadline, kNoDeadline)) continue;
    Slot& slot = *slots_[i].load(std::memory_order_acquire);
    if (slot.wake(slot.request())) resumeElsewhere(slot);
  }
}

void RequestFibers::resumeElsewhere(Slot& slot) {
  {
    const platform::MutexLock lock(mutex_);
    ready_.push_back(&slot);
  }
  announceReady();
}

void RequestFibers::resumeNextReady() {
  Slot* slot = nullptr;
  bool more = false;
  {
    const platform::MutexLock lock(mutex_);
    if (ready_.empty()) return;
    slot = ready_.front();
    ready_.pop_front();
    more = !ready_.empty();
  }
  // Several announcements may have come as one event.
  if (more) announceReady();
  go(*slot);
}

void RequestFibers::announceReady() const {
  ::eventfd_write(ready_event_, 1);
}

RequestFibers::Slot* RequestFibers::takeSlot() {
  const platform::MutexLock lock(mutex_);
  if (!free_.empty()) {
    Slot* const slot = free_.back();
    free_.pop_back();
    return slot;
  }
  const std::size_t index = slot_count_.load(std::memory_order_relaxed);
  if (index == maximum_) return nullptr;
  auto* const slot = new Slot(*this, index);
  deadlines_[index].store(kNoDeadline, std::memory_order_relaxed);
  slots_[index].store(slot, std::memory_order_release);
  slot_count_.store(index + 1, std::memory_order_release);
  return slot;
}

void RequestFibers::giveSlot(Slot& slot) {
  const platform::MutexLock lock(mutex_);
  free_.push_back(&slot);
}

}  // namespace tavrel::api
