#include "controller/controller_identity.h"

#include <vector>

#include "controller/command_line.h"
#include "platform/host.h"
#include "platform/random.h"

namespace tavrel::controller {
namespace {

std::string reachableAddress(const Options& options) {
  if (!options.advertise_address.empty()) return options.advertise_address;
  const std::string& bind = options.bind_address;
  if (bind != "0.0.0.0" && bind != "::") return bind;
  const std::vector<std::string> addresses = platform::getLocalIPs();
  return addresses.empty() ? "127.0.0.1" : addresses.front();
}

}  // namespace

ControllerIdentity identityOf(const Options& options) {
  return {options.node_id.empty() ? platform::generateUUID() : options.node_id,
          platform::getHostname(), reachableAddress(options)};
}

}  // namespace tavrel::controller
