#include "inference/openai_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::inference {
namespace {

using nlohmann::json;

constexpr auto kChat = OpenAiEndpoint::kChatCompletions;
constexpr auto kText = OpenAiEndpoint::kCompletions;
constexpr auto kEmbeddings = OpenAiEndpoint::kEmbeddings;

std::string nested(std::size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

struct Accepted {
  OpenAiEndpoint endpoint;
  std::string body;
  std::string model;
  bool stream;
  std::string with_model_x;
};

class AcceptedBody : public testing::TestWithParam<Accepted> {};

TEST_P(AcceptedBody, TellsModelAndStreamAndKeepsEveryOtherByte) {
  OpenAiRequest request;
  const auto refusal = request.parse(GetParam().endpoint, GetParam().body);
  ASSERT_FALSE(refusal.has_value()) << refusal->message;
  EXPECT_EQ(request.model(), GetParam().model);
  EXPECT_EQ(request.stream(), GetParam().stream);
  EXPECT_EQ(request.withModel(GetParam().body, "x\"y"), GetParam().with_model_x);
}

INSTANTIATE_TEST_SUITE_P(
    OpenAiRequest, AcceptedBody,
    testing::Values(
        Accepted{kChat, R"({"model":"m","messages":[{}]})", "m", false,
                 R"({"model":"x\"y","messages":[{}]})"},
        // Blanks, unknown members, names and values that only look like the model.
        Accepted{kChat,
                 "\n{ \"messages\" : [ {\"model\":\"no\",\"stream\":false} ],\"a\":[\"model\"],\n"
                 " \"model\"\t: \r\n\"m:1\" , \"stream\" : true, \"z\":{\"model\":{}} } ",
                 "m:1", true,
                 "\n{ \"messages\" : [ {\"model\":\"no\",\"stream\":false} ],\"a\":[\"model\"],\n"
                 " \"model\"\t: \r\n\"x\\\"y\" , \"stream\" : true, \"z\":{\"model\":{}} } "},
        // Escapes in the name and in the value.
        Accepted{kChat, R"({"\u006dodel":"a\"\u00e9\/","messages":["x"]})", "a\"\xC3\xA9/", false,
                 R"({"\u006dodel":"x\"y","messages":["x"]})"},
        // The last of a repeated member counts.
        Accepted{kChat, R"({"model":"a","stream":true,"model":"b","stream":null,"messages":[1]})",
                 "b", false,
                 R"({"model":"a","stream":true,"model":"x\"y","stream":null,"messages":[1]})"},
        Accepted{kText, R"({"prompt":"","model":"m","stream":"yes"})", "m", false,
                 R"({"prompt":"","model":"x\"y","stream":"yes"})"},
        Accepted{kText, R"({"prompt":[1,2],"model":"m"})", "m", false,
                 R"({"prompt":[1,2],"model":"x\"y"})"},
        Accepted{kEmbeddings, R"({"model":"m","input":["a"]})", "m", false,
                 R"({"model":"x\"y","input":["a"]})"},
        Accepted{kEmbeddings, R"({"model":"m","input":"a","deep":)" + nested(255) + "}", "m", false,
                 R"({"model":"x\"y","input":"a","deep":)" + nested(255) + "}"}));

struct Refused {
  OpenAiEndpoint endpoint;
  std::string body;
  std::string param;
  std::string code;
};

class RefusedBody : public testing::TestWithParam<Refused> {};

TEST_P(RefusedBody, NamesWhatIsWrong) {
  OpenAiRequest request;
  const auto refusal = request.parse(GetParam().endpoint, GetParam().body);
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->status, 400);
  const json error = json::parse(refusal->body()).at("error");
  EXPECT_EQ(error.at("type"), "invalid_request_error");
  EXPECT_FALSE(error.at("message").get<std::string>().empty());
  EXPECT_EQ(error.at("param"), GetParam().param.empty() ? json() : json(GetParam().param));
  EXPECT_EQ(error.at("code"), GetParam().code.empty() ? json() : json(GetParam().code));
}

constexpr const char* kMissing = "missing_required_parameter";

INSTANTIATE_TEST_SUITE_P(
    OpenAiRequest, RefusedBody,
    testing::Values(
        Refused{kChat, "", "", ""}, Refused{kChat, "{", "", ""}, Refused{kChat, "null", "", ""},
        Refused{kChat, R"([{"model":"m","messages":[1]}])", "", ""},
        Refused{kChat, R"({"model":"m","messages":[1]}x)", "", ""},
        Refused{kChat, "{\"model\":\"\xff\",\"messages\":[1]}", "", ""},
        Refused{kChat, R"({"model":"m","messages":[1],"deep":)" + nested(256) + "}", "", ""},
        Refused{kChat, nested(100000), "", ""},
        Refused{kChat, R"({"messages":[1]})", "model", kMissing},
        Refused{kChat, R"({"model":null,"messages":[1]})", "model", kMissing},
        Refused{kChat, R"({"model":"","messages":[1]})", "model", kMissing},
        Refused{kChat, R"({"model":"m","model":7,"messages":[1]})", "model", "invalid_type"},
        Refused{kChat, R"({"model":"m"})", "messages", kMissing},
        Refused{kChat, R"({"model":"m","messages":[]})", "messages", "empty_array"},
        Refused{kChat, R"({"model":"m","messages":{"a":1}})", "messages", "invalid_type"},
        Refused{kChat, R"({"model":"m","messages":"hi"})", "messages", "invalid_type"},
        Refused{kText, R"({"model":"m","messages":[1]})", "prompt", kMissing},
        Refused{kEmbeddings, R"({"model":"m","input":[]})", "input", "empty_array"},
        Refused{kEmbeddings, R"({"model":"m","input":{}})", "input", "invalid_type"}));

TEST(OpenAiError, SurvivesTextsThatAreNotUtf8) {
  const json error = json::parse(OpenAiError::modelNotFound("a\xff").body()).at("error");
  EXPECT_EQ(error.at("message"), "Model 'a\xEF\xBF\xBD' not found on any worker or locally");
  EXPECT_EQ(error.at("code"), "model_not_found");
}

}  // namespace
}  // namespace tavrel::inference
