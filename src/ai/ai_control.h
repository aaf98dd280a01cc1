#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "ai/ai_decision_service.h"
#include "ai/model_server.h"
#include "cluster/node_info.h"
#include "net/http_client.h"
#include "platform/mutex.h"

namespace tavrel::ai {

/// How this controller itself uses its decision model: the configuration of its own node record,
/// and the service, which exists from the first time the mode is not "none".
///
/// Threads: any; under mu_ only the service's own lock is taken.
class AiControl {
 public:
  /// `http` must outlive this.
  explicit AiControl(net::HttpClient& http) : http_(http) {}

  cluster::AIControlConfig config() const TV_EXCLUDES(mu_);
  /// Replaces the configuration; creates the service if needed and initialises it unless the mode
  /// is "none". Prints what was done.
  void configure(const cluster::AIControlConfig& config) TV_EXCLUDES(mu_);

  /// True when the model decides where chat requests go. Costs one load.
  bool decidesAlone() const { return autonomous_.load(std::memory_order_acquire); }
  /// Null until the mode was anything but "none".
  std::shared_ptr<AIDecisionService> service() const TV_EXCLUDES(mu_);

  /// Sends a prompt to the configured model, whatever the mode.
  Generated ask(const std::string& prompt) const TV_EXCLUDES(mu_);

 private:
  net::HttpClient& http_;
  std::atomic<bool> autonomous_{false};
  mutable platform::Mutex mu_;
  cluster::AIControlConfig config_ TV_GUARDED_BY(mu_);
  std::shared_ptr<AIDecisionService> service_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::ai
