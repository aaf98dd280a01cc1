#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/blocking.h"
#include "store/statement.h"

struct sqlite3;

namespace tavrel::store {

/// One connection to an SQLite file, with a cache of prepared statements. What a write has reported
/// as done is on the disk: it survives the process and the machine.
///
/// Threads: one at a time; the owner holds a lock of its own around every use. Another process may
/// read the file meanwhile.
/// Failure: while it is closed everything fails quietly. Other failures are reported on standard
/// error, but for violated constraints, which are an answer; lastError() tells both. Nothing
/// throws.
class Database {
 public:
  /// `error_prefix` begins the lines on standard error, e.g. "[Auth] SQL error: ".
  explicit Database(std::string error_prefix) : error_prefix_(std::move(error_prefix)) {}
  ~Database() { close(); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Opens the file, made with mode 0600 when it is missing, as its directories are with 0700; the
  /// mode of an existing file is tightened. Closes what was open before. False, and closed, when
  /// the file cannot be opened or is no database.
  bool open(const std::string& path);
  void close();
  bool isOpen() const { return connection_ != nullptr; }

  /// Executes statements that have no parameters; rows are dropped.
  bool exec(const std::string& sql);

  /// `sql` is kept as long as the connection: pass fixed texts only, values are bound.
  Statement prepare(std::string_view sql);

  /// Binds the values, runs the statement to its end and returns the number of rows it changed;
  /// nothing when it failed.
  template <class... Values>
  std::optional<std::int64_t> change(std::string_view sql, const Values&... values);

  /// The first row, as `read` makes it from a Statement&; nothing when there is none or on failure.
  template <class Read, class... Values>
  auto findOne(Read read, std::string_view sql, const Values&... values)
      -> std::optional<decltype(read(std::declval<Statement&>()))>;

  /// All rows; none on failure.
  template <class Read, class... Values>
  auto findAll(Read read, std::string_view sql, const Values&... values)
      -> std::vector<decltype(read(std::declval<Statement&>()))>;

  /// Runs `steps` as one transaction: all of it is stored when it returns true and the commit
  /// succeeds, which is then the result; else nothing is. Transactions do not nest.
  template <class Steps>
  bool atomically(Steps steps);

  /// What went wrong last, as SQLite words it.
  const std::string& lastError() const { return last_error_; }

 private:
  friend class Statement;

  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  /// Rolls back unless it was committed.
  class Transaction {
   public:
    explicit Transaction(Database& database)
        : database_(database), open_(database.isOpen() && database.exec("BEGIN IMMEDIATE")) {}
    ~Transaction() {
      if (open_) database_.rollBack();
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    bool open() const { return open_; }
    bool commit() {
      if (database_.exec("COMMIT")) open_ = false;
      return !open_;
    }

   private:
    Database& database_;
    bool open_;
  };

  bool connect(const std::string& path);
  void rollBack();
  std::int64_t changedRows() const;
  void noteError();

  const std::string error_prefix_;
  std::string last_error_;
  sqlite3* connection_ = nullptr;
  /// A statement is missing (null) while it is borrowed.
  std::unordered_map<std::string, sqlite3_stmt*, TextHash, std::equal_to<>> statements_;
};

template <class... Values>
std::optional<std::int64_t> Database::change(std::string_view sql, const Values&... values) {
  const platform::BlockingScope waiting_for_the_disk;
  Statement statement = prepare(sql);
  statement.bind(values...);
  StepResult result = StepResult::kRow;
  while (result == StepResult::kRow) result = statement.step();
  if (result == StepResult::kFailed) return std::nullopt;
  return changedRows();
}

template <class Read, class... Values>
auto Database::findOne(Read read, std::string_view sql, const Values&... values)
    -> std::optional<decltype(read(std::declval<Statement&>()))> {
  Statement statement = prepare(sql);
  statement.bind(values...);
  if (statement.step() != StepResult::kRow) return std::nullopt;
  return read(statement);
}

template <class Read, class... Values>
auto Database::findAll(Read read, std::string_view sql, const Values&... values)
    -> std::vector<decltype(read(std::declval<Statement&>()))> {
  Statement statement = prepare(sql);
  statement.bind(values...);
  std::vector<decltype(read(statement))> rows;
  for (;;) {
    switch (statement.step()) {
      case StepResult::kRow:
        rows.push_back(read(statement));
        break;
      case StepResult::kDone:
        return rows;
      case StepResult::kFailed:
        return {};
    }
  }
}

template <class Steps>
bool Database::atomically(Steps steps) {
  const platform::BlockingScope waiting_for_the_disk;
  Transaction transaction(*this);
  return transaction.open() && steps(*this) && transaction.commit();
}

}  // namespace tavrel::store
