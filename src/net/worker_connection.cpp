#include "net/worker_connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include "net/host_lookup.h"
#include "net/worker_connection_state.h"
#include "platform/socket_calls.h"
#include "platform/socket_wait.h"

namespace tavrel::net {

using platform::deadlineAfter;
using platform::SocketWait;
using platform::waitForSocket;

namespace {

/// Bytes asked for in one read; the buffer lives on the stack for the length of the call.
constexpr std::size_t kReadBytes = std::size_t{64} << 10;

/// What surely fits the first packet of a request, on any network.
constexpr std::size_t kOnePacket = 1200;

WorkerIo fromWait(SocketWait outcome) {
  switch (outcome) {
    case SocketWait::kReady:
      return WorkerIo::kOk;
    case SocketWait::kTimedOut:
      return WorkerIo::kTimedOut;
    default:
      return WorkerIo::kClientGone;
  }
}

/// Two texts that are sent as one; `advance` drops what the system has taken.
class Outgoing {
 public:
  Outgoing(std::string_view head, std::string_view body) : parts_{head, body} {}

  bool done() const { return parts_[0].empty() && parts_[1].empty(); }

  ssize_t sendTo(int socket) const { return platform::sendNow(socket, parts_[0], parts_[1]); }

  void advance(std::size_t bytes) {
    for (auto& part : parts_) {
      const auto taken = std::min(bytes, part.size());
      part.remove_prefix(taken);
      bytes -= taken;
    }
  }

