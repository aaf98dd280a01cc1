#include "platform/socket_calls.h"

#include <sys/uio.h>

namespace tavrel::platform {

[[gnu::noinline]] ssize_t receiveNow(int socket, char* to, std::size_t size) {
  const ssize_t count = ::recv(socket, to, size, MSG_DONTWAIT);
  return count >= 0 ? count : -errno;
}

[[gnu::noinline]] ssize_t sendNow(int socket, std::string_view head, std::string_view body) {
  iovec parts[2] = {{const_cast<char*>(head.data()), head.size()},
                    {const_cast<char*>(body.data()), body.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = body.empty() ? 1 : 2;
  const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  return count >= 0 ? count : -errno;
}

[[gnu::noinline]] int connectNow(int socket, const sockaddr* address, socklen_t length) {
  return ::connect(socket, address, length) == 0 ? 0 : -errno;
}

}  // namespace tavrel::platform
