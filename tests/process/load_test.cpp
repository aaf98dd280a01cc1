#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "process/controller_process.h"
#include "process/dev_worker_process.h"
#include "support/messages.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

#ifdef __SANITIZE_THREAD__
constexpr int kShare = 10;  // what a controller that watches its every access can bear
#else
constexpr int kShare = 1;
#endif
constexpr int kEventStreams = 1000 / kShare;
constexpr int kChatStreams = 500 / kShare;
constexpr int kIdleConnections = 5000 / kShare;

using Clients = std::vector<std::unique_ptr<RawClient>>;

class LoadProcess : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }

  std::unique_ptr<DevWorker> worker(const std::string& model, const std::string& rate) const {
    auto made = std::make_unique<DevWorker>(words(
        "--controller http://127.0.0.1:" + std::to_string(controller_.port()) + " --id " + model +
        " --model " + model + " --heartbeat-ms 200 --tokens 100000 --tokens-per-second " + rate));
    controller_.getUntil("/v1/models", '"' + model + '"');
    return made;
  }

  void open(Clients& clients, const std::string& request) {
    // The console is a pipe: somebody must read it.
    if (clients.size() % 32 == 0) controller_.process().waitForLine("never printed", 1ms);
    clients.push_back(std::make_unique<RawClient>(controller_.port()));
    clients.back()->send(request);
  }

  static std::string chat(const std::string& model) {
    const std::string body =
        R"({"stream":true,"messages":[{"role":"user","content":"x"}],"model":")" + model + "\"}";
    return postRequest("/v1/chat/completions", body);
  }

  /// Many plain requests are answered in the time that a user would give one of them.
  void plainRequestsAreAnswered() const {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) {
      ASSERT_THAT(controller_.get("/api/v1/health"), HasSubstr("HTTP/1.1 200"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  }

  void endsPromptly() {
    controller_.process().signal(SIGTERM);
    EXPECT_EQ(controller_.process().waitForExit(5s), 0);
  }

  Controller controller_;
};

TEST_F(LoadProcess, ManyOpenStreamsHoldUpNeitherRequestsNorTheEnd) {
  const auto slow = worker("slow", "5");
  const auto fast = worker("fast", "0");
  Clients clients;
  for (int i = 0; i < kEventStreams; ++i) {
    open(clients, "GET /api/v1/events/stream HTTP/1.1\r\nHost: c\r\n\r\n");
  }
  for (int i = 0; i < kChatStreams; ++i) open(clients, chat("slow"));
  for (int i = 0; i < 5; ++i) open(clients, chat("fast"));  // never read
  for (int i = 0; i < kEventStreams; ++i) {
    ASSERT_THAT(clients[static_cast<std::size_t>(i)]->readUntil("connected"),
                HasSubstr("connected"));
  }
  for (int i = 0; i < kChatStreams; ++i) {
    const auto at = static_cast<std::size_t>(kEventStreams + i);
    ASSERT_THAT(clients[at]->readUntil("data: "), HasSubstr("data: "));
  }
  plainRequestsAreAnswered();
  endsPromptly();
}

TEST_F(LoadProcess, ThousandsOfIdleConnectionsCostNobodyAnything) {
  Clients clients;
  for (int i = 0; i < kIdleConnections; ++i) {
    open(clients, "GET /api/v1/health HTTP/1.1\r\nHost: c\r\n\r\n");
  }
  for (const auto& client : clients) ASSERT_NE(client->readUntil("\"ok\""), "");
  plainRequestsAreAnswered();
  clients.front()->send("GET /api/v1/health HTTP/1.1\r\nHost: c\r\n\r\n");
  EXPECT_THAT(clients.front()->readUntil("\"ok\""), HasSubstr("HTTP/1.1 200"));
  endsPromptly();
}

}  // namespace
}  // namespace tavrel::test
