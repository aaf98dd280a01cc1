#include "store/database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <stdexcept>

#include "support/process.h"

namespace tavrel::store {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string text(Statement& row) {
  return row.nextText();
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class DatabaseTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(database_.open(path_));
    ASSERT_TRUE(database_.exec("CREATE TABLE notes (id INTEGER PRIMARY KEY, note TEXT UNIQUE)"));
  }
  std::vector<std::string> notes(Database& database) {
    return database.findAll(text, "SELECT note FROM notes ORDER BY id");
  }
  bool add(Database& database, const std::string& note) {
    return database.change("INSERT INTO notes (note) VALUES (?)", note).has_value();
  }

  test::TempDirectory directory_;
  const std::string path_ = directory_.file("made/for/it/notes.db");
  Database database_{"[Test] "};
};

TEST_F(DatabaseTest, GivesBackWhatWasBound) {
  const std::string with_nul("a\0b", 3);
  const std::string hostile = "'); DROP TABLE notes; --";
  const std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
  struct Row {
    std::string nul, hostile, empty_type, null_type;
    std::int64_t number;
    bool flag;
  };
  const auto row = database_.findOne(
      [](Statement& columns) {
        return Row{columns.nextText(), columns.nextText(),    columns.nextText(),
                   columns.nextText(), columns.nextInteger(), columns.nextFlag()};
      },
      "SELECT ?, ?, typeof(?), typeof(?), ?, ?", with_nul, hostile, std::string_view(),
      NullIfEmpty{""}, lowest, true);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->nul, with_nul);
  EXPECT_EQ(row->hostile, hostile);
  EXPECT_EQ(row->empty_type, "text");
  EXPECT_EQ(row->null_type, "null");
  EXPECT_EQ(row->number, lowest);
  EXPECT_TRUE(row->flag);
  EXPECT_EQ(database_.findOne(text, "SELECT NULL"), "");
}

TEST_F(DatabaseTest, KeepsNothingOfABindingForTheNextUse) {
  constexpr const char* kSql = "SELECT ?";
  EXPECT_EQ(database_.findOne(text, kSql, "first"), "first");
  EXPECT_EQ(database_.findOne(text, kSql), "");
  Statement outer = database_.prepare(kSql);
  outer.bind("outer");
  ASSERT_EQ(outer.step(), StepResult::kRow);
  EXPECT_EQ(database_.findOne(text, kSql, "inner"), "inner");
  EXPECT_EQ(outer.nextText(), "outer");
}

TEST_F(DatabaseTest, StoresATransactionAsAWholeOrNotAtAll) {
  EXPECT_TRUE(database_.atomically([&](Database& db) { return add(db, "kept"); }));
  EXPECT_FALSE(database_.atomically([&](Database& db) {
    add(db, "refused");
    return false;
  }));
  EXPECT_FALSE(
      database_.atomically([&](Database& db) { return add(db, "doubled") && add(db, "doubled"); }));
  const auto throwing = [&](Database& db) -> bool {
    add(db, "thrown");
    throw std::runtime_error("in between");
  };
  EXPECT_THROW(database_.atomically(throwing), std::runtime_error);
  EXPECT_THAT(notes(database_), ElementsAre("kept"));
  EXPECT_TRUE(add(database_, "outside")) << "a transaction is still open";
}

TEST_F(DatabaseTest, ReportsFaultsButNotViolatedConstraints) {
  testing::internal::CaptureStderr();
  EXPECT_TRUE(add(database_, "one"));
  EXPECT_FALSE(add(database_, "one"));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
  EXPECT_THAT(database_.lastError(), HasSubstr("UNIQUE constraint failed: notes.note"));

  testing::internal::CaptureStderr();
  EXPECT_FALSE(database_.change("INSERT INTO nowhere VALUES (?)", "x"));
  EXPECT_FALSE(database_.exec("NOT SQL"));
  EXPECT_FALSE(database_.findOne(text, "SELECT ?", "more", "than asked for"));
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines, HasSubstr("[Test] no such table: nowhere\n"));
  EXPECT_THAT(lines, HasSubstr("[Test] near \"NOT\""));
}

TEST_F(DatabaseTest, FailsQuietlyWhileItIsClosed) {
  database_.close();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(database_.isOpen());
  EXPECT_FALSE(database_.exec("SELECT 1"));
  EXPECT_FALSE(add(database_, "lost"));
  EXPECT_THAT(notes(database_), IsEmpty());
  EXPECT_FALSE(database_.findOne(text, "SELECT 1"));
  EXPECT_FALSE(database_.atomically([](Database&) { return true; }));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
  ASSERT_TRUE(database_.open(path_));
  EXPECT_TRUE(add(database_, "found"));
  EXPECT_THAT(notes(database_), ElementsAre("found"));
}

TEST_F(DatabaseTest, KeepsItsFilesToTheOwner) {
  add(database_, "secret");
  for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(path_ + suffix), 0600) << suffix;
  EXPECT_EQ(modeOf(directory_.file("made")), 0700);
  EXPECT_EQ(modeOf(directory_.file("made/for/it")), 0700);
  database_.close();
  ASSERT_EQ(::chmod(path_.c_str(), 0644), 0);
  ASSERT_TRUE(database_.open(path_));
  EXPECT_EQ(modeOf(path_), 0600);
}

TEST_F(DatabaseTest, SyncsEveryCommitAndLetsOthersReadMeanwhile) {
  EXPECT_EQ(database_.findOne(text, "PRAGMA synchronous"), "2");
  EXPECT_EQ(database_.findOne(text, "PRAGMA busy_timeout"), "5000");
  Database other{"[Other] "};
  ASSERT_TRUE(other.open(path_));
  add(database_, "before");
  EXPECT_TRUE(database_.atomically([&](Database& db) {
    add(db, "uncommitted");
    EXPECT_THAT(notes(other), ElementsAre("before"));
    return true;
  }));
  EXPECT_THAT(notes(other), ElementsAre("before", "uncommitted"));
}

TEST_F(DatabaseTest, RefusesWhatIsNoDatabase) {
  const std::string path = directory_.file("text");
  std::ofstream(path) << std::string(4096, 'x');
  testing::internal::CaptureStderr();
  EXPECT_FALSE(database_.open(path));
  EXPECT_FALSE(database_.open(directory_.path()));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("file is not a database"));
  EXPECT_FALSE(database_.isOpen());
}

}  // namespace
}  // namespace tavrel::store
