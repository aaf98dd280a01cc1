#include "api/route_table.h"

#include <gtest/gtest.h>

namespace tavrel::api {
namespace {

class RouteTableTest : public ::testing::Test {
 protected:
  void add(const std::string& method, const std::string& pattern) {
    table_.add({method, pattern, [](Context&, const Request&) { return Response{}; }, nullptr, {}});
  }
  /// "<index of the route> name=value …", or "none".
  std::string find(const std::string& method, const std::string& path) {
    RouteTable::Params params;
    const Route* route = table_.find(method, path, params);
    if (route == nullptr) return "none";
    std::string text = std::to_string(route - table_.routes().data());
    for (const auto& [name, value] : params) text += ' ' + name + '=' + value;
    return text;
  }

  RouteTable table_;
};

TEST_F(RouteTableTest, SegmentsMatchWhole) {
  add("GET", "/api/v1/workers/:worker_id");
  add("POST", "/api/v1/workers/:worker_id/heartbeat");
  add("GET", "/api/v1/storage/:tenant_id/*");
  EXPECT_EQ(find("GET", "/api/v1/workers/w1"), "0 worker_id=w1");
  EXPECT_EQ(find("GET", "/api/v1/workers/w1/x"), "none");
  EXPECT_EQ(find("GET", "/api/v1/workers/"), "0 worker_id=");
  EXPECT_EQ(find("GET", "/api/v1/workers"), "none");
  EXPECT_EQ(find("GET", "/api/v1/workers/w1/"), "none");
  EXPECT_EQ(find("GET", "/api/v1/workers/w1/heartbeat"), "none");
  EXPECT_EQ(find("POST", "/api/v1/workers/a.b%/heartbeat"), "1 worker_id=a.b%");
  EXPECT_EQ(find("GET", "/api/v1/storage/t/*"), "2 tenant_id=t");
  EXPECT_EQ(find("GET", "/api/v1/storage/t/x"), "none");
}

TEST_F(RouteTableTest, FirstRegisteredWinsButPlainGoesFirst) {
  add("GET", "/a/:id");
  add("GET", "/a/sync");
  add("GET", "/a/sync");
  add("GET", "/:x/:y");
  add("GET", "/b/:z");
  EXPECT_EQ(find("GET", "/a/sync"), "1");
  EXPECT_EQ(find("GET", "/a/1"), "0 id=1");
  EXPECT_EQ(find("GET", "/b/1"), "3 x=b y=1");
}

TEST_F(RouteTableTest, OtherPatternsAreExpressionsOverTheWholePath) {
  add("GET", "/v.");
  add("GET", "/files/.*");
  EXPECT_EQ(find("GET", "/v1"), "0");
  EXPECT_EQ(find("GET", "/v12"), "none");
  EXPECT_EQ(find("GET", "/files/a/b"), "1");
  EXPECT_EQ(find("PUT", "/v1"), "none");
  EXPECT_EQ(find("GET", ""), "none");
  EXPECT_EQ(find("GET", "*"), "none");
}

}  // namespace
}  // namespace tavrel::api
