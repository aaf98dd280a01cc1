#include "inference/openai_metrics.h"

namespace tavrel::inference {

namespace {

constexpr const char* kRequests = "tavrel_gateway_requests_total";
constexpr const char* kRetries = "tavrel_gateway_retries_total";
constexpr const char* kClientGone = "tavrel_gateway_client_gone_total";
constexpr const char* kFirstByte = "tavrel_gateway_time_to_first_byte_seconds";
constexpr const char* kPassedOver = "tavrel_gateway_workers_passed_over";

std::string outcomeName(OpenAiOutcome outcome) {
  switch (outcome) {
    case OpenAiOutcome::kOk:
      return "ok";
    case OpenAiOutcome::kRefused:
      return "refused";
    case OpenAiOutcome::kBackPressure:
      return "back_pressure";
    case OpenAiOutcome::kWorkerFault:
      return "worker_fault";
    case OpenAiOutcome::kClientGone:
      break;
  }
  return "client_gone";
}

}  // namespace

void OpenAiMetrics::registerFamilies() {
  std::call_once(registered_, [this] {
    collector_.registerCounter(kRequests, "Total number of OpenAI API requests, by how they ended",
                               {"endpoint", "outcome"});
    collector_.registerCounter(kRetries, "Total number of requests tried again at another worker",
                               {});
    collector_.registerCounter(kClientGone, "Total number of requests whose client left early", {});
    collector_.registerHistogram(
        kFirstByte, "Time until the worker's answer began in seconds", {"endpoint"},
        {0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60, 120});
    collector_.registerGauge(kPassedOver, "Number of workers passed over because they keep failing",
                             {});
  });
}

void OpenAiMetrics::firstByte(OpenAiEndpoint endpoint, double seconds) {
  registerFamilies();
  collector_.histogramObserve(kFirstByte, seconds,
                              {{"endpoint", std::string(openAiName(endpoint))}});
}

void OpenAiMetrics::retried() {
  registerFamilies();
  collector_.counterInc(kRetries, {});
}

void OpenAiMetrics::ended(OpenAiEndpoint endpoint, OpenAiOutcome outcome) {
  registerFamilies();
  collector_.counterInc(kRequests, {{"endpoint", std::string(openAiName(endpoint))},
                                    {"outcome", outcomeName(outcome)}});
  if (outcome == OpenAiOutcome::kClientGone) collector_.counterInc(kClientGone, {});
}

void OpenAiMetrics::inferred(const std::string& model, const std::string& backend,
                             OpenAiUsage usage, double seconds) {
  collector_.recordLlmInference(model, backend, usage.prompt_tokens, usage.completion_tokens,
                                seconds);
}

void OpenAiMetrics::passedOver(std::size_t workers) {
  if (passed_over_.exchange(workers) == workers) return;
  registerFamilies();
  collector_.gaugeSet(kPassedOver, static_cast<double>(workers), {});
}

}  // namespace tavrel::inference
