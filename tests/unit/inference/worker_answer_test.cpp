#include "inference/worker_answer.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::inference {
namespace {

using nlohmann::json;

struct Said {
  const char* body;
  const char* text;
  std::int64_t prompt_tokens;
  std::int64_t completion_tokens;
};

class WorkerAnswers : public ::testing::TestWithParam<Said> {};

TEST_P(WorkerAnswers, AreReadInEveryShape) {
  const Said& said = GetParam();
  const WorkerAnswer answer = parseWorkerAnswer(said.body);
  EXPECT_EQ(answer.text, said.text) << said.body;
  EXPECT_EQ(answer.prompt_tokens, said.prompt_tokens) << said.body;
  EXPECT_EQ(answer.completion_tokens, said.completion_tokens) << said.body;
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, WorkerAnswers,
    ::testing::Values(
        Said{R"({"choices":[{"message":{"content":"a"}}],"message":{"content":"b"},"response":"c",
                 "usage":{"prompt_tokens":3,"completion_tokens":4},"eval_count":9})",
             "a", 3, 4},
        Said{R"({"message":{"content":"b"},"response":"c","prompt_eval_count":5,"eval_count":6})",
             "b", 5, 6},
        Said{R"({"response":"c","usage":{"prompt_tokens":3}})", "c", 3, 0},
        Said{R"({"error":"out of memory"})", "", 0, 0}, Said{R"([1,2])", "", 0, 0},
        // Wrong types and sizes are left out one by one.
        Said{R"({"choices":[7],"message":[],"response":"c",
                 "usage":{"prompt_tokens":"3","completion_tokens":-4}})",
             "c", 0, 0},
        Said{R"({"choices":{},"response":"c","usage":7,"prompt_eval_count":1.5,
                 "eval_count":18446744073709551615})",
             "c", 0, 0},
        Said{R"({"choices":[{"message":{"content":null}}],"usage":null,"eval_count":2})", "", 0, 2},
        // What is not text is replaced.
        Said{"{\"response\":\"a\xff\\ud83d\\ude00\\ud800b\\\\udfff\"}",
             "a\xef\xbf\xbd\xf0\x9f\x98\x80\xef\xbf\xbd"
             "b\\udfff",
             0, 0}));

TEST(WorkerAnswer, WhatIsNotJsonIsRaised) {
  const std::string deep(100'000, '[');
  for (const std::string& body :
       {std::string(), std::string("<html>"), std::string("{\"response\":\"cut"), deep,
        deep + std::string(100'000, ']'), std::string("{\"eval_count\":1e999}")}) {
    EXPECT_THROW(parseWorkerAnswer(body), std::exception) << body.substr(0, 20);
  }
}

TEST(Completion, HasTheAnswerAndHowItCameAbout) {
  const WorkerAnswer answer = parseWorkerAnswer(R"({"choices":[{"message":{"content":"\u00fc\"x",
      "tool_calls":[{"id":"1"}],"tools":[]}}],"usage":{"prompt_tokens":2,"completion_tokens":3}})");
  const std::string text = completionJson(answer, {.request_id = "req-0123456789abcdef",
                                                   .created = 1700000000,
                                                   .model = "m\n",
                                                   .worker = "w\xff",
                                                   .worker_host = "10.0.0.1:8090",
                                                   .strategy = "load_based",
                                                   .reason = ""});
  const json expected = {
      {"id", "chatcmpl-req-0123456789abcdef"},
      {"object", "chat.completion"},
      {"created", 1700000000},
      {"model", "m\n"},
      {"worker", "w\xef\xbf\xbd"},
      {"worker_host", "10.0.0.1:8090"},
      {"routing", {{"strategy", "load_based"}, {"reason", ""}}},
      {"choices",
       {{{"index", 0},
         {"message",
          {{"role", "assistant"}, {"content", "\u00fc\"x"}, {"tool_calls", {{{"id", "1"}}}}}},
         {"finish_reason", "stop"}}}},
      {"usage", {{"prompt_tokens", 2}, {"completion_tokens", 3}, {"total_tokens", 5}}}};
  EXPECT_EQ(text, expected.dump());
}

}  // namespace
}  // namespace tavrel::inference