 private:
  std::string_view parts_[2];
};

}  // namespace

WorkerConnection::State::~State() {
  closeSocket();
}

void WorkerConnection::State::closeSocket() {
  if (socket >= 0) ::close(socket);
  socket = -1;
  no_delay = false;
}

void WorkerConnection::State::beginExchange() {
  parser = {};
  decoded.clear();
  failure = WorkerIo::kOk;
  request_sent = false;
  answer_begun = false;
  input_likely = false;
}

void WorkerConnection::State::sendWithoutDelay(std::size_t bytes) {
  // A request that fits one packet is sent at once anyway.
  if (no_delay || bytes <= kOnePacket) return;
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  no_delay = true;
}

WorkerIo WorkerConnection::State::connectTo(const SocketAddress& address,
                                            platform::SteadyTime deadline) {
  socket = ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (socket < 0) return WorkerIo::kConnectFailed;
  int result = platform::connectNow(socket, address.get(), address.length);
  if (result == 0) return WorkerIo::kOk;
  // An interrupted connect goes on in the background like one in progress.
  if (result != -EINPROGRESS && result != -EINTR) return WorkerIo::kConnectFailed;
  // On the same machine it is done by now: asking again is cheaper than to wait for it.
  result = platform::connectNow(socket, address.get(), address.length);
  if (result == 0 || result == -EISCONN) return WorkerIo::kOk;
  if (result != -EALREADY && result != -EINTR) return WorkerIo::kConnectFailed;

  const auto outcome = waitForSocket(socket, POLLOUT, client, deadline);
  if (outcome == SocketWait::kClientGone) return WorkerIo::kClientGone;
  if (outcome == SocketWait::kTimedOut) return WorkerIo::kConnectFailed;
  int error = 0;
  socklen_t size = sizeof error;
  ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
  return error == 0 ? WorkerIo::kOk : WorkerIo::kConnectFailed;
}

/// One read from the worker, decoded into `body`. What came before a reset or a hang-up is never
/// lost: a socket that is ready is read, whatever else the wait told.
WorkerIo WorkerConnection::State::receive(std::string& body, platform::SteadyTime deadline) {
  char buffer[kReadBytes];
  while (true) {
    // After a read that emptied the socket there is nothing to be had without waiting.
    if (!input_likely) {
      const auto outcome = waitForSocket(socket, POLLIN, client, deadline);
      if (outcome != SocketWait::kReady) return fromWait(outcome);
    }
    const ssize_t count = platform::receiveNow(socket, buffer, sizeof buffer);
    input_likely = count == static_cast<ssize_t>(sizeof buffer);
    if (count > 0) {
      answer_begun = true;
      const auto state = parser.consume({buffer, static_cast<std::size_t>(count)}, body);
      return state == HttpResponseParser::State::kMalformed ? WorkerIo::kMalformed : WorkerIo::kOk;
    }
    if (count == 0) {
      return parser.finish() == HttpResponseParser::State::kDone ? WorkerIo::kOk
                                                                 : WorkerIo::kClosed;
    }
    if (count != -EINTR && !platform::wouldBlock(count)) return WorkerIo::kClosed;
  }
}

/// `receive` that goes on failing once the connection has: its end is reported only once by the
/// system.
WorkerIo WorkerConnection::State::readMore(std::string& body, platform::SteadyTime deadline) {
  if (failure != WorkerIo::kOk) return failure;
  const auto outcome = receive(body, deadline);
  if (outcome == WorkerIo::kClosed || outcome == WorkerIo::kMalformed) failure = outcome;
  return outcome;
}

bool WorkerConnection::State::reusable() const {
  return socket >= 0 && request_sent && failure == WorkerIo::kOk && decoded.empty() &&
         parser.keepsAlive();
}

bool WorkerConnection::State::openAndSilent() const {
  char byte = 0;
  const ssize_t count = ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return count < 0 && platform::wouldBlock(-errno);
}

WorkerConnection::WorkerConnection(int client_descriptor)
    : state_(std::make_unique<State>(client_descriptor)) {}
WorkerConnection::~WorkerConnection() = default;
WorkerConnection::WorkerConnection(WorkerConnection&&) noexcept = default;
WorkerConnection& WorkerConnection::operator=(WorkerConnection&&) noexcept = default;

WorkerIo WorkerConnection::connect(const WorkerAddress& address,
                                   std::chrono::milliseconds timeout) {
  auto& state = *state_;
  state.closeSocket();
  state.beginExchange();
  const auto deadline = deadlineAfter(timeout);
  std::vector<SocketAddress> found;
  const auto lookup = lookUpHost(address, state.client, deadline, found);
  if (lookup == SocketWait::kClientGone) return WorkerIo::kClientGone;

  WorkerIo outcome = WorkerIo::kConnectFailed;
  for (std::size_t i = 0; i < found.size(); ++i) {
    // An address that swallows everything leaves the others their share of the time.
    const auto now = platform::steadyNow();
    const auto share = (deadline - now) / static_cast<std::int64_t>(found.size() - i);
    outcome = state.connectTo(found[i], now + share);
    if (outcome == WorkerIo::kOk) return outcome;
    state.closeSocket();
    if (outcome == WorkerIo::kClientGone) return outcome;
  }
  return outcome;
}

WorkerIo WorkerConnection::send(std::string_view bytes, std::chrono::milliseconds stall_timeout) {
  return send(bytes, {}, stall_timeout);
}

WorkerIo WorkerConnection::send(std::string_view head, std::string_view body,
                                std::chrono::milliseconds stall_timeout) {
  auto& state = *state_;
  if (state.parser.state() != HttpResponseParser::State::kHead) state.beginExchange();
  state.request_sent = false;
  state.sendWithoutDelay(head.size() + body.size());
  Outgoing outgoing(head, body);
  while (!outgoing.done()) {
    const ssize_t count = outgoing.sendTo(state.socket);
    if (count >= 0) {
      outgoing.advance(static_cast<std::size_t>(count));
      continue;
    }
    if (count == -EINTR) continue;
    // A worker that speaks or hangs up while it takes no more has read all that it wants to.
    if (!platform::wouldBlock(count) || !state.openAndSilent()) return WorkerIo::kSendFailed;
    const auto outcome =
        waitForSocket(state.socket, POLLOUT | POLLIN, state.client, deadlineAfter(stall_timeout));
    if (outcome != SocketWait::kReady) return fromWait(outcome);
  }
  state.request_sent = true;
  return WorkerIo::kOk;
}

WorkerIo WorkerConnection::readHead(HttpResponseHead& head, std::chrono::milliseconds timeout) {
  auto& state = *state_;
  const auto deadline = deadlineAfter(timeout);
  while (!state.parser.hasHead()) {
    const auto outcome = state.readMore(state.decoded, deadline);
    if (outcome != WorkerIo::kOk && !state.parser.hasHead()) return outcome;
  }
  head = state.parser.takeHead();
  return WorkerIo::kOk;
}

WorkerIo WorkerConnection::readBody(std::string& piece, bool& end,
                                    std::chrono::milliseconds timeout) {
  auto& state = *state_;
  end = false;
  const auto size_before = piece.size();
  piece.append(std::exchange(state.decoded, {}));
  const auto deadline = deadlineAfter(timeout);
  while (piece.size() == size_before && state.parser.state() != HttpResponseParser::State::kDone) {
    const auto outcome = state.readMore(piece, deadline);
    if (outcome != WorkerIo::kOk) return outcome;
  }
  end = state.parser.state() == HttpResponseParser::State::kDone;
  return WorkerIo::kOk;
}

WorkerIo WorkerConnection::readWholeBody(std::string& body, std::size_t max_bytes,
                                         std::chrono::milliseconds stall_timeout) {
  const auto size_before = body.size();
  bool end = false;
  while (!end) {
    const auto outcome = readBody(body, end, stall_timeout);
    if (outcome != WorkerIo::kOk) return outcome;
    if (body.size() - size_before > max_bytes) return WorkerIo::kTooLarge;
  }
  return WorkerIo::kOk;
}

bool WorkerConnection::answerBegun() const {
  return state_->answer_begun;
}

bool WorkerConnection::reusable() const {
  return state_->reusable();
}

}  // namespace tavrel::net
