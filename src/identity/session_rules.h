#pragma once

#include <string>

#include "store/database.h"

namespace tavrel::identity {

/// Lets the open sessions of a user say what the user's record says: email, role and organization;
/// ends them when the user is inactive or rejected. To be called in the transaction that changed
/// either. Sessions of an unknown user stay as they are. False when the database fails.
bool carryIntoSessions(store::Database& db, const std::string& user_id);

}  // namespace tavrel::identity
