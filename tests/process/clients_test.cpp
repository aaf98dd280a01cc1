#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "process/controller_process.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/// Programs of other makers, as users would point them at the controller.
class ClientsTest : public ::testing::Test {
 protected:
  ClientsTest() : one_(kDevWorker, workerArguments("w1")), two_(kDevWorker, workerArguments("w2")) {
    EXPECT_THAT(controller_.getUntil("/api/v1/workers", "\"count\":2"), HasSubstr("\"count\":2"));
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(controller_.port()); }

  /// Runs a shell line; what it printed when it fails.
  static void expectSuccess(const std::string& line) {
    Process process("/bin/sh", {"-c", line});
    EXPECT_EQ(process.waitForExit(120s), 0) << line;
    if (!HasFailure()) return;
    for (const std::string& text : process.outputLines()) ADD_FAILURE() << text;
    for (const std::string& text : process.errorLines()) ADD_FAILURE() << text;
  }

  Controller controller_;

 private:
  std::vector<std::string> workerArguments(const std::string& id) const {
    return {"--controller", url(), "--id", id, "--name", id, "--model", "m", "--port", "0"};
  }

  Process one_;
  Process two_;
};

TEST_F(ClientsTest, TheOfficialOpenAiClientWorks) {
  const std::string directory = TAVREL_SOURCE_DIR "/tests/openai_client";
  if (!std::filesystem::exists(directory + "/node_modules")) {
    GTEST_SKIP() << "npm ci has not run in tests/openai_client (scripts/test.sh does it)";
  }
  expectSuccess("node " + directory + "/client_test.mjs " + url() + "/v1 m");
}

TEST_F(ClientsTest, TheMetricsPassPromtoolBeforeAndAfterTraffic) {
  if (std::system("command -v promtool >/dev/null && command -v curl >/dev/null") != 0) {
    GTEST_SKIP() << "promtool or curl is not installed (scripts/test.sh does it)";
  }
  const Controller fresh;
  expectSuccess("curl -sf http://127.0.0.1:" + std::to_string(fresh.port()) +
                "/metrics | promtool check metrics");
  const std::string body = R"({"model":"m","messages":[{"role":"user","content":"x"}]})";
  controller_.request("POST", "/v1/chat/completions", body);
  controller_.request("POST", "/api/v1/chat/completions", body);
  EXPECT_THAT(controller_.get("/metrics"), HasSubstr("tavrel_llm_requests_total{"));
  expectSuccess("curl -sf " + url() + "/metrics | promtool check metrics");
}

}  // namespace
}  // namespace tavrel::test
