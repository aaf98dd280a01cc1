#pragma once

#include <string>

namespace tavrel::controller {

struct Options;

/// Who this controller is. Set at start, constant afterwards.
struct ControllerIdentity {
  std::string id;         ///< the node id given on the command line, else a new UUID
  std::string name;       ///< the machine's host name
  std::string address{};  ///< under which others reach it
};

/// The address is the advertised one, else a specific address that the server is bound to, else the
/// machine's first.
ControllerIdentity identityOf(const Options& options);

}  // namespace tavrel::controller
