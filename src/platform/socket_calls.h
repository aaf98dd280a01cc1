#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>

#include <cstddef>
#include <string_view>

namespace tavrel::platform {

/// System calls on sockets that never wait and return a negative error number instead of setting
/// errno. For functions that wait on a fiber: they may go on on another thread, whose errno the
/// compiler does not look for again.

/// Bytes received, 0 at the peer's end, -EAGAIN when there is nothing.
ssize_t receiveNow(int socket, char* to, std::size_t size);
/// Bytes taken by the system, of both texts one after the other; -EAGAIN when it takes none.
ssize_t sendNow(int socket, std::string_view head, std::string_view body = {});
/// 0 once connected.
int connectNow(int socket, const sockaddr* address, socklen_t length);

inline bool wouldBlock(ssize_t result) {
  return result == -EAGAIN || result == -EWOULDBLOCK;
}

}  // namespace tavrel::platform
