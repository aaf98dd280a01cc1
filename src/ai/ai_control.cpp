#include "ai/ai_control.h"

#include "platform/console.h"
#include "platform/text.h"

namespace tavrel::ai {

cluster::AIControlConfig AiControl::config() const {
  platform::MutexLock lock(mu_);
  return config_;
}

std::shared_ptr<AIDecisionService> AiControl::service() const {
  platform::MutexLock lock(mu_);
  return service_;
}

void AiControl::configure(const cluster::AIControlConfig& config) {
  const bool in_use = config.mode != cluster::AIControlMode::kNone;
  {
    platform::MutexLock lock(mu_);
    config_ = config;
    if (in_use) {
      if (service_ == nullptr) service_ = std::make_shared<AIDecisionService>(http_);
      service_->initialize(config);
    }
    autonomous_.store(config.mode == cluster::AIControlMode::kAutonomous,
                      std::memory_order_release);
  }
  if (in_use) {
    platform::printLine(
        platform::singleLine("[AI] Initialized AI decision service with model: " + config.model));
  }
  platform::printLine(platform::singleLine(
      "[AI] Updated AI control config: mode=" + cluster::aiControlModeToString(config.mode) +
      ", model=" + config.model));
}

Generated AiControl::ask(const std::string& prompt) const {
  const cluster::AIControlConfig settings = config();
  return generate(http_,
                  {.base_url = settings.ollama_url,
                   .model = settings.model,
                   .prompt = prompt,
                   .temperature = settings.temperature > 0 ? settings.temperature
                                                           : AIDecisionService::kDefaultTemperature,
                   .max_tokens = AIDecisionService::kMaxTokens,
                   .timeout = decisionTimeout(settings.decision_timeout_ms)});
}

}  // namespace tavrel::ai
