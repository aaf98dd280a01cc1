#include "ai/ai_decision_service.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "ai/model_server.h"
#include "platform/clock.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::ai {
namespace {

std::vector<RoutingTarget> candidatesAmong(const std::vector<RoutingTarget>& targets) {
  std::vector<RoutingTarget> candidates;
  for (const RoutingTarget& target : targets) {
    if (target.available && target.load < AIDecisionService::kFullLoad)
      candidates.push_back(target);
  }
  return candidates;
}

AIDecision leastLoaded(const std::vector<RoutingTarget>& candidates) {
  const auto best = std::min_element(candidates.begin(), candidates.end(),
                                     [](const auto& a, const auto& b) { return a.load < b.load; });
  return {.decision_type = "fallback_least_load",
          .target_id = best->id,
          .confidence = 0.6F,
          .reasoning = "LLM unavailable, selected least loaded worker"};
}

/// What lies between the first "{" and the last "}"; all of it when there is no such pair.
std::string_view outermostObject(std::string_view reply) {
  const auto begin = reply.find('{');
  const auto end = reply.rfind('}');
  if (begin == std::string_view::npos || end == std::string_view::npos || end < begin) return reply;
  return reply.substr(begin, end - begin + 1);
}

float confidenceOf(const nlohmann::json& object) {
  const nlohmann::json* value = platform::jsonMember(object, "confidence");
  if (value == nullptr || !value->is_number()) return 0.5F;
  return std::clamp(platform::jsonNumber<float>(*value), 0.0F, 1.0F);
}

AIDecision readDecision(const nlohmann::json& reply) {
  AIDecision decision;
  decision.decision_type = "select_worker";
  decision.target_id = platform::textMember(reply, "worker_id");
  if (decision.target_id.empty()) decision.target_id = platform::textMember(reply, "target_id");
  decision.confidence = confidenceOf(reply);
  decision.reasoning = platform::textMember(reply, "reasoning");
  return decision;
}

}  // namespace

std::chrono::milliseconds decisionTimeout(std::int32_t decision_timeout_ms) {
  if (decision_timeout_ms <= 0) return AIDecisionService::kDefaultTimeout;
  return std::chrono::milliseconds(decision_timeout_ms);
}

void AIDecisionService::initialize(const cluster::AIControlConfig& config) {
  platform::MutexLock lock(mu_);
  settings_.model = config.model;
  settings_.url = config.ollama_url;
  settings_.timeout = decisionTimeout(config.decision_timeout_ms);
  if (config.temperature > 0) settings_.temperature = config.temperature;
  settings_.shut_down = false;
}

void AIDecisionService::setModel(std::string model) {
  platform::MutexLock lock(mu_);
  settings_.model = std::move(model);
}

void AIDecisionService::setOllamaUrl(std::string url) {
  platform::MutexLock lock(mu_);
  settings_.url = std::move(url);
}

void AIDecisionService::setTimeout(std::int32_t milliseconds) {
  platform::MutexLock lock(mu_);
  settings_.timeout = decisionTimeout(milliseconds);
}

void AIDecisionService::setTemperature(float temperature) {
  platform::MutexLock lock(mu_);
  settings_.temperature = temperature;
}

void AIDecisionService::shutdown() {
  platform::MutexLock lock(mu_);
  settings_.shut_down = true;
}

AIDecision AIDecisionService::selectWorker(const std::string& job_type,
                                           const std::vector<RoutingTarget>& targets) {
  const auto start = platform::steadyNow();
  const auto candidates = candidatesAmong(targets);
  AIDecision decision;
  if (candidates.empty()) {
    decision.reasoning = "No available workers";
  } else {
    const std::string reply = callOllama(buildWorkerSelectionPrompt(job_type, candidates));
    decision = reply.empty() ? leastLoaded(candidates) : parseDecision(reply, candidates);
  }
  decision.latency_ms = static_cast<std::int32_t>(platform::millisecondsSince(start));
  return decision;
}

std::string AIDecisionService::buildWorkerSelectionPrompt(
    const std::string& job_type, const std::vector<RoutingTarget>& candidates) {
  std::ostringstream prompt;
  prompt << "You are a load balancer AI. Select the best worker for a " << job_type << " job.\n\n"
         << "AVAILABLE WORKERS:\n";
  int number = 0;
  for (const RoutingTarget& candidate : candidates) {
    prompt << ++number << ". " << candidate.id << "\n"
           << "   - Load: " << candidate.load * 100 << "%\n"
           << "   - Latency: " << candidate.latency_ms << "ms\n"
           << "   - Capabilities: ";
    const char* separator = "";
    for (const std::string& capability : candidate.capabilities) {
      prompt << separator << capability;
      separator = ", ";
    }
    prompt << "\n";
  }
  prompt << "\nConsider: load balance, latency, and capability match.\n"
         << "Respond with ONLY: {\"worker_id\": \"<id>\", \"confidence\": <0-1>, "
            "\"reasoning\": \"<brief>\"}";
  return prompt.str();
}

std::string AIDecisionService::callOllama(const std::string& prompt) {
  Settings settings;
  {
    platform::MutexLock lock(mu_);
    settings = settings_;
  }
  if (settings.shut_down) return {};
  return generate(http_, {.base_url = settings.url,
                          .model = settings.model,
                          .prompt = prompt,
                          .temperature = settings.temperature,
                          .max_tokens = kMaxTokens,
                          .timeout = settings.timeout})
      .text;
}

AIDecision AIDecisionService::parseDecision(std::string_view reply,
                                            const std::vector<RoutingTarget>& candidates) {
  AIDecision decision;
  try {
    decision = readDecision(platform::parseForeignJson(outermostObject(reply)));
  } catch (const std::exception& error) {
    return {.decision_type = "fallback",
            .target_id = candidates.front().id,
            .confidence = 0.3F,
            .reasoning = std::string("Parse error: ") + error.what()};
  }
  const auto named = [&](const RoutingTarget& target) { return target.id == decision.target_id; };
  if (std::any_of(candidates.begin(), candidates.end(), named)) return decision;
  const auto first = std::find_if(candidates.begin(), candidates.end(),
                                  [](const RoutingTarget& target) { return target.available; });
  if (first != candidates.end()) {
    decision.target_id = first->id;
    decision.confidence = 0.5F;
    decision.reasoning = "Fallback: LLM selected invalid target";
  }
  return decision;
}

}  // namespace tavrel::ai
