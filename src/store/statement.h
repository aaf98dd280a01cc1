#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct sqlite3_stmt;

namespace tavrel::store {

class Database;

/// A text that is bound as NULL when it is empty: for columns that are unique where they are set.
struct NullIfEmpty {
  std::string_view text;
};

enum class StepResult { kRow, kDone, kFailed };

/// A prepared statement, borrowed from its Database's cache: bind, step, read the row's columns in
/// order. The destructor resets it, which ends its hold on the file, and gives it back.
///
/// Threads: those of its Database. It must go before the Database is closed.
/// Failure: a statement that could not be prepared or bound fails in step; nothing throws.
class Statement {
 public:
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&&) = delete;
  ~Statement();

  /// Binds the parameters, first to last. Texts are borrowed until the statement is destroyed.
  template <class... Values>
  void bind(const Values&... values) {
    int index = 0;
    (bindAt(++index, values), ...);
  }

  StepResult step();

  /// The next column of the current row; NULL reads as "" or 0.
  std::string nextText();
  std::int64_t nextInteger();
  bool nextFlag() { return nextInteger() != 0; }

 private:
  friend class Database;
  Statement(Database& database, sqlite3_stmt*& home);

  void bindAt(int index, std::string_view text);
  void bindAt(int index, std::int64_t number);
  void bindAt(int index, NullIfEmpty value);
  void noteBinding(int result);

  Database& database_;
  sqlite3_stmt** home_;      ///< its place in the cache, empty while it is borrowed
  sqlite3_stmt* statement_;  ///< null when it could not be prepared
  int column_ = 0;           ///< that is read next
  bool bound_ = true;
};

}  // namespace tavrel::store
