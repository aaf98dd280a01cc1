#include "inference/openai_event_lines.h"

#include <gtest/gtest.h>

namespace tavrel::inference {
namespace {

TEST(OpenAiEventLines, LetsEveryByteThroughHoweverTheStreamIsCut) {
  const std::string stream =
      ": hello\n\ndata: {\"n\":1}\n\r\ndata: {\"usage\":{\"prompt_tokens\":2}}\r\n\r\n"
      "data: [DONE]";
  for (std::size_t size = 1; size <= stream.size(); ++size) {
    OpenAiEventLines lines;
    std::string sent;
    for (std::size_t at = 0; at < stream.size(); at += size) {
      sent += lines.take(std::string_view(stream).substr(at, size));
    }
    EXPECT_EQ(sent + std::string(lines.rest()), stream) << size;
    EXPECT_EQ(lines.usage(), R"({"prompt_tokens":2})") << size;
    EXPECT_TRUE(lines.done()) << size;
  }
}

TEST(OpenAiEventLines, AnEventOfOurOwnNeverJoinsTheWorkers) {
  struct Case {
    std::string sent;
    std::string let_through;
    std::string gap;
  };
  const std::vector<Case> cases = {
      {"", "", ""},
      {"data: {\"half", "", ""},
      {"data: 1\n\n", "data: 1\n\n", ""},
      {"data: 1\n\ndata: {\"half", "data: 1\n\n", ""},
      {"data: 1\r\n\r\n", "data: 1\r\n\r\n", ""},
      {"data: 1\n", "data: 1\n", "\n"},
      {"data: 1\r\n", "data: 1\r\n", "\n"},
      {std::string(OpenAiEventLines::kLongestHeld + 1, 'x'),
       std::string(OpenAiEventLines::kLongestHeld + 1, 'x'), "\n\n"},
  };
  for (const Case& c : cases) {
    OpenAiEventLines whole;
    EXPECT_EQ(whole.take(c.sent), c.let_through);
    EXPECT_EQ(whole.gap(), c.gap) << c.sent.substr(0, 20);
    if (c.sent.size() > 100) continue;
    OpenAiEventLines bytewise;
    for (const char& byte : c.sent) bytewise.take({&byte, 1});
    EXPECT_EQ(bytewise.gap(), c.gap) << c.sent;
  }
}

TEST(OpenAiEventLines, OnlyTheWorkersOwnLastWordIsTheEnd) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"data: [DONE]\n\n", true},        {"data:[DONE]\n\n", true},
      {"data: 1\n\ndata: [DONE]", true}, {"data: {\"content\":\"data: [DONE]\"}\n\n", false},
      {": [DONE]\n\n", false},
  };
  for (const auto& [stream, done] : cases) {
    OpenAiEventLines lines;
    lines.take(stream);
    EXPECT_EQ(lines.done(), done) << stream;
  }
}

}  // namespace
}  // namespace tavrel::inference
