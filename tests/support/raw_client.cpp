#include "support/raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <stdexcept>

namespace tavrel::test {

RawClient::RawClient(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot connect to the server under test");
  }
}

RawClient::~RawClient() {
  close();
}

void RawClient::close() {
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

bool RawClient::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

void RawClient::halfClose() const {
  ::shutdown(socket_, SHUT_WR);
}

std::string RawClient::readUntil(std::string_view text, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string received;
  std::array<char, 65536> buffer{};
  while (text.empty() || received.find(text) == std::string::npos) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd entry{socket_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) break;
    const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (count <= 0) break;
    received.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return received;
}

std::string RawClient::readAll(std::chrono::milliseconds timeout) const {
  return readUntil("", timeout);
}

bool RawClient::closedWithin(std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  readAll(timeout);
  return std::chrono::steady_clock::now() < deadline;
}

}  // namespace tavrel::test
