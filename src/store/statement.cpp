#include "store/statement.h"

#include <sqlite3.h>

#include <utility>

#include "store/database.h"

namespace tavrel::store {

Statement::Statement(Database& database, sqlite3_stmt*& home)
    : database_(database), home_(&home), statement_(std::exchange(home, nullptr)) {}

Statement::Statement(Statement&& other) noexcept
    : database_(other.database_),
      home_(other.home_),
      statement_(std::exchange(other.statement_, nullptr)),
      column_(other.column_),
      bound_(other.bound_) {}

Statement::~Statement() {
  if (statement_ == nullptr) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
  if (*home_ == nullptr) {
    *home_ = statement_;
  } else {
    sqlite3_finalize(statement_);  // a second one of the same text was made meanwhile
  }
}

StepResult Statement::step() {
  if (statement_ == nullptr || !bound_) return StepResult::kFailed;
  column_ = 0;
  switch (sqlite3_step(statement_)) {
    case SQLITE_ROW:
      return StepResult::kRow;
    case SQLITE_DONE:
      return StepResult::kDone;
    default:
      database_.noteError();
      return StepResult::kFailed;
  }
}

std::string Statement::nextText() {
  const int column = column_++;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  if (text == nullptr) return {};
  return {text, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

std::int64_t Statement::nextInteger() {
  return sqlite3_column_int64(statement_, column_++);
}

void Statement::bindAt(int index, std::string_view text) {
  if (statement_ == nullptr) return;
  // A null pointer would bind NULL, and an empty view may have one.
  const char* data = text.empty() ? "" : text.data();
  noteBinding(
      sqlite3_bind_text64(statement_, index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void Statement::bindAt(int index, std::int64_t number) {
  if (statement_ == nullptr) return;
  noteBinding(sqlite3_bind_int64(statement_, index, number));
}

void Statement::bindAt(int index, NullIfEmpty value) {
  if (!value.text.empty()) bindAt(index, value.text);  // an unbound parameter is NULL
}

void Statement::noteBinding(int result) {
  if (result == SQLITE_OK) return;
  bound_ = false;
  database_.noteError();
}

}  // namespace tavrel::store
