#pragma once

#include <string>

namespace tavrel::controller {

/// Who this controller is. Set at start, constant afterwards.
struct ControllerIdentity {
  std::string id;    ///< the node id given on the command line, else a new UUID
  std::string name;  ///< the machine's host name
};

}  // namespace tavrel::controller
