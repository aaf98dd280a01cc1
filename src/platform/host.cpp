#include "platform/host.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <memory>

namespace tavrel::platform {

std::string getHostname() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "localhost";
  return name.data();
}

std::vector<std::string> getLocalIPs() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
  std::vector<std::string> v4;
  std::vector<std::string> v6;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_UP) == 0 ||
        (entry->ifa_flags & IFF_LOOPBACK) != 0) {
      continue;
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (entry->ifa_addr->sa_family == AF_INET) {
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      if (::inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size()) != nullptr) {
        v4.emplace_back(text.data());
      }
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
      if (IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) continue;
      if (::inet_ntop(AF_INET6, &address->sin6_addr, text.data(), text.size()) != nullptr) {
        v6.emplace_back(text.data());
      }
    }
  }
  v4.insert(v4.end(), v6.begin(), v6.end());
  return v4;
}

std::size_t residentMemoryBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t total_pages = 0;
  std::size_t resident_pages = 0;
  statm >> total_pages >> resident_pages;
  return resident_pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace tavrel::platform
