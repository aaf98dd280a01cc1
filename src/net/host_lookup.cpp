#include "net/host_lookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/periodic_task.h"

namespace tavrel::net {
namespace {

/// Names being looked up at the same time. A resolver that hangs must not pile up threads.
constexpr int kMaxLookups = 64;

std::atomic<int> lookups_running{0};

/// One lookup, shared by the thread that makes it and the one that waits for it.
struct Lookup {
  explicit Lookup(WorkerAddress wanted)
      : address(std::move(wanted)), done(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    ++lookups_running;
  }
  ~Lookup() {
    if (done >= 0) ::close(done);
    --lookups_running;
  }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  const WorkerAddress address;
  const int done;  // becomes readable when `found` is complete
  std::atomic<bool> finished{false};
  std::vector<SocketAddress> found;
};

/// Keeps what would end the text early, or a request head, away from the resolver.
bool looksLikeHost(const std::string& host) {
  return !host.empty() && host.size() <= 255 && std::all_of(host.begin(), host.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view(".-_:%").find(c) != std::string_view::npos;
  });
}

bool addNumericIpv4(const WorkerAddress& address, std::vector<SocketAddress>& found) {
  sockaddr_in ipv4{};
  if (::inet_pton(AF_INET, address.host.c_str(), &ipv4.sin_addr) != 1) return false;
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = htons(static_cast<std::uint16_t>(address.port));
  auto& added = found.emplace_back();
  std::memcpy(&added.storage, &ipv4, sizeof ipv4);
  added.length = sizeof ipv4;
  return true;
}

void resolve(const WorkerAddress& address, int flags, std::vector<SocketAddress>& found) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  if (::getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &list) !=
      0) {
    return;
  }
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    auto& added = found.emplace_back();
    std::memcpy(&added.storage, entry->ai_addr, entry->ai_addrlen);
    added.length = entry->ai_addrlen;
  }
  ::freeaddrinfo(list);
}

/// Null when there are too many already or the system has no more to give.
std::shared_ptr<Lookup> startLookup(const WorkerAddress& address) {
  auto lookup = std::make_shared<Lookup>(address);
  if (lookup->done < 0 || lookups_running > kMaxLookups) return nullptr;
  try {
    std::thread([lookup] {
      platform::nameThisThread("name-lookup");
      resolve(lookup->address, 0, lookup->found);
      lookup->finished.store(true, std::memory_order_release);
      ::eventfd_write(lookup->done, 1);
    }).detach();
  } catch (const std::system_error&) {
    return nullptr;
  }
  return lookup;
}

}  // namespace

using platform::SocketWait;

SocketWait lookUpHost(const WorkerAddress& address, int client_descriptor,
                      platform::SteadyTime deadline, std::vector<SocketAddress>& found) {
  found.clear();
  if (address.port < 1 || address.port > 65535 || !looksLikeHost(address.host) ||
      addNumericIpv4(address, found)) {
    return SocketWait::kReady;
  }
  resolve(address, AI_NUMERICHOST, found);
  if (!found.empty() || address.host.find(':') != std::string::npos) return SocketWait::kReady;

  const auto lookup = startLookup(address);
  if (lookup == nullptr) return SocketWait::kReady;
  const auto outcome = platform::waitForSocket(lookup->done, POLLIN, client_descriptor, deadline);
  if (outcome != SocketWait::kReady) return outcome;
  if (lookup->finished.load(std::memory_order_acquire)) found = std::move(lookup->found);
  return SocketWait::kReady;
}

}  // namespace tavrel::net
