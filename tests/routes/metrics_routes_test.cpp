#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "controller/routes/families.h"
#include "metrics/metrics_collector.h"
#include "metrics/metrics_history.h"
#include "support/test_server.h"

namespace tavrel::controller {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;

class MetricsRoutes : public testing::Test {
 protected:
  httplib::Result get(const std::string& target) { return server_.client().Get(target); }
  json jsonOf(const std::string& target) {
    const auto answer = get(target);
    return answer && answer->status == 200 ? json::parse(answer->body) : json();
  }

  metrics::MetricsCollector collector_;
  metrics::MetricsHistory history_;
  test::TestServer server_{
      [this](api::RouteBook& book) { addMetricsRoutes(book, collector_, history_); }};
};

TEST_F(MetricsRoutes, ExposeTheCollectorAsTextAndAsJson) {
  collector_.setWorkerCount(2, "online");
  const auto text = get("/metrics");
  ASSERT_TRUE(text);
  EXPECT_EQ(text->status, 200);
  EXPECT_EQ(text->get_header_value("Content-Type"), "text/plain; version=0.0.4");
  EXPECT_THAT(text->body, HasSubstr("tavrel_workers_total{status=\"online\"} 2\n"));
  EXPECT_EQ(jsonOf("/api/v1/metrics")["gauges"]["tavrel_workers_total"][0]["value"], 2);
}

TEST_F(MetricsRoutes, AnswerTheHistoryOfAWorker) {
  metrics::MetricsDataPoint point;
  for (const auto age : {120min, 30min, 1min}) {
    point.timestamp = platform::wallNow() - age;
    point.cpu_cores = static_cast<std::int32_t>(age.count());
    history_.recordWorkerMetrics("w1", point);
  }
  const json recent = jsonOf("/api/v1/metrics/history/workers/w1");
  EXPECT_EQ(recent["worker_id"], "w1");
  EXPECT_EQ(recent["duration_minutes"], 60);
  EXPECT_EQ(recent["resolution_seconds"], 0);
  EXPECT_EQ(recent["count"], 2);
  EXPECT_EQ(recent["data_points"][0]["cpu"]["cores"], 30);
  EXPECT_EQ(jsonOf("/api/v1/metrics/history/workers/w1?duration=0&resolution=5")["count"], 3);
  EXPECT_EQ(jsonOf("/api/v1/metrics/history/workers/w1?duration=5")["count"], 1);
  EXPECT_EQ(jsonOf("/api/v1/metrics/history/workers/other")["data_points"], json::array());
  EXPECT_EQ(jsonOf("/api/v1/metrics/workers/w1/latest")["cpu"]["cores"], 1);
  EXPECT_EQ(jsonOf("/api/v1/metrics/history/stats")["total_worker_data_points"], 3);

  const auto missing = get("/api/v1/metrics/workers/other/latest");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->status, 404);
  EXPECT_EQ(missing->body, R"({"code":404,"error":"No metrics found for worker"})");
}

TEST_F(MetricsRoutes, AnswerTheHistoryOfTheCluster) {
  metrics::ClusterMetricsDataPoint point;
  point.timestamp = platform::wallNow();
  point.workers_online = 4;
  history_.recordClusterMetrics(point);
  const json answer = jsonOf("/api/v1/metrics/history/cluster?duration=99999999999&resolution=7");
  EXPECT_EQ(answer["count"], 1);
  EXPECT_EQ(answer["resolution_seconds"], 7);
  EXPECT_EQ(answer["data_points"][0]["cluster"]["workers_online"], 4);
}

TEST_F(MetricsRoutes, AParameterThatIsNoNumberAnswers500) {
  for (const char* target : {"/api/v1/metrics/history/cluster?duration=long",
                             "/api/v1/metrics/history/workers/w1?resolution=fine"}) {
    const auto answer = get(target);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 500);
    EXPECT_EQ(answer->body, "");
  }
}

}  // namespace
}  // namespace tavrel::controller
