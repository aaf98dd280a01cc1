#pragma once

#include <string>

#include "identity/records.h"

namespace tavrel::identity {

/// An active organization with an id of its own, made now; everything else as by default. It is not
/// stored yet: the store makes its slug. `owner_user_id` may be that of a user who is stored later,
/// or empty.
Organization newOrganization(std::string name, std::string description,
                             std::string owner_user_id = "");

}  // namespace tavrel::identity
