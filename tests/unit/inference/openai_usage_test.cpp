#include "inference/openai_usage.h"

#include <gtest/gtest.h>

namespace tavrel::inference {
namespace {

TEST(OpenAiUsage, IsFoundAndReadWhereverTheWorkerPutIt) {
  struct Case {
    std::string answer;
    int prompt;
    int completion;
  };
  const std::vector<Case> cases = {
      {R"({"usage":{"prompt_tokens":3,"completion_tokens":4},"choices":[]})", 3, 4},
      {"{\"choices\":[], \"usage\" :\n {\"d\":{\"a\":{}},\"prompt_tokens\":12}}", 12, 0},
      // A text that speaks of usage is no usage, and neither is a null.
      {R"({"usage":{"prompt_tokens":1},"text":"\"usage\":{\"prompt_tokens\":9}"})", 1, 0},
      {R"({"usage":{"prompt_tokens":1},"x":{"usage":null}})", 1, 0},
      {R"({"usage":{"prompt_tokens":-5,"completion_tokens":99999999999999}})", 0, 2147483647},
      {R"({"usage":{"prompt_tokens":"7","completion_tokens":1.5}})", 0, 0},
      {R"({"usage":{"prompt_tokens":)", 0, 0},
      {R"("usage")", 0, 0},
      {"", 0, 0},
  };
  for (const Case& c : cases) {
    const OpenAiUsage usage = readUsage(findUsage(c.answer));
    EXPECT_EQ(usage.prompt_tokens, c.prompt) << c.answer;
    EXPECT_EQ(usage.completion_tokens, c.completion) << c.answer;
  }
}

TEST(OpenAiUsage, GarbageIsToldFromAnObject) {
  for (const char* good : {"{}", " {\"a\":1}\r\n"}) EXPECT_TRUE(looksLikeJsonObject(good)) << good;
  for (const char* bad : {"", " ", "{", "}", "<html>", "[]", "{\"a\":1", "\"x\""}) {
    EXPECT_FALSE(looksLikeJsonObject(bad)) << bad;
  }
}

}  // namespace
}  // namespace tavrel::inference
