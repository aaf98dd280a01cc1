#include "support/mock_peer.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace tavrel::test {
namespace {

constexpr std::chrono::seconds kPatience{10};

struct BoundSocket {
  int socket;
  int port;
};

BoundSocket bindLoopback() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (socket < 0 || ::bind(socket, generic, size) != 0 ||
      ::getsockname(socket, generic, &size) != 0) {
    throw std::runtime_error("no loopback socket for a test");
  }
  return {socket, ntohs(address.sin_port)};
}

/// The length of the first whole request in `bytes`; 0 when there is none yet.
std::size_t requestLength(std::string_view bytes) {
  constexpr std::string_view kLength = "\r\nContent-Length: ";
  const auto head = bytes.find("\r\n\r\n");
  if (head == std::string_view::npos) return 0;
  const auto length = bytes.substr(0, head).find(kLength);
  std::size_t total = head + 4;
  if (length != std::string_view::npos) {
    total +=
        std::strtoul(std::string(bytes.substr(length + kLength.size(), 20)).c_str(), nullptr, 10);
  }
  return bytes.size() >= total ? total : 0;
}

}  // namespace

Gate::Gate() : descriptor_(::eventfd(0, EFD_CLOEXEC)) {}
Gate::~Gate() {
  ::close(descriptor_);
}
void Gate::open() {
  ::eventfd_write(descriptor_, 1);
}

bool Gate::waitUntilOpen() const {
  pollfd polled{descriptor_, POLLIN, 0};
  return ::poll(&polled, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) == 1;
}

std::string MockConnection::readRequest() {
  while (requestLength(unread_) == 0) {
    if (waitForEvent(-1) == Event::kEnd) return "";
  }
  std::string request = unread_.substr(0, requestLength(unread_));
  unread_.erase(0, request.size());
  const platform::MutexLock lock(peer_.mutex_);
  peer_.requests_.push_back(request);
  peer_.changed_.notifyAll();
  return request;
}

bool MockConnection::send(std::string_view bytes) {
  while (!bytes.empty() && socket_ >= 0) {
    const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
      continue;
    }
    if (errno != EAGAIN && errno != EINTR) return false;
    std::array<pollfd, 2> polled{{{socket_, POLLOUT, 0}, {peer_.stop_.descriptor(), POLLIN, 0}}};
    ::poll(polled.data(), polled.size(), -1);
    if (polled[1].revents != 0) return false;
  }
  return bytes.empty();
}

bool MockConnection::waitFor(const Gate& gate) {
  while (true) {
    const auto event = waitForEvent(gate.descriptor());
    if (event != Event::kData) return event == Event::kGate;
  }
}

MockConnection::Event MockConnection::waitForEvent(int gate) {
  while (socket_ >= 0) {
    std::array<pollfd, 3> polled{
        {{socket_, POLLIN, 0}, {peer_.stop_.descriptor(), POLLIN, 0}, {gate, POLLIN, 0}}};
    if (::poll(polled.data(), polled.size(), -1) < 0) continue;
    if (polled[1].revents != 0) return Event::kEnd;
    if (polled[2].revents != 0) return Event::kGate;
    return takeBytes();
  }
  return Event::kEnd;
}

MockConnection::Event MockConnection::takeBytes() {
  std::array<char, 65536> buffer;
  const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return Event::kData;
  const platform::MutexLock lock(peer_.mutex_);
  auto& record = peer_.records_[index_];
  peer_.changed_.notifyAll();
  if (count > 0) {
    record.received.append(buffer.data(), static_cast<std::size_t>(count));
    unread_.append(buffer.data(), static_cast<std::size_t>(count));
    return Event::kData;
  }
  if (!record.hung_up) record.hung_up = platform::steadyNow();
  return Event::kEnd;
}

void MockConnection::untilHangUp() {
  while (waitForEvent(-1) != Event::kEnd) {
  }
}

void MockConnection::ignoreUntil(const Gate& gate) {
  std::array<pollfd, 2> polled{
      {{gate.descriptor(), POLLIN, 0}, {peer_.stop_.descriptor(), POLLIN, 0}}};
  ::poll(polled.data(), polled.size(), -1);
}

