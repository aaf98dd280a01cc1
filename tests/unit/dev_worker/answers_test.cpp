#include "dev_worker/answers.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <numeric>

#include "dev_worker/chat_input.h"
#include "dev_worker/wire.h"

namespace tavrel::dev_worker {
namespace {

using nlohmann::json;

ChatInput chat(const std::string& text) {
  const auto input = readChat(json::parse(text));
  EXPECT_TRUE(input);
  return input.value_or(ChatInput{});
}

TEST(ChatInput, EchoesTheLastUserMessageWhateverItsForm) {
  EXPECT_EQ(chat(R"({"messages":[{"role":"user","content":"a"},{"role":"user","content":"b c"},
                     {"role":"assistant","content":"d"}]})")
                .text,
            "b c");
  const ChatInput parts = chat(R"({"messages":[{"role":"user","content":
      [{"type":"text","text":"x "},{"type":"image_url"},{"type":"text","text":"y"}]}]})");
  EXPECT_EQ(parts.text, "x y");
  EXPECT_EQ(parts.prompt_tokens, 2);
}

TEST(ChatInput, HostileBodiesAreReadWithoutHarm) {
  for (const char* body :
       {R"([])", R"({"messages":{}})", R"({"messages":[]})", R"("text")", R"(null)"}) {
    EXPECT_FALSE(readChat(json::parse(body))) << body;
  }
  const ChatInput odd = chat(R"({"messages":[7,null,{"role":[],"content":5}],"model":3,
      "max_tokens":-1e99,"stream":"yes","stream_options":[],"tools":[{}],"tool_choice":{}})");
  EXPECT_FALSE(odd.stream);
  EXPECT_FALSE(odd.tool_call);
  EXPECT_EQ(chat(R"({"messages":[1],"max_tokens":18446744073709551615})").max_tokens, INT32_MAX);
  EXPECT_FALSE(readEmbeddings(json::parse(R"({"input":[]})")));
  EXPECT_FALSE(readEmbeddings(json::parse(R"({"input":[{}]})")));
}

TEST(ChatInput, CallsTheFirstToolUntilItsResultIsThere) {
  json body = json::parse(R"({"messages":[{"role":"user","content":"Oslo"}],"tools":[
      {"type":"function","function":{"name":"weather","parameters":{"type":"object","properties":
       {"city":{"type":"string"},"days":{"type":"integer"},"unit":{"enum":["C","F"]}}}}},
      {"type":"function","function":{"name":"other"}}]})");
  const auto call = readChat(body)->tool_call;
  ASSERT_TRUE(call);
  EXPECT_EQ(call->name, "weather");
  EXPECT_EQ(json::parse(call->arguments), json({{"city", "Oslo"}, {"days", 1}, {"unit", "C"}}));
  body["messages"].push_back({{"role", "tool"}, {"content", "sunny"}});
  EXPECT_FALSE(readChat(body)->tool_call);
  EXPECT_EQ(readChat(body)->text, "sunny");
  body["messages"].erase(1);
  body["tool_choice"] = "none";
  EXPECT_FALSE(readChat(body)->tool_call);
}

TEST(ChatInput, FindsTheStreamMemberAndNothingThatOnlyLooksLikeIt) {
  EXPECT_TRUE(wantsStream(R"({"a":1,"stream" : true})"));
  EXPECT_FALSE(wantsStream(R"({"stream":false,"x":true})"));
  EXPECT_FALSE(wantsStream(R"({"content":"\"stream\":true"})"));
  EXPECT_FALSE(wantsStream(R"({"x":"stream"})"));
  EXPECT_FALSE(wantsStream(R"({"stream":)"));
}

TEST(Answers, TokensAreWordsWithTheBlanksBeforeThem) {
  EXPECT_EQ(splitTokens("a  b\nc "), (std::vector<std::string>{"a", "  b", "\nc", " "}));
  EXPECT_EQ(countTokens("a  b\nc "), 4);
  EXPECT_EQ(countTokens(""), 0);
}

TEST(Answers, AreStretchedAndCutToTheLengthAskedFor) {
  ChatInput input;
  input.text = "one two";
  EXPECT_EQ(makeAnswer({}, input).text(), "Echo: one two");
  EXPECT_EQ(makeAnswer({"", 5}, input).text(), "Echo: one two Echo: one");
  EXPECT_EQ(makeAnswer({"fine", 3}, input).text(), "fine fine fine");
  input.max_tokens = 2;
  const Answer cut = makeAnswer({"", 5}, input);
  EXPECT_EQ(cut.text(), "Echo: one");
  EXPECT_EQ(cut.finish_reason, "length");
}

TEST(Answers, EmbeddingsHaveLengthOneAndDependOnTheTextOnly) {
  const auto vector = embeddingOf("hello", 64);
  EXPECT_EQ(vector, embeddingOf("hello", 64));
  EXPECT_NE(vector, embeddingOf("hallo", 64));
  EXPECT_NEAR(std::inner_product(vector.begin(), vector.end(), vector.begin(), 0.0), 1.0, 1e-5);
}

TEST(Wire, PlainAnswersCarryTextOrToolCallAndUsage) {
  Answer answer;
  answer.tokens = {"say", " \"hi\"\xff"};  // what is not UTF-8 is replaced, never raised
  const ReplyId id{"chatcmpl-1", 5};
  const json text =
      json::parse(replyBody(ReplyKind::kChat, id, replyTail(ReplyKind::kChat, "m\"1", answer, 3)));
  EXPECT_EQ(text["id"], "chatcmpl-1");
  EXPECT_EQ(text["model"], "m\"1");
  EXPECT_EQ(text["choices"][0]["message"]["content"], "say \"hi\"\xef\xbf\xbd");
  EXPECT_EQ(text["choices"][0]["finish_reason"], "stop");
  EXPECT_EQ(text["usage"]["total_tokens"], 5);

  answer.tool_call = ToolCall{"f", "{}"};
  const json call =
      json::parse(replyBody(ReplyKind::kChat, id, replyTail(ReplyKind::kChat, "m", answer, 3)));
  EXPECT_EQ(call["choices"][0]["message"]["tool_calls"][0]["function"]["name"], "f");
  EXPECT_TRUE(call["choices"][0]["message"]["content"].is_null());
}

TEST(Wire, EmbeddingsComeAsNumbersOrAsBase64OfTheSameFloats) {
  EXPECT_EQ(base64Floats({1.0F}), "AACAPw==");
  EXPECT_EQ(base64Floats({1.0F, -2.0F, 0.5F}), "AACAPwAAAMAAAAA/");
  const auto input = readEmbeddings(
      json::parse(R"({"input":["a","b"],"dimensions":3,"encoding_format":"base64"})"));
  ASSERT_TRUE(input);
  const json body = json::parse(embeddingsBody(*input));
  ASSERT_EQ(body["data"].size(), 2U);
  EXPECT_EQ(body["data"][1]["index"], 1);
  EXPECT_EQ(body["data"][0]["embedding"], base64Floats(embeddingOf("a", 3)));
}

}  // namespace
}  // namespace tavrel::dev_worker
