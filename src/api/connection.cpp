#include "api/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/socket_calls.h"
#include "platform/socket_wait.h"

namespace tavrel::api {
namespace {

constexpr std::size_t kReceiveBytes = 64 << 10;
/// Collected output is sent once it exceeds this, so that a large body is not copied twice.
constexpr std::size_t kSendThreshold = 64 << 10;
/// A body may take longer than the read timeout as long as it arrives at this pace.
constexpr std::uint64_t kMinimumBodyBytesPerSecond = 16 << 10;
/// A wait for a client is looked at again after so long.
constexpr std::chrono::milliseconds kLongestWait{500};
/// So much of a body is collected while the connection is parked.
constexpr std::uint64_t kMaxParkedBody = 256 << 10;

constexpr std::int64_t kActive = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kExpired = -1;

}  // namespace

Connection::Connection(int socket, std::string remote_address, Timeouts timeouts,
                       ClientBudget& budget)
    : socket_(socket),
      remote_address_(std::move(remote_address)),
      timeouts_(timeouts),
      budget_(budget),
      deadline_(kActive) {}

Connection::~Connection() {
  ::close(socket_);
}

bool Connection::gone() const {
  if (interrupted_.load(std::memory_order_relaxed)) return true;
  pollfd client{socket_, POLLRDHUP, 0};
  return ::poll(&client, 1, 0) > 0 && (client.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// Not inlined, because of the buffer: a caller that waits may go on on another thread.
[[gnu::noinline]] Connection::Arrival Connection::receive() {
  // One buffer per thread: a connection itself keeps no more than what has really arrived.
  thread_local std::array<char, kReceiveBytes> buffer;
  for (;;) {
    const ssize_t count = platform::receiveNow(socket_, buffer.data(), buffer.size());
    if (count > 0) {
      if (read_at_ == input_.size()) {
        input_.clear();
        read_at_ = 0;
      }
      input_.append(buffer.data(), static_cast<std::size_t>(count));
      return Arrival::kBytes;
    }
    if (count == 0) return Arrival::kClosed;
    if (count == -EINTR) continue;
    return platform::wouldBlock(count) ? Arrival::kNothing : Arrival::kClosed;
  }
}

const RequestHead& Connection::scanHead(const HeadLimits& limits) {
  if (head_waits_) return head_;
  head_ = scanRequestHead(pending(), limits, searched_);
  if (head_.state != RequestHead::State::kComplete) return head_;
  // From the last to the first, which leaves the positions before valid.
  for (auto line = head_.unwanted.rbegin(); line != head_.unwanted.rend(); ++line) {
    input_.erase(read_at_ + line->first, line->second);
    head_.size -= line->second;
  }
  searched_ = 0;
  head_waits_ = true;
  request_started_ = platform::steadyNow();
  return head_;
}

bool Connection::awaitsBody() const {
  return head_waits_ && !head_.chunked && !head_.expects_continue &&
         pending().size() < head_.size + std::min(head_.content_length, kMaxParkedBody);
}

platform::SteadyTime Connection::parkingDeadline(platform::SteadyTime now,
                                                 std::chrono::milliseconds timeout) {
  if (!hasInput()) return now + timeout;
  if (head_waits_) return bodyDeadline(request_started_, pending().size());
  if (head_started_ == platform::SteadyTime{}) head_started_ = now;
  return head_started_ + timeout;
}

void Connection::beginRequest() {
  head_waits_ = false;
  request_bytes_read_ = 0;
  framing_ = {};
  body_failure_ = 400;
  head_started_ = {};
  request_started_ = platform::steadyNow();
}

void Connection::skipHead() {
  read_at_ += head_.size;
  request_bytes_read_ += head_.size;
}

bool Connection::requestConsumed() const {
  if (head_.chunked) return framing_.ended();
  return request_bytes_read_ == head_.size + head_.content_length;
}

platform::SteadyTime Connection::bodyDeadline(platform::SteadyTime started,
                                              std::uint64_t arrived) const {
  const auto at_minimum_pace =
      std::chrono::milliseconds(arrived * 1000 / kMinimumBodyBytesPerSecond);
  return started + std::max<std::chrono::milliseconds>(timeouts_.read, at_minimum_pace);
}

/// Takes note of the bytes that are about to be read.
bool Connection::followsFraming(std::string_view bytes) {
  const std::uint64_t head_left =
      head_.size - std::min<std::uint64_t>(head_.size, request_bytes_read_);
  bytes.remove_prefix(static_cast<std::size_t>(std::min<std::uint64_t>(head_left, bytes.size())));
  return !head_.chunked || framing_.take(bytes);
}

std::ptrdiff_t Connection::read(char* to, std::size_t size) {
  // Bytes beyond a body of known length belong to the next request.
  if (!head_.chunked) {
    const std::uint64_t left = head_.size + head_.content_length - request_bytes_read_;
    size = static_cast<std::size_t>(std::min<std::uint64_t>(size, left));
    if (size == 0) return 0;
  }
  while (!hasInput()) {
    if (!flush()) return -1;  // the peer may be waiting for "100 Continue"
    const Arrival arrival = receive();
    if (arrival == Arrival::kClosed) return 0;
    if (arrival == Arrival::kBytes) break;
    const Wait wait = waitFor(POLLIN, bodyDeadline(request_started_, request_bytes_read_));
    if (wait != Wait::kReady) {
      body_failure_ = wait == Wait::kTimedOut ? 408 : 503;
      return -1;
    }
  }
  const std::size_t count = std::min(size, input_.size() - read_at_);
  if (!followsFraming(pending().substr(0, count))) return -1;
  std::memcpy(to, input_.data() + read_at_, count);
  read_at_ += count;
  request_bytes_read_ += count;
  return static_cast<std::ptrdiff_t>(count);
}

void Connection::skipArrivedBody() {
  if (head_.chunked) return;
  const std::uint64_t left = head_.size + head_.content_length - request_bytes_read_;
  const std::size_t count = std::min<std::uint64_t>(left, input_.size() - read_at_);
  read_at_ += count;
  request_bytes_read_ += count;
}

bool Connection::write(std::string_view bytes) {
  if (broken_) return false;
  if (bytes.size() >= kSendThreshold) return flush() && sendAll(bytes);
  output_.append(bytes);
  return output_.size() < kSendThreshold || flush();
}

bool Connection::flush() {
  const bool sent = sendAll(output_);
  output_.clear();
  return sent;
}

bool Connection::sendAll(std::string_view rest) {
  std::size_t charged = 0;  // an answer that is not read counts with what was left at first
  while (!broken_ && !rest.empty()) {
    const ssize_t sent = platform::sendNow(socket_, rest);
    if (sent > 0) {
      rest.remove_prefix(static_cast<std::size_t>(sent));
    } else if (platform::wouldBlock(sent)) {
      if (charged == 0 && budget_.takeMemory(rest.size())) charged = rest.size();
      broken_ =
          charged == 0 || waitFor(POLLOUT, platform::steadyNow() + timeouts_.write) != Wait::kReady;
    } else if (sent != -EINTR) {
      broken_ = true;
    }
  }
  budget_.giveMemory(charged);
  return !broken_;
}

void Connection::linger(std::chrono::milliseconds time) {
  ::shutdown(socket_, SHUT_WR);
  const platform::SteadyTime deadline = platform::steadyNow() + time;
  Arrival arrival = receive();
  while (arrival != Arrival::kClosed && platform::steadyNow() < deadline) {
    input_.clear();
    read_at_ = 0;
    if (arrival == Arrival::kNothing && waitFor(POLLIN, deadline) != Wait::kReady) return;
    arrival = receive();
  }
}

Connection::Wait Connection::waitFor(short events, platform::SteadyTime deadline) {
  // A stream holds its thread anyway, and was counted when it began.
  const bool counted = !streaming_.load(std::memory_order_relaxed);
  if (counted && !budget_.takeWait()) return Wait::kRefused;
  const Wait outcome = pollUntil(events, deadline);
  if (counted) budget_.giveWait();
  return outcome;
}

Connection::Wait Connection::pollUntil(short events, platform::SteadyTime deadline) const {
  for (;;) {
    // A stopping server waits for nobody: neither for more of a body nor for a slow reader.
    if (interrupted_.load(std::memory_order_relaxed)) return Wait::kTimedOut;
    const platform::SteadyTime now = platform::steadyNow();
    if (deadline <= now) return Wait::kTimedOut;
    // Short waits, because an interruption while waiting for room to write raises no event.
    const auto outcome = platform::waitForSocket(socket_, events, /*client_descriptor=*/-1,
                                                 std::min(deadline, now + kLongestWait));
    if (outcome == platform::SocketWait::kReady) return Wait::kReady;
  }
}

void Connection::park(std::int64_t deadline) {
  if (!hasInput()) {
    std::string().swap(input_);
    read_at_ = 0;
    searched_ = 0;
  } else if (read_at_ > 0) {
    input_.erase(0, read_at_);
    read_at_ = 0;
  }
  std::string().swap(output_);
  deadline_.store(deadline, std::memory_order_release);
}

bool Connection::unpark() {
  return deadline_.exchange(kActive, std::memory_order_acq_rel) != kExpired;
}

void Connection::expireIfDue(std::int64_t now) {
  std::int64_t deadline = deadline_.load(std::memory_order_acquire);
  if (deadline == kExpired || deadline > now) return;
  // Only a connection that is still parked may be taken; the hang-up then makes it ready, and the
  // thread that gets its event closes it.
  if (deadline_.compare_exchange_strong(deadline, kExpired, std::memory_order_acq_rel)) {
    ::shutdown(socket_, SHUT_RD);
  }
}

void Connection::interrupt(bool all) {
  if (!all && !streaming_.load(std::memory_order_relaxed)) return;
  interrupted_.store(true, std::memory_order_relaxed);
  ::shutdown(socket_, SHUT_RD);
}

}  // namespace tavrel::api
