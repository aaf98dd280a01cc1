#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrel::worker {

struct WorkerInfo;

/// A host name, an IPv4 or an IPv6 address (without brackets), and nothing that could end the host
/// part of a URL.
bool isHost(std::string_view text);

/// "http://host:port", with brackets around an IPv6 address.
std::string httpUrl(const std::string& host, std::int64_t port);

/// The same for a host and a port that somebody sent: empty unless isHost() and 1 to 65535.
std::string httpUrlIfValid(const std::string& host, std::int64_t port);

/// Where an inference worker is reached; empty when it told no valid address. Every URL of a call
/// to such a worker begins with this.
std::string baseUrlOf(const WorkerInfo& worker);

/// What is said of a worker without such a URL.
inline constexpr const char* kNoValidAddress = "worker has no valid address";

/// The base URL under which the controller reaches a daemon that registered `url`; empty when the
/// URL cannot be used at all. Any thread; asks no name server, so a registration never waits.
///
/// Only http and https are let through, with a host, a valid port and neither credentials, query,
/// fragment nor anything else that could change the meaning of a path put behind it. A host that
/// only means "this machine" to the daemon (0.0.0.0, ::, and localhost when it registered from
/// elsewhere) is replaced by the address the registration came from, or else by `hostname`.
/// Slashes at the end are dropped.
std::optional<std::string> ensureResolvableURL(std::string_view url, const std::string& hostname,
                                               const std::string& remote_address);

}  // namespace tavrel::worker
