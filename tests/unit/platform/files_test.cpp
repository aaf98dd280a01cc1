#include "platform/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "support/process.h"

namespace tavrel::platform {
namespace {

class FilesTest : public ::testing::Test {
 protected:
  const test::TempDirectory temporary_;
  const std::filesystem::path directory_ = temporary_.path();
};

TEST_F(FilesTest, AFileIsReplacedWholeAndPrivate) {
  const std::string path = directory_ / "state.json";
  ASSERT_TRUE(writeFileAtomically(path, std::string(300000, 'a')));
  ASSERT_TRUE(writeFileAtomically(path, std::string("b\0c", 3)));
  EXPECT_EQ(readFile(path), std::string("b\0c", 3));
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  const auto entries = std::filesystem::directory_iterator(directory_);
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST_F(FilesTest, AFailedWriteLeavesTheOldFileAlone) {
  const std::string path = directory_ / "taken";
  std::filesystem::create_directories(std::filesystem::path(path) / "inside");
  EXPECT_FALSE(writeFileAtomically(path, "x"));
  EXPECT_FALSE(writeFileAtomically(directory_ / "missing" / "file", "x"));
  const auto entries = std::filesystem::directory_iterator(directory_);
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST_F(FilesTest, AProcessThatIsKilledWhileWritingLeavesNothingBehind) {
  const int unnamed = ::open(directory_.c_str(), O_WRONLY | O_TMPFILE, 0600);
  if (unnamed < 0) GTEST_SKIP() << "the file system has no files without names";
  ::close(unnamed);
  const std::string path = directory_ / "state.json";
  ASSERT_TRUE(writeFileAtomically(path, "old"));
  const auto write_too_much = [&path] {
    const rlimit limit{1000, 1000};
    ::setrlimit(RLIMIT_FSIZE, &limit);  // to go beyond it kills the process, in mid-write
    writeFileAtomically(path, std::string(5000, 'x'));
  };
  EXPECT_EXIT(write_too_much(), testing::KilledBySignal(SIGXFSZ), "");
  EXPECT_EQ(readFile(path), "old");
  const auto entries = std::filesystem::directory_iterator(directory_);
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST_F(FilesTest, OnlyRegularFilesAreRead) {
  EXPECT_FALSE(readFile(directory_));
  EXPECT_FALSE(readFile(directory_ / "missing"));
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(readFile(fifo));
  ASSERT_TRUE(writeFileAtomically(directory_ / "file", ""));
  EXPECT_FALSE(readFile((directory_ / "file").string() + '\0' + "rest"));
}

TEST_F(FilesTest, OnlyRegularFilesAreReplaced) {
  const auto linkTo = [&](const std::filesystem::path& target) {
    const std::filesystem::path link = directory_ / "link";
    std::filesystem::remove(link);
    std::filesystem::create_symlink(target, link);
    return link;
  };
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(writeFileAtomically(fifo, "x"));
  EXPECT_TRUE(std::filesystem::is_fifo(fifo));
  for (const char* target : {"fifo", "/dev/null", ".", "link"}) {
    const auto link = linkTo(target);
    EXPECT_FALSE(writeFileAtomically(link, "x")) << target;
    EXPECT_TRUE(std::filesystem::is_symlink(link)) << target;
  }
  EXPECT_FALSE(writeFileAtomically((directory_ / "cut").string() + '\0' + "off", "x"));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "cut"));

  // Whether the file is there or not, the link stays one; its directory holds no trace of the work.
  std::filesystem::create_directory(directory_ / "below");
  for (const char* content : {"1", "2"}) {
    const auto link = linkTo("below/file");
    EXPECT_TRUE(writeFileAtomically(link, content));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(readFile(directory_ / "below" / "file"), content);
  }
  const auto entries = std::filesystem::directory_iterator(directory_ / "below");
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST_F(FilesTest, DirectoriesArePrivateAndMadeWithTheirParents) {
  const std::string path = directory_ / "a" / "b";
  EXPECT_TRUE(ensureDirectory(path));
  EXPECT_TRUE(ensureDirectory(path));
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
  ASSERT_TRUE(writeFileAtomically(directory_ / "file", ""));
  EXPECT_FALSE(ensureDirectory(directory_ / "file" / "below"));
}

}  // namespace
}  // namespace tavrel::platform
