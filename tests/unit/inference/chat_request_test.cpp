#include "inference/chat_request.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::inference {
namespace {

using nlohmann::json;

TEST(ChatRequest, WhatTheClientSaysGoesOnAsItIs) {
  json body = json::parse(R"({"messages":[{"role":"user","content":"\u00fc\"\n"}],
      "model":"m\"\u00e9","temperature":0,"max_tokens":16,"top_p":0.25,"user":"secret",
      "tools":[{"type":"function","function":{"name":"f"}}],"tool_choice":"auto"})");
  // What is sent must be JSON whose members are the client's, in the order of the keys.
  const std::string text = ChatRequest::read(body).workerBody(true);
  body["stream"] = true;
  body.erase("user");
  EXPECT_EQ(text, body.dump());

  const json local = json::parse(ChatRequest::read(body).localServerBody());
  EXPECT_EQ(local["options"].dump(), R"({"num_predict":16,"temperature":0})");
  EXPECT_EQ(local["stream"], false);
  EXPECT_EQ(local["model"], body["model"]);
}

TEST(ChatRequest, NullCountsAsMissingAndWrongTypesAreRaised) {
  const json nulls = json::parse(
      R"({"messages":[1],"model":null,"temperature":null,"tools":null,"max_tokens":null})");
  EXPECT_EQ(ChatRequest::read(nulls).workerBody(false),
            R"({"max_tokens":2048,"messages":[1],"model":"llama3.1:8b","stream":false,)"
            R"("temperature":0.7,"top_p":0.9})");
  for (const char* wrong : {R"({"messages":[1],"model":7})", R"({"messages":[1],"top_p":"x"})"}) {
    EXPECT_THROW(ChatRequest::read(json::parse(wrong)), json::type_error) << wrong;
  }
}

TEST(ChatRequest, TheLastUserMessageIsTheQuestion) {
  EXPECT_EQ(lastUserText(json::parse(R"([{"role":"user","content":"one"},
      {"role":"user","content":"two"},{"role":"assistant","content":"three"}, 7])")),
            "two");
  EXPECT_EQ(lastUserText(json::parse(R"([{"role":"user","content":[{"type":"text","text":"a"},
      {"type":"image_url"},null,{"text":5},{"text":"b"}]}])")),
            "a\nb");
  EXPECT_EQ(lastUserText(json::parse(R"([{"role":"user","content":7}])")), "");
  EXPECT_EQ(lastUserText(json::parse(R"([{"role":"system","content":"x"}])")), "");
}

}  // namespace
}  // namespace tavrel::inference
