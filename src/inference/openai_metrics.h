#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>

#include "inference/openai_request.h"
#include "inference/openai_usage.h"
#include "metrics/metrics_collector.h"

namespace tavrel::inference {

/// How a request of the OpenAI surface ended, for the metric of that name.
enum class OpenAiOutcome {
  kOk,
  kRefused,       ///< the request itself was at fault: 4xx
  kBackPressure,  ///< no worker had room: 429 or 503
  kWorkerFault,   ///< 5xx, or a stream that broke off
  kClientGone,
};

/// What the OpenAI surface counts. Its families appear with the first request: before, a scrape
/// shows the controller's fixed ones only.
/// Threads: any. `collector` must outlive it.
class OpenAiMetrics {
 public:
  explicit OpenAiMetrics(metrics::MetricsCollector& collector) : collector_(collector) {}

  void firstByte(OpenAiEndpoint endpoint, double seconds);
  void retried();
  void ended(OpenAiEndpoint endpoint, OpenAiOutcome outcome);
  /// A request that a worker or the local model server (`backend`) did.
  void inferred(const std::string& model, const std::string& backend, OpenAiUsage usage,
                double seconds);
  void passedOver(std::size_t workers);  ///< how many now; 0 from the start on

 private:
  void registerFamilies();

  metrics::MetricsCollector& collector_;
  std::once_flag registered_;
  std::atomic<std::size_t> passed_over_{0};
};

}  // namespace tavrel::inference
