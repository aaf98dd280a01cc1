#include "metrics/metrics_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

namespace tavrel::metrics {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;

const platform::WallTime kStart{std::chrono::seconds(1'700'000'000)};

MetricsDataPoint pointAt(platform::WallTime time, float cpu = 0) {
  MetricsDataPoint point;
  point.timestamp = time;
  point.cpu_usage = cpu;
  return point;
}

TEST(MetricsHistory, KeepsTheNewestPointsOfAWorkerInOrder) {
  MetricsHistory history;
  history.initialize(60, 10);
  for (int i = 0; i < 1000; ++i) {
    history.recordWorkerMetrics("w", pointAt(kStart + i * 5s, static_cast<float>(i)));
    if (i == 5) {  // while the series still grows
      EXPECT_EQ(history.getWorkerHistory("w", 0, 0, kStart).back().cpu_usage, 5);
    }
  }
  const auto points = history.getWorkerHistory("w", 0, 0, kStart);
  ASSERT_EQ(points.size(), 360u);
  for (std::size_t i = 0; i < points.size(); ++i) {
    ASSERT_EQ(points[i].cpu_usage, static_cast<float>(640 + i));
  }
  EXPECT_EQ(history.getLatestWorkerMetrics("w")->cpu_usage, 999);
}

TEST(MetricsHistory, AnswersForTheWindowThatWasAskedFor) {
  MetricsHistory history;
  for (int minute = 0; minute <= 30; ++minute) {
    history.recordWorkerMetrics("w", pointAt(kStart + minute * 1min));
    ClusterMetricsDataPoint cluster;
    cluster.timestamp = kStart + minute * 1min;
    cluster.workers_online = minute;
    history.recordClusterMetrics(cluster);
  }
  const platform::WallTime now = kStart + 30min;
  EXPECT_EQ(history.getWorkerHistory("w", 10, 0, now).size(), 11u) << "the limit belongs to it";
  EXPECT_EQ(history.getWorkerHistory("w", -1, 0, now).size(), 31u);
  EXPECT_EQ(history.getWorkerHistory("w", std::numeric_limits<std::int32_t>::max(), 0, now).size(),
            31u);
  EXPECT_TRUE(history.getWorkerHistory("other", 0, 0, now).empty());
  EXPECT_EQ(history.getClusterHistory(5, now).size(), 6u);
  EXPECT_EQ(history.getLatestClusterMetrics()->workers_online, 30);
  EXPECT_FALSE(history.getLatestWorkerMetrics("other"));
  EXPECT_FALSE(MetricsHistory().getLatestClusterMetrics());
}

TEST(MetricsHistory, MergesAllWorkersPerBucket) {
  MetricsHistory history;
  MetricsDataPoint a = pointAt(kStart + 1s, 50);
  a.memory_usage_percent = 10;
  a.gpu_memory_used = 7;
  a.requests_total = 100;
  a.requests_per_minute = 3;
  a.avg_latency_ms = 100;
  MetricsDataPoint b = pointAt(kStart + 9s, 20);
  b.memory_usage_percent = 30;
  b.gpu_usage = 5;
  b.requests_total = 11;
  b.avg_latency_ms = 0;  // says nothing
  MetricsDataPoint c = pointAt(kStart + 2s, 60);
  c.avg_latency_ms = 50;
  history.recordWorkerMetrics("w1", a);
  history.recordWorkerMetrics("w1", pointAt(kStart + 10s, 1));
  history.recordWorkerMetrics("w2", b);
  history.recordWorkerMetrics("w3", c);

  const auto merged = history.getWorkerHistory("", 0, 10, kStart);
  ASSERT_EQ(merged.size(), 2u);
  EXPECT_EQ(merged[0].timestamp, kStart);
  EXPECT_EQ(merged[0].cpu_usage, 60);
  EXPECT_EQ(merged[0].memory_usage_percent, 30);
  EXPECT_EQ(merged[0].gpu_usage, 5);
  EXPECT_EQ(merged[0].gpu_memory_used, 7u);
  EXPECT_EQ(merged[0].requests_total, 111u);
  EXPECT_EQ(merged[0].requests_per_minute, 3u);
  EXPECT_EQ(merged[0].avg_latency_ms, 75);
  EXPECT_EQ(merged[1].cpu_usage, 1);
  EXPECT_EQ(history.getWorkerHistory("", 0, 0, kStart).size(), 4u) << "whole seconds";
}

TEST(MetricsHistory, AWorkerThatLeftLosesItsSeriesOneRetentionLater) {
  MetricsHistory history;
  history.initialize(60, 10);
  history.recordWorkerMetrics("gone", pointAt(kStart));
  history.recordWorkerMetrics("here", pointAt(kStart));
  history.recordWorkerMetrics("here", pointAt(kStart + 60min));
  ClusterMetricsDataPoint cluster;
  cluster.timestamp = kStart;
  history.recordClusterMetrics(cluster);
  EXPECT_THAT(history.getWorkerIds(), ElementsAre("gone", "here"));

  cluster.timestamp = kStart + 60min + 1ms;
  history.recordClusterMetrics(cluster);
  EXPECT_THAT(history.getWorkerIds(), ElementsAre("here"));
  EXPECT_EQ(history.getStats(), json::parse(R"({"initialized": true, "retention_minutes": 60,
      "sample_interval_seconds": 10, "max_points_per_worker": 360, "workers_tracked": 1,
      "total_worker_data_points": 1, "cluster_data_points": 1})"));
}

TEST(MetricsHistory, OnlyTheFirstInitializationCounts) {
  MetricsHistory history;
  EXPECT_EQ(history.getStats()["initialized"], false);
  testing::internal::CaptureStdout();
  history.initialize(2, 60);
  history.initialize(60, 10);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[MetricsHistory] Initialized with retention=2 minutes, sample_interval=60 seconds "
            "(max 2 data points per worker)\n");
  for (int i = 0; i < 3; ++i) history.recordWorkerMetrics("w", pointAt(kStart));
  EXPECT_EQ(history.getWorkerHistory("w", 0, 0, kStart).size(), 2u);
}

TEST(MetricsHistory, PointsTravelUnderTheirKeys) {
  EXPECT_EQ(pointAt(platform::WallTime(1500ms), 12.5F).toJson(), json::parse(R"({"timestamp":1500,
      "cpu":{"usage":12.5,"cores":0,"temperature":0.0,"load_1m":0.0,"load_5m":0.0,"load_15m":0.0},
      "memory":{"total":0,"used":0,"available":0,"usage_percent":0.0},
      "disk":{"total":0,"used":0,"free":0,"usage_percent":0.0},
      "gpu":{"count":0,"usage":0.0,"memory_total":0,"memory_used":0,"temperature":0.0,"power":0.0},
      "requests":{"total":0,"per_minute":0,"avg_latency_ms":0.0}})"));
}

}  // namespace
}  // namespace tavrel::metrics
