#include "identity/sqlite_user_store.h"

#include "identity/user_schema.h"
#include "platform/console.h"
#include "store/store_lock.h"

namespace tavrel::identity {

bool SqliteUserStore::initialize() {
  std::vector<std::string> messages;
  {
    const store::StoreLock lock(mu_);
    if (!db_.open(path_)) {
      platform::printError("[Auth] Failed to open database: " + db_.lastError());
      return false;
    }
    if (!bringUpToDate(db_, messages)) {
      db_.close();
      platform::printError("[Auth] Failed to create schema");
      return false;
    }
  }
  for (const std::string& message : messages) platform::printLine(message);
  platform::printLine("[Auth] SQLite user store initialized: " + path_);
  return true;
}

void SqliteUserStore::close() {
  const store::StoreLock lock(mu_);
  db_.close();
}

}  // namespace tavrel::identity
