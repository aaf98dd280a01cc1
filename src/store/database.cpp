#include "store/database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/console.h"
#include "platform/files.h"

namespace tavrel::store {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t kOthers = S_IRWXG | S_IRWXO;

void keepToOwner(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
      (status.st_mode & kOthers) != 0) {
    ::chmod(path.c_str(), kOwnerOnly);
  }
}

/// Sees to it that the file is there and the owner's alone before anything is written to it; SQLite
/// gives its side files the mode of the database. Failures show when it is opened.
void prepareFile(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash != 0) platform::ensureDirectory(path.substr(0, slash));
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly);
  if (file >= 0) {
    ::close(file);
    return;
  }
  // It exists. It is not opened here: closing it would drop the locks that another connection of
  // this process has on it.
  for (const char* suffix : {"", "-wal", "-shm"}) keepToOwner(path + suffix);
}

}  // namespace

bool Database::open(const std::string& path) {
  const platform::BlockingScope waiting_for_the_disk;
  close();
  prepareFile(path);
  if (connect(path)) return true;
  close();
  return false;
}

bool Database::connect(const std::string& path) {
  // Without a mutex of its own: the owner has one.
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &connection_, kFlags, nullptr) != SQLITE_OK) {
    last_error_ = sqlite3_errmsg(connection_);
    return false;
  }
  // The timeout first, so that the change of the journal waits for other processes too. Every
  // commit is synced: what was answered is never lost.
  return exec("PRAGMA busy_timeout=5000") && exec("PRAGMA journal_mode=WAL") &&
         exec("PRAGMA synchronous=FULL");
}

void Database::close() {
  for (const auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  statements_.clear();
  sqlite3_close(connection_);
  connection_ = nullptr;
}

bool Database::exec(const std::string& sql) {
  if (connection_ == nullptr) return false;
  const platform::BlockingScope waiting_for_the_disk;
  if (sqlite3_exec(connection_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return true;
  noteError();
  return false;
}

Statement Database::prepare(std::string_view sql) {
  auto cached = statements_.find(sql);
  if (cached == statements_.end()) cached = statements_.emplace(sql, nullptr).first;
  sqlite3_stmt*& home = cached->second;
  if (home == nullptr && connection_ != nullptr &&
      sqlite3_prepare_v3(connection_, cached->first.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &home,
                         nullptr) != SQLITE_OK) {
    noteError();
  }
  return {*this, home};
}

void Database::rollBack() {
  // Some failures have rolled back already.
  if (sqlite3_get_autocommit(connection_) == 0) exec("ROLLBACK");
}

std::int64_t Database::changedRows() const {
  return sqlite3_changes64(connection_);
}

void Database::noteError() {
  last_error_ = sqlite3_errmsg(connection_);
  if (sqlite3_errcode(connection_) != SQLITE_CONSTRAINT) {
    platform::printError(error_prefix_ + last_error_);
  }
}

}  // namespace tavrel::store
