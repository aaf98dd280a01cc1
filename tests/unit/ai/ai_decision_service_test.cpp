#include "ai/ai_decision_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavrel::ai {
namespace {

using ::testing::StartsWith;

const std::vector<RoutingTarget> kTwo = {
    {.id = "a", .load = 0.45, .latency_ms = 12, .capabilities = {"ollama", "gpu"}},
    {.id = "b", .load = 0.2, .latency_ms = 0, .capabilities = {}},
};

RoutingTarget loaded(const char* id, double load) {
  RoutingTarget target;
  target.id = id;
  target.load = load;
  return target;
}

TEST(AIDecisionService, ThePromptListsTheCandidatesInOrder) {
  EXPECT_EQ(AIDecisionService::buildWorkerSelectionPrompt("chat", kTwo),
            "You are a load balancer AI. Select the best worker for a chat job.\n\n"
            "AVAILABLE WORKERS:\n"
            "1. a\n   - Load: 45%\n   - Latency: 12ms\n   - Capabilities: ollama, gpu\n"
            "2. b\n   - Load: 20%\n   - Latency: 0ms\n   - Capabilities: \n"
            "\nConsider: load balance, latency, and capability match.\n"
            "Respond with ONLY: {\"worker_id\": \"<id>\", \"confidence\": <0-1>, "
            "\"reasoning\": \"<brief>\"}");
}

struct Reply {
  const char* text;
  const char* type;
  const char* target;
  float confidence;
  const char* reasoning_starts;
};

class ParseDecision : public ::testing::TestWithParam<Reply> {};

TEST_P(ParseDecision, ReadsTheReplyOrFallsBack) {
  const Reply& reply = GetParam();
  const AIDecision decision = AIDecisionService::parseDecision(reply.text, kTwo);
  EXPECT_EQ(decision.decision_type, reply.type);
  EXPECT_EQ(decision.target_id, reply.target);
  EXPECT_FLOAT_EQ(decision.confidence, reply.confidence);
  EXPECT_THAT(decision.reasoning, StartsWith(reply.reasoning_starts));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ParseDecision,
    ::testing::Values(
        Reply{R"({"worker_id":"b","confidence":0.9,"reasoning":"idle"})", "select_worker", "b",
              0.9F, "idle"},
        Reply{R"(Sure! {"target_id": "b", "confidence": 1, "reasoning": "x"} Good luck.)",
              "select_worker", "b", 1.0F, "x"},
        Reply{R"({"worker_id":"zzz","confidence":0.9})", "select_worker", "a", 0.5F,
              "Fallback: LLM selected invalid target"},
        Reply{R"({"worker_id":["b"],"confidence":"high","reasoning":{}})", "select_worker", "a",
              0.5F, "Fallback: LLM selected invalid target"},
        Reply{R"({"worker_id":"b","confidence":1e300,"reasoning":7})", "select_worker", "b", 1.0F,
              ""},
        Reply{"{\"worker_id\":\"b\",\"reasoning\":\"\xff\\ud800\"}", "select_worker", "b", 0.5F,
              "\xef\xbf\xbd\xef\xbf\xbd"},
        Reply{"I would take b", "fallback", "a", 0.3F, "Parse error: [json.exception.parse_error"},
        Reply{"} {", "fallback", "a", 0.3F, "Parse error: "}));

TEST(AIDecisionService, ACandidateThatIsNotAvailableIsNoWayOut) {
  std::vector<RoutingTarget> targets = kTwo;
  for (RoutingTarget& target : targets) target.available = false;
  const auto decision = AIDecisionService::parseDecision(R"({"worker_id":"zzz"})", targets);
  EXPECT_EQ(decision.target_id, "zzz");
}

TEST(AIDecisionService, WithoutAModelTheFirstOfTheLeastLoadedIsChosen) {
  net::HttpClient http;
  AIDecisionService service(http);
  service.shutdown();  // no model is asked from now on
  std::vector<RoutingTarget> targets = {loaded("full", 0.95), loaded("busy", 0.949),
                                        loaded("away", 0)};
  targets[2].available = false;
  EXPECT_EQ(service.selectWorker("chat", targets).target_id, "busy");

  targets.push_back(loaded("x", 0.3));
  targets.push_back(loaded("y", 0.3));
  const AIDecision decision = service.selectWorker("chat", targets);
  EXPECT_EQ(decision.decision_type, "fallback_least_load");
  EXPECT_EQ(decision.target_id, "x");
  EXPECT_FLOAT_EQ(decision.confidence, 0.6F);
  EXPECT_EQ(decision.reasoning, "LLM unavailable, selected least loaded worker");
}

}  // namespace
}  // namespace tavrel::ai
