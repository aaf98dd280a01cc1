#include "api/request.h"

#include <gtest/gtest.h>

#include "api/response.h"

namespace tavrel::api {
namespace {

Request withBody(const std::string& content_type, const std::string& body) {
  Request request;
  request.headers["content-TYPE"] = content_type;
  request.body = body;
  return request;
}

TEST(Request, JsonNeedsItsContentTypeAndAReasonableDepth) {
  EXPECT_EQ(withBody("application/json; charset=utf-8", "{\"a\":1}").json()->at("a"), 1);
  EXPECT_FALSE(withBody("text/plain", "{}").json());
  EXPECT_FALSE(withBody("application/json", "").json());
  EXPECT_FALSE(withBody("application/json", "{\"a\":").json());
  EXPECT_FALSE(withBody("application/json", "\"\xff\"").json());
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(withBody("application/json", nested(256)).json());
  // A few megabytes of brackets would become a hundred times as much in memory.
  std::string many = "[[]";
  for (int i = 0; i < 1'000'000; ++i) many += ",[]";
  EXPECT_FALSE(withBody("application/json", many + "]").json());
  EXPECT_TRUE(withBody("application/json", "[\"" + many + "\"]").json());
  EXPECT_FALSE(withBody("application/json", nested(257)).json());
  EXPECT_FALSE(withBody("application/json", nested(5'000'000)).json());
  EXPECT_TRUE(withBody("application/json", "[\"" + std::string(1000, '[') + "\\\"\"]").json());
}

TEST(Request, QueryTextIsSplitWithoutDecoding) {
  const auto params = parseQueryParams("a=1&b&c=x=y&a=2&=v&d=%20+");
  EXPECT_EQ(params, (std::map<std::string, std::string>{
                        {"a", "2"}, {"c", "x=y"}, {"", "v"}, {"d", "%20+"}}));
  EXPECT_TRUE(parseQueryParams("").empty());
}

TEST(Response, ErrorHasTheOneShapeWhateverTheMessage) {
  EXPECT_EQ(Response::error(404, "Worker not found").body,
            "{\"code\":404,\"error\":\"Worker not found\"}");
  EXPECT_EQ(Response::error(400, "\xff").body, "{\"code\":400,\"error\":\"\xEF\xBF\xBD\"}");
}

}  // namespace
}  // namespace tavrel::api
