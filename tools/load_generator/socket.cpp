#include "load_generator/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tavrel::load {
namespace {

constexpr int kBacklog = 4096;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int check(int result, const char* what) {
  if (result < 0) fail(what);
  return result;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

Descriptor makeSocket(int flags) {
  Descriptor made(check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0), "socket"));
  const int on = 1;
  setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return made;
}

}  // namespace

void Descriptor::reset() {
  if (fd_ >= 0) close(std::exchange(fd_, -1));
}

Descriptor listenOnLoopback(int port, int& bound_port) {
  Descriptor listener = makeSocket(SOCK_NONBLOCK);
  const int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(port);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  check(bind(listener.get(), raw, length), "bind");
  check(listen(listener.get(), kBacklog), "listen");
  check(getsockname(listener.get(), raw, &length), "getsockname");
  bound_port = ntohs(address.sin_port);
  return listener;
}

Descriptor connectToLoopback(int port) {
  Descriptor connection = makeSocket(0);
  const timeval limit{kIoSeconds, 0};
  setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const sockaddr_in address = loopback(port);
  check(connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
        "connect");
  return connection;
}

Descriptor startConnecting(int port) {
  Descriptor connection = makeSocket(SOCK_NONBLOCK);
  const sockaddr_in address = loopback(port);
  const int result =
      connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (result < 0 && errno != EINPROGRESS) fail("connect");
  return connection;
}

bool sendWhole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string httpPost(int port, std::string_view path, std::string_view body) {
  std::string text = "POST ";
  text.append(path).append(" HTTP/1.1\r\nHost: 127.0.0.1:").append(std::to_string(port));
  text.append("\r\nContent-Type: application/json\r\nContent-Length: ");
  text.append(std::to_string(body.size())).append("\r\n\r\n").append(body);
  return text;
}

std::string httpGet(int port, std::string_view path) {
  std::string text = "GET ";
  text.append(path).append(" HTTP/1.1\r\nHost: 127.0.0.1:").append(std::to_string(port));
  return text.append("\r\n\r\n");
}

Epoll::Epoll() : epoll_(check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

void Epoll::add(int fd, std::uint32_t events, std::uint64_t id) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  check(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

void Epoll::change(int fd, std::uint32_t events, std::uint64_t id) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  check(epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event), "epoll_ctl");
}

}  // namespace tavrel::load
