#pragma once

#include <string>

namespace tavrel::identity {

/// Writes a database as the first version made it: without organizations, approvals and the columns
/// that came with them, with the old role names.
void writeOldDatabase(const std::string& path);

}  // namespace tavrel::identity
