#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>

#include "old_database.h"
#include "store/database.h"
#include "user_store_fixture.h"

// What the store has answered is there after its process was killed at any moment.
namespace tavrel::identity {
namespace {

using std::chrono::microseconds;

constexpr int kRounds = 20;

std::mt19937 printedSeed() {
  const unsigned seed = std::random_device()();
  std::printf("seed %u\n", seed);
  std::fflush(stdout);
  return std::mt19937(seed);
}

/// A process of its own that writes the numbers of what the store has answered to a pipe.
class Writer {
 public:
  using Acknowledge = std::function<void(int)>;

  explicit Writer(const std::function<void(const Acknowledge&)>& work) {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ends[0]);
      if (std::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(1);
      work([&](int number) {
        if (::write(ends[1], &number, sizeof number) != sizeof number) ::_exit(1);
      });
      ::_exit(0);
    }
    ::close(ends[1]);
    pipe_ = ends[0];
  }
  ~Writer() { ::close(pipe_); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  /// Waits for the next acknowledged number; false when there will be none.
  bool next(int& number) { return ::read(pipe_, &number, sizeof number) == sizeof number; }

  /// Returns the last number acknowledged, or `last` when none came since.
  int kill(int last) {
    ::kill(pid_, SIGKILL);
    while (next(last)) {
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer gave up by itself";
    return last;
  }

 private:
  pid_t pid_ = -1;
  int pipe_ = -1;
};

std::string integrityOf(const std::string& path) {
  store::Database file("[Test] ");
  if (!file.open(path)) return "cannot be opened";
  const auto text = [](store::Statement& row) { return row.nextText(); };
  return file.findOne(text, "PRAGMA integrity_check").value_or("cannot be checked");
}

ChatConversation conversationNumber(int number) {
  ChatConversation conversation;
  conversation.id = "conv_" + std::to_string(number);
  conversation.user_id = "usr_ada";
  // From a few bytes to several pages.
  conversation.messages =
      "[\"" + std::string(static_cast<std::size_t>(number) * 7919 % 30'000, 'm') + "\"]";
  return conversation;
}

/// Does everything that one number stands for.
bool write(UserStore& store, int number) {
  const std::string text = std::to_string(number);
  return store.createUser(userNamed(text)) &&
         store.createConversation(conversationNumber(number)) &&
         store.storeToken("token" + text, "usr_ada", "reset_password", 3600) &&
         store.changeUser("usr_ada", [&](User& user) { user.org_id = text; }) &&
         store.setSetting("last", text);
}

void expectWritten(UserStore& store, int number) {
  const std::string text = std::to_string(number);
  EXPECT_TRUE(store.findById("usr_" + text)) << text;
  const auto conversation = store.getConversation("conv_" + text);
  ASSERT_TRUE(conversation) << text;
  EXPECT_EQ(conversation->messages, conversationNumber(number).messages);
}

TEST_F(UserStoreTest, AKilledProcessLosesNothingItAnswered) {
  auto random = printedSeed();
  ASSERT_TRUE(store_->createUser(userNamed("ada")));
  ASSERT_TRUE(store_->createSession(sessionOf(userNamed("ada"), "ts_ada")));
  store_->shutdown();
  int last = 0;  // the last number acknowledged
  for (int round = 0; round < kRounds; ++round) {
    const int first = (last / 100'000 + 1) * 100'000;
    Writer writer([&](const Writer::Acknowledge& acknowledge) {
      const auto store = createUserStore("sqlite", path_);
      if (!store->initialize()) return;
      for (int number = first; write(*store, number); ++number) acknowledge(number);
    });
    ASSERT_TRUE(writer.next(last)) << "round " << round;
    std::this_thread::sleep_for(microseconds(random() % 40'000));
    last = writer.kill(last);

    ASSERT_EQ(integrityOf(path_), "ok") << "round " << round;
    testing::internal::CaptureStdout();
    const bool initialized = store_->initialize();
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(initialized) << "round " << round;
    for (int number = first; number <= last; ++number) expectWritten(*store_, number);
    EXPECT_GE(store_->getSetting("last", ""), std::to_string(last));
    // Of the number that was being written each step is there as a whole or not at all.
    const std::string organization = store_->findById("usr_ada")->org_id;
    EXPECT_GE(organization, std::to_string(last));
    EXPECT_EQ(store_->validateSession("ts_ada")->org_id, organization);
    EXPECT_TRUE(store_->validateToken("token" + std::to_string(last), "reset_password") ||
                store_->validateToken("token" + std::to_string(last + 1), "reset_password"));
    store_->shutdown();
  }
}

TEST(KilledMigration, IsDoneAgainFromTheStart) {
  auto random = printedSeed();
  for (int round = 0; round < kRounds; ++round) {
    const test::TempDirectory directory;
    const std::string path = directory.file("users.db");
    ASSERT_NO_FATAL_FAILURE(writeOldDatabase(path));
    Writer writer([&](const Writer::Acknowledge& /*acknowledge*/) {
      const auto store = createUserStore("sqlite", path);
      store->initialize();
      ::pause();
    });
    std::this_thread::sleep_for(microseconds(random() % 15'000));
    writer.kill(0);
    ASSERT_EQ(integrityOf(path), "ok") << "round " << round;
    const auto store = createUserStore("sqlite", path);
    testing::internal::CaptureStdout();
    const bool initialized = store->initialize();
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(initialized) << "round " << round;
    EXPECT_EQ(store->findById("usr_admin")->role, "cluster_admin");
    EXPECT_EQ(store->validateSession("ts_operator")->role, "user");
    EXPECT_TRUE(store->setSetting("user:a", "ui", "theme", "dark"));
  }
}

}  // namespace
}  // namespace tavrel::identity
