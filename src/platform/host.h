#pragma once

#include <string>
#include <vector>

namespace tavrel::platform {

/// The machine's host name, "localhost" when the system does not tell.
std::string getHostname();

/// Numeric addresses of the interfaces that are up, IPv4 before IPv6, loopback and link-local ones
/// left out. May be empty.
std::vector<std::string> getLocalIPs();

/// Bytes of memory this process holds in RAM now.
std::size_t residentMemoryBytes();

}  // namespace tavrel::platform
