#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrel::worker {

/// A host name, an IPv4 or an IPv6 address (without brackets), and nothing that could end the host
/// part of a URL.
bool isHost(std::string_view text);

/// "http://host:port", with brackets around an IPv6 address.
std::string httpUrl(const std::string& host, std::int64_t port);

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
