#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace tavrel::net {

/// Where a worker listens: a host name or a numeric IPv4 or IPv6 address.
struct WorkerAddress {
  std::string host;
  int port = 0;

  bool operator==(const WorkerAddress&) const = default;
  bool operator<(const WorkerAddress& other) const {
    return std::pair(std::string_view(host), port) <
           std::pair(std::string_view(other.host), other.port);
  }
};

/// The head of the POST that is sent to workers; `keep_alive` false adds "Connection: close".
/// Host is "<host>:<port>" (an IPv6 address in brackets).
std::string workerPostHead(const WorkerAddress& address, std::string_view path,
                           std::size_t content_length, bool keep_alive,
                           std::string_view content_type = "application/json");

}  // namespace tavrel::net
