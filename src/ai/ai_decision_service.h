#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/node_info.h"
#include "net/http_client.h"
#include "platform/mutex.h"

namespace tavrel::ai {

/// One worker that a job could go to.
struct RoutingTarget {
  std::string id;
  double load = 0;  ///< 0 idle to 1 full
  std::int32_t latency_ms = 0;
  std::vector<std::string> capabilities;
  bool available = true;
};

/// What was decided, and how sure the decider is.
struct AIDecision {
  std::string decision_type;  ///< "select_worker", "fallback_least_load" or "fallback"
  std::string target_id;      ///< empty: nobody
  float confidence = 0;       ///< 0 to 1
  std::string reasoning;
  std::int32_t latency_ms = 0;
};

/// Asks a small language model which worker should take a job. When the model cannot be asked or
/// makes no sense, a rule decides instead: there is a target whenever there is a candidate.
///
/// Threads: any; a selection works on the settings as they were when it began. Calls block for at
/// most the configured time. Failure: never throws for what the model says.
class AIDecisionService {
 public:
  /// A worker at this load or above is not a candidate.
  static constexpr double kFullLoad = 0.95;
  static constexpr std::chrono::milliseconds kDefaultTimeout{5000};
  static constexpr float kDefaultTemperature = 0.3F;
  static constexpr std::int32_t kMaxTokens = 256;

  /// `http` must outlive this.
  explicit AIDecisionService(net::HttpClient& http) : http_(http) {}

  /// Takes over model, URL and timeout; the temperature only when it is above 0.
  void initialize(const cluster::AIControlConfig& config) TV_EXCLUDES(mu_);
  void setModel(std::string model) TV_EXCLUDES(mu_);
  void setOllamaUrl(std::string url) TV_EXCLUDES(mu_);
  /// 0 and less stand for kDefaultTimeout.
  void setTimeout(std::int32_t milliseconds) TV_EXCLUDES(mu_);
  void setTemperature(float temperature) TV_EXCLUDES(mu_);
  /// From now on no model is asked: every selection falls back to the least loaded candidate.
  void shutdown() TV_EXCLUDES(mu_);

  AIDecision selectWorker(const std::string& job_type, const std::vector<RoutingTarget>& targets);

  static std::string buildWorkerSelectionPrompt(const std::string& job_type,
                                                const std::vector<RoutingTarget>& candidates);
  /// The model's reply, "" when there is none.
  std::string callOllama(const std::string& prompt) TV_EXCLUDES(mu_);
  /// `candidates` must not be empty.
  static AIDecision parseDecision(std::string_view reply,
                                  const std::vector<RoutingTarget>& candidates);

 private:
  struct Settings {
    std::string model = cluster::kDefaultDecisionModel;
    std::string url = cluster::kDefaultDecisionUrl;
    std::chrono::milliseconds timeout = kDefaultTimeout;
    float temperature = kDefaultTemperature;
    bool shut_down = false;
  };

  net::HttpClient& http_;
  platform::Mutex mu_;
  Settings settings_ TV_GUARDED_BY(mu_);
};

/// The time a decision may take: `decision_timeout_ms` as configured, 0 and less meaning 5 s.
std::chrono::milliseconds decisionTimeout(std::int32_t decision_timeout_ms);

}  // namespace tavrel::ai
