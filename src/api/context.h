#pragma once

#include <map>
#include <optional>
#include <string>

#include "api/auth_identity.h"
#include "api/client_connection.h"
#include "platform/clock.h"

namespace tavrel::api {

/// What goes with one request through the middleware chain. Belongs to the thread serving it.
struct Context {
  std::string request_id;                ///< "req-" and 16 hexadecimal digits
  std::optional<AuthIdentity> identity;  ///< empty until the authentication middleware fills it
  platform::SteadyTime start_time;       ///< when the request entered the framework
  std::map<std::string, std::string> attributes;  ///< free for middlewares and handlers
  const ClientConnection* client = nullptr;       ///< null in tests that call handlers directly
  std::string route;  ///< the pattern that matched, e.g. "/api/v1/workers/:worker_id"
};

}  // namespace tavrel::api
