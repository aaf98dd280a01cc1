#pragma once

#include <map>
#include <string>
#include <vector>

namespace tavrel::api {

/// Who is calling, as the authentication middleware found out. A plain value.
struct AuthIdentity {
  std::string id;    ///< key name, worker id or controller id
  std::string type;  ///< the key's type or the token's type
  std::vector<std::string> roles;
  std::vector<std::string> permissions;  ///< "*" stands for all
  std::map<std::string, std::string> metadata;
};

}  // namespace tavrel::api
