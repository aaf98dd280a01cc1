#include "net/worker_address.h"

namespace tavrel::net {

std::string workerPostHead(const WorkerAddress& address, std::string_view path,
                           std::size_t content_length, bool keep_alive,
                           std::string_view content_type) {
  const bool is_ipv6 = address.host.find(':') != std::string::npos;
  std::string head;
  head.reserve(160 + path.size() + address.host.size() + content_type.size());
  head.append("POST ").append(path).append(" HTTP/1.1\r\nHost: ");
  if (is_ipv6) head += '[';
  head += address.host;
  if (is_ipv6) head += ']';
  head.append(":").append(std::to_string(address.port));
  head.append("\r\nContent-Type: ").append(content_type);
  head.append("\r\nContent-Length: ").append(std::to_string(content_length));
  head.append(keep_alive ? "\r\n\r\n" : "\r\nConnection: close\r\n\r\n");
  return head;
}

}  // namespace tavrel::net
