#include "metrics/metrics_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

namespace tavrel::metrics {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// The sample lines of one family.
std::vector<std::string> samples(const MetricsCollector& collector, const std::string& name) {
  std::vector<std::string> lines;
  std::istringstream text(collector.getPrometheusMetrics());
  for (std::string line; std::getline(text, line);) {
    if (line.rfind(name, 0) == 0) lines.push_back(line);
  }
  return lines;
}

TEST(MetricsCollector, AFreshOneShowsItsFifteenFamiliesAndNoSample) {
  const MetricsCollector collector;
  std::istringstream text(collector.getPrometheusMetrics());
  std::vector<std::string> types;
  for (std::string line; std::getline(text, line);) {
    ASSERT_EQ(line[0], '#') << line;
    if (line.rfind("# TYPE tavrel_", 0) == 0) types.push_back(line.substr(14));
  }
  EXPECT_THAT(types, ElementsAre("http_requests_total counter", "image_generations_total counter",
                                 "llm_requests_total counter", "llm_tokens_total counter",
                                 "workflow_executions_total counter", "cluster_nodes_total gauge",
                                 "info gauge", "memory_bytes gauge", "models_loaded gauge",
                                 "uptime_seconds gauge", "workers_total gauge",
                                 "http_request_duration_seconds histogram",
                                 "image_generation_duration_seconds histogram",
                                 "llm_inference_duration_seconds histogram",
                                 "workflow_duration_seconds histogram"));
  EXPECT_THAT(collector.getPrometheusMetrics(),
              HasSubstr("# HELP tavrel_uptime_seconds Process uptime in seconds\n"));
}

TEST(MetricsCollector, HistogramBucketsCountWhatIsNotAboveThem) {
  MetricsCollector collector;
  collector.recordHttpRequest("GET", "/api/v1/workers/:worker_id", 200, 0.003);
  collector.recordHttpRequest("GET", "/api/v1/workers/:worker_id", 404, 11);
  EXPECT_THAT(samples(collector, "tavrel_http_requests_total"),
              ElementsAre("tavrel_http_requests_total{method=\"GET\",path=\"/api/v1/workers/"
                          ":worker_id\",status=\"200\"} 1",
                          "tavrel_http_requests_total{method=\"GET\",path=\"/api/v1/workers/"
                          ":worker_id\",status=\"404\"} 1"));
  const std::string name = "tavrel_http_request_duration_seconds";
  const std::string labels = "method=\"GET\",path=\"/api/v1/workers/:worker_id\"}";
  const auto lines = samples(collector, name);
  ASSERT_EQ(lines.size(), 15u);
  EXPECT_EQ(lines[0], name + "_bucket{le=\"0.001\"," + labels + " 0");
  EXPECT_EQ(lines[1], name + "_bucket{le=\"0.005\"," + labels + " 1");
  EXPECT_EQ(lines[11], name + "_bucket{le=\"10\"," + labels + " 1");
  EXPECT_EQ(lines[12], name + "_bucket{le=\"+Inf\"," + labels + " 2");
  EXPECT_EQ(lines[13], name + "_sum{" + labels + " 11.003");
  EXPECT_EQ(lines[14], name + "_count{" + labels + " 2");
}

TEST(MetricsCollector, RecordersFillTheirFamilies) {
  MetricsCollector collector;
  collector.recordLlmInference("m", "vllm", 12, 30, 1.5);
  collector.recordLlmInference("m", "vllm", -5, 1, 1.5);
  collector.recordImageGeneration("comfy", "upscale", false, 2);
  collector.setWorkerCount(3, "online");
  collector.setModelCount(4, "vllm");
  EXPECT_THAT(
      samples(collector, "tavrel_llm_tokens_total"),
      ElementsAre("tavrel_llm_tokens_total{backend=\"vllm\",model=\"m\",type=\"completion\"} 31",
                  "tavrel_llm_tokens_total{backend=\"vllm\",model=\"m\",type=\"prompt\"} 12"));
  const std::string text = collector.getPrometheusMetrics();
  for (const char* line :
       {"tavrel_llm_requests_total{backend=\"vllm\",model=\"m\"} 2\n",
        "tavrel_llm_inference_duration_seconds_sum{backend=\"vllm\",model=\"m\"} 3\n",
        "tavrel_image_generations_total{backend=\"comfy\",operation=\"upscale\",status=\"error\"} "
        "1\n",
        "tavrel_image_generation_duration_seconds_count{backend=\"comfy\",operation=\"upscale\"} "
        "1\n",
        "tavrel_workers_total{status=\"online\"} 3\n",
        "tavrel_models_loaded{backend=\"vllm\"} 4\n"}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
}

TEST(MetricsCollector, AnyCharacterInALabelOrHelpTextSurvives) {
  MetricsCollector collector;
  collector.registerGauge("odd", "one\\two\nthree \"four\"", {"value"});
  const Labels hostile{{"a", "x=1,b=\"2\"\n\\"}, {"b", "\xff"}};
  collector.gaugeSet("odd", 1, hostile);
  collector.gaugeInc("odd", hostile);
  collector.gaugeDec("odd", {{"a", "x=1"}, {"b", "2"}});
  EXPECT_THAT(samples(collector, "odd"),
              ElementsAre("odd{a=\"x=1\",b=\"2\"} -1",
                          "odd{a=\"x=1,b=\\\"2\\\"\\n\\\\\",b=\"\xEF\xBF\xBD\"} 2"));
  EXPECT_THAT(collector.getPrometheusMetrics(),
              HasSubstr("# HELP odd one\\\\two\\nthree \"four\"\n"));
  const auto dump = nlohmann::json::parse(collector.getJsonMetrics());
  EXPECT_EQ(dump["gauges"]["odd"][1]["labels"]["a"], "x=1,b=\"2\"\n\\");
}

TEST(MetricsCollector, NumbersReadBackAsTheyWere) {
  MetricsCollector collector;
  collector.registerGauge("g", "", {});
  const auto printed = [&](double value) {
    collector.gaugeSet("g", value);
    return samples(collector, "g").front().substr(2);
  };
  for (const double value : {1234567.0, 0.1 + 0.2, 1e300, -0.5, 9007199254740993.0, 1e-7}) {
    EXPECT_EQ(std::stod(printed(value)), value);
  }
  EXPECT_EQ(printed(1234567), "1234567");
  EXPECT_EQ(printed(0.25), "0.25");
  EXPECT_EQ(printed(std::nan("")), "NaN");
  EXPECT_EQ(printed(std::numeric_limits<double>::infinity()), "+Inf");
  EXPECT_EQ(printed(-std::numeric_limits<double>::infinity()), "-Inf");
}

TEST(MetricsCollector, WhatCannotBeRecordedIsIgnored) {
  MetricsCollector collector;
  collector.registerCounter("c", "", {});
  collector.registerHistogram("h", "", {}, {1, 2});
  collector.counterInc("c");
  collector.counterAdd("c", -1);
  collector.counterAdd("c", std::nan(""));
  collector.gaugeSet("c", 9);
  collector.counterInc("h");
  collector.counterInc("unknown");
  collector.histogramObserve("h", std::nan(""));
  EXPECT_THAT(samples(collector, "c"), ElementsAre("c 1"));
  EXPECT_TRUE(samples(collector, "h").empty());
  EXPECT_TRUE(samples(collector, "unknown").empty());

  collector.registerGauge("c", "", {});
  EXPECT_TRUE(samples(collector, "c").empty()) << "of another type now";
}

TEST(MetricsCollector, AFamilyDoesNotGrowWithoutBound) {
  MetricsCollector collector;
  collector.registerCounter("c", "", {"l"});
  for (std::size_t i = 0; i < MetricsCollector::kMaxSeries + 10; ++i) {
    collector.counterInc("c", {{"l", std::to_string(i)}});
  }
  collector.counterInc("c", {{"l", "0"}});
  const auto lines = samples(collector, "c");
  EXPECT_EQ(lines.size(), MetricsCollector::kMaxSeries);
  EXPECT_EQ(lines.front(), "c{l=\"0\"} 2");
}

TEST(MetricsCollector, DumpsSeriesAsJson) {
  MetricsCollector collector;
  collector.registerHistogram("h", "", {"l"}, {1, 2.5});
  collector.histogramObserve("h", 2, {{"l", "v"}});
  const auto dump = nlohmann::json::parse(collector.getJsonMetrics());
  EXPECT_EQ(dump["histograms"]["h"],
            nlohmann::json::parse(R"([{"labels":{"l":"v"},"sum":2.0,"count":1,
              "buckets":[{"le":1.0,"count":0},{"le":2.5,"count":1}]}])"));
  EXPECT_EQ(dump["counters"]["tavrel_llm_requests_total"], nlohmann::json::array());
  EXPECT_EQ(dump["gauges"].size(), 6u);
}

TEST(MetricsCollector, CountsEverythingThatThreadsRecord) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  MetricsCollector collector;
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&collector] {
        for (int i = 0; i < kEach; ++i) {
          collector.recordHttpRequest("GET", "/" + std::to_string(i % 10), 200, 0.1);
        }
      });
    }
    for (int i = 0; i < 20; ++i) collector.getPrometheusMetrics();
  }
  EXPECT_THAT(
      samples(collector, "tavrel_http_requests_total"),
      Contains("tavrel_http_requests_total{method=\"GET\",path=\"/7\",status=\"200\"} 200"));
  EXPECT_EQ(samples(collector, "tavrel_http_requests_total").size(), 10u);
}

}  // namespace
}  // namespace tavrel::metrics
