#pragma once

#include <string>
#include <vector>

#include "store/database.h"

namespace tavrel::identity {

/// Makes the tables and indexes that are missing and brings those of earlier versions up to date:
/// all of it or, when it returns false, nothing. Appends what it has migrated to `messages`, as
/// lines for the console. Does nothing to an up-to-date file.
bool bringUpToDate(store::Database& database, std::vector<std::string>& messages);

}  // namespace tavrel::identity