void MockConnection::closeSending() {
  ::shutdown(socket_, SHUT_WR);
}

void MockConnection::close() {
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

void MockConnection::reset() {
  const linger at_once{1, 0};
  ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  close();
}

MockPeer::MockPeer(Script script) : script_(std::move(script)) {
  const auto bound = bindLoopback();
  listener_ = bound.socket;
  port_ = bound.port;
  ::listen(listener_, SOMAXCONN);
  acceptor_ = std::thread([this] { acceptConnections(); });
}

MockPeer::~MockPeer() {
  stop_.open();
  acceptor_.join();
  for (auto& worker : workers_) worker.join();
  ::close(listener_);
}

MockPeer::Script MockPeer::answering(std::string answer) {
  return [answer = std::move(answer)](MockConnection& connection) {
    while (!connection.readRequest().empty()) connection.send(answer);
  };
}

MockPeer::Script MockPeer::answeringOnce(std::string answer) {
  return [answer = std::move(answer)](MockConnection& connection) {
    connection.readRequest();
    connection.send(answer);
    connection.close();
  };
}

std::string MockPeer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

std::size_t MockPeer::connections() const {
  const platform::MutexLock lock(mutex_);
  return records_.size();
}

std::string MockPeer::received(std::size_t connection) const {
  const platform::MutexLock lock(mutex_);
  return connection < records_.size() ? records_[connection].received : "";
}

std::vector<std::string> MockPeer::requests() const {
  const platform::MutexLock lock(mutex_);
  return requests_;
}

template <class Condition>
bool MockPeer::waitUntilLocked(const Condition& condition) {
  const auto deadline = platform::steadyNow() + kPatience;
  while (!condition()) {
    const auto left = deadline - platform::steadyNow();
    if (left <= left.zero()) return false;
    changed_.waitFor(mutex_, left);
  }
  return true;
}

bool MockPeer::waitForRequests(std::size_t count) {
  const platform::MutexLock lock(mutex_);
  return waitUntilLocked([&]() TV_REQUIRES(mutex_) { return requests_.size() >= count; });
}

bool MockPeer::waitForConnections(std::size_t count) {
  const platform::MutexLock lock(mutex_);
  return waitUntilLocked([&]() TV_REQUIRES(mutex_) { return records_.size() >= count; });
}

std::optional<platform::SteadyTime> MockPeer::waitForHangUp(std::size_t connection) {
  const platform::MutexLock lock(mutex_);
  const bool hung_up = waitUntilLocked([&]() TV_REQUIRES(mutex_) {
    return connection < records_.size() && records_[connection].hung_up.has_value();
  });
  return hung_up ? records_[connection].hung_up : std::nullopt;
}

void MockPeer::acceptConnections() {
  while (true) {
    std::array<pollfd, 2> polled{{{listener_, POLLIN, 0}, {stop_.descriptor(), POLLIN, 0}}};
    ::poll(polled.data(), polled.size(), -1);
    if (polled[1].revents != 0) return;
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    const platform::MutexLock lock(mutex_);
    const auto index = records_.size();
    records_.emplace_back();
    changed_.notifyAll();
    workers_.emplace_back([this, socket, index] { serve(socket, index); });
  }
}

void MockPeer::serve(int socket, std::size_t index) {
  MockConnection connection(*this, socket, index);
  script_(connection);
  connection.untilHangUp();
  connection.close();
}

RefusingPort::RefusingPort() {
  const auto bound = bindLoopback();
  socket_ = bound.socket;
  port_ = bound.port;
}
RefusingPort::~RefusingPort() {
  ::close(socket_);
}

UnansweringPort::UnansweringPort() {
  const auto bound = bindLoopback();
  listener_ = bound.socket;
  port_ = bound.port;
  ::listen(listener_, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port_));
  for (int i = 0; i < 4; ++i) {  // one fills a queue of length 0; the others make sure
    queued_.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ::connect(queued_.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
}
UnansweringPort::~UnansweringPort() {
  for (const int socket : queued_) ::close(socket);
  ::close(listener_);
}

std::string httpAnswer(int status, std::string_view body, std::string_view headers) {
  return "HTTP/1.1 " + std::to_string(status) + " Text\r\n" + std::string(headers) +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

}  // namespace tavrel::test
