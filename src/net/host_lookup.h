#pragma once

#include <sys/socket.h>

#include <vector>

#include "net/worker_address.h"
#include "platform/socket_wait.h"

namespace tavrel::net {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

/// The socket addresses of a worker, in the order to try them; none when the name is unknown or no
/// host name at all. A numeric address costs no lookup. A name is looked up on a thread of its own,
/// because the system's resolver can be neither interrupted nor given a deadline: a lookup that is
/// no longer waited for ends by itself. kReady when `found` holds the answer.
platform::SocketWait lookUpHost(const WorkerAddress& address, int client_descriptor,
                                platform::SteadyTime deadline, std::vector<SocketAddress>& found);

}  // namespace tavrel::net
