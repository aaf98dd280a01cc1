#include "cluster/agent_registry.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::MutexLock;

namespace {

constexpr const char* kTypeNames[] = {"general", "coder",    "explorer", "planner", "searcher",
                                      "runner",  "database", "network",  "learner"};

std::optional<RemoteAgent> lessLoaded(std::optional<RemoteAgent> best, RemoteAgent other) {
  if (!best || other.load < best->load) return other;
  return best;
}

std::size_t textBytes(const RemoteAgent& agent) {
  std::size_t size = agent.id.size() + agent.name.size() + agent.agent_type_id.size() +
                     agent.node_id.size() + agent.model.size();
  for (const std::string& tool : agent.allowed_tools) size += tool.size() + sizeof tool;
  return size;
}

void readAnswer(const ClusterAnswer& answer, AgentResult& result) {
  try {
    const json body = platform::parseForeignJson(answer.body);
    platform::readField(body, "success", result.success);
    platform::readField(body, "response", result.response);
    platform::readField(body, "tool_calls", result.tool_calls);
    platform::readField(body, "iterations", result.iterations);
    platform::readField(body, "error", result.error);
  } catch (const std::exception& error) {
    result = {};
    result.error = std::string("Failed to parse response: ") + error.what();
  }
  if (answer.status == 200) return;
  result.success = false;
  if (result.error.empty()) result.error = "HTTP " + std::to_string(answer.status);
}

}  // namespace

std::string agentTypeToString(AgentType type) {
  const auto number = static_cast<std::int32_t>(type);
  if (number < 0 || number >= static_cast<std::int32_t>(std::size(kTypeNames))) return "unknown";
  return kTypeNames[number];
}

json RemoteAgent::toJson() const {
  return {{"id", id},
          {"name", name},
          {"type", static_cast<std::int32_t>(type)},
          {"agent_type_id", agent_type_id},
          {"node_id", node_id},
          {"available", available},
          {"active_tasks", active_tasks},
          {"model", model}};
}

RemoteAgent AgentRegistry::Entry::current() const {
  constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
  const std::int64_t tasks = std::max(agent.active_tasks, 0) + std::int64_t{in_flight};
  RemoteAgent now = agent;
  now.active_tasks = static_cast<std::int32_t>(std::min(tasks, kMost));
  now.available = agent.available && now.active_tasks < agent.max_concurrent_tasks;
  now.load = static_cast<double>(tasks) / std::max(agent.max_concurrent_tasks, 1);
  return now;
}

bool AgentRegistry::registerAgent(const RemoteAgent& agent) {
  {
    const MutexLock lock(mu_);
    if (textBytes(agent) > kMaxAgentBytes) return false;
    if (agents_.size() >= kMaxAgents && !agents_.contains(agent.id)) return false;
    agents_[agent.id].agent = agent;
  }
  platform::printLine("[AgentRegistry] Registered agent: " + platform::singleLine(agent.name) +
                      " (type: " + agentTypeToString(agent.type) + ")");
  for (const Callback& callback : registered_) callback(agent);
  return true;
}

bool AgentRegistry::unregisterAgent(const std::string& id) {
  RemoteAgent agent;
  {
    const MutexLock lock(mu_);
    const auto place = agents_.find(id);
    if (place == agents_.end()) return false;
    agent = place->second.current();
    agents_.erase(place);
    std::erase_if(sessions_, [&](const auto& session) { return session.second == id; });
  }
  for (const Callback& callback : unregistered_) callback(agent);
  return true;
}

std::optional<RemoteAgent> AgentRegistry::getAgent(const std::string& id) const {
  const MutexLock lock(mu_);
  const auto place = agents_.find(id);
  if (place == agents_.end()) return std::nullopt;
  return place->second.current();
}

std::vector<RemoteAgent> AgentRegistry::getAllAgents() const {
  return agentsThat([](const RemoteAgent&) { return true; });
}

template <class Wanted>
std::vector<RemoteAgent> AgentRegistry::agentsThat(Wanted wanted) const {
  std::vector<RemoteAgent> agents;
  const MutexLock lock(mu_);
  for (const auto& [id, entry] : agents_) {
    RemoteAgent agent = entry.current();
    if (wanted(agent)) agents.push_back(std::move(agent));
  }
  return agents;
}

std::vector<RemoteAgent> AgentRegistry::getAgentsByNode(const std::string& node_id) const {
  return agentsThat([&](const RemoteAgent& agent) { return agent.node_id == node_id; });
}

std::vector<RemoteAgent> AgentRegistry::getAgentsByType(AgentType type) const {
  return agentsThat([type](const RemoteAgent& agent) { return agent.type == type; });
}

std::vector<RemoteAgent> AgentRegistry::getAvailableAgents() const {
  return agentsThat([](const RemoteAgent& agent) { return agent.available; });
}

std::size_t AgentRegistry::getAgentCount() const {
  const MutexLock lock(mu_);
  return agents_.size();
}

std::size_t AgentRegistry::getAvailableAgentCount() const {
  return getAvailableAgents().size();
}

bool AgentRegistry::updateAgentStatus(const std::string& id, bool available,
                                      std::int32_t active_tasks) {
  const MutexLock lock(mu_);
  const auto place = agents_.find(id);
  if (place == agents_.end()) return false;
  place->second.agent.available = available;
  place->second.agent.active_tasks = active_tasks;
  return true;
}

std::optional<RemoteAgent> AgentRegistry::selectAgent(AgentType type) const {
  const MutexLock lock(mu_);
  return selectLocked(type);
}

std::optional<RemoteAgent> AgentRegistry::selectLocked(AgentType type) const {
  std::optional<RemoteAgent> best;
  for (const auto& [id, entry] : agents_) {
    if (entry.agent.type != type) continue;
    RemoteAgent agent = entry.current();
    if (agent.available) best = lessLoaded(std::move(best), std::move(agent));
  }
  return best;
}

std::optional<RemoteAgent> AgentRegistry::selectAgentForSession(const std::string& session_id,
                                                                AgentType type) {
  const MutexLock lock(mu_);
  return selectForSessionLocked(session_id, type);
}

std::optional<RemoteAgent> AgentRegistry::selectForSessionLocked(const std::string& session_id,
                                                                 AgentType type) {
  const auto session = sessions_.find(session_id);
  if (session != sessions_.end()) {
    const auto known = agents_.find(session->second);
    if (known != agents_.end()) {
      RemoteAgent agent = known->second.current();
      if (agent.available) return agent;
    }
  }
  std::optional<RemoteAgent> agent = selectLocked(type);
  const bool has_room = sessions_.size() < kMaxSessions && session_id.size() <= kMaxIdBytes;
  if (agent && (session != sessions_.end() || has_room)) {
    sessions_[session_id] = agent->id;
  }
  return agent;
}

std::string AgentRegistry::claim(const AgentInvocation& invocation, RemoteAgent& agent) {
  const AgentType type = invocation.preferred_type;
  const MutexLock lock(mu_);
  std::optional<RemoteAgent> chosen;
  if (invocation.agent_id) {
    const auto named = agents_.find(*invocation.agent_id);
    if (named != agents_.end()) chosen = named->second.current();
  } else {
    chosen = invocation.session_id ? selectForSessionLocked(*invocation.session_id, type)
                                   : selectLocked(type);
  }
  if (!chosen) return "No available agent for type: " + agentTypeToString(type);
  agent = std::move(*chosen);
  ++agents_[agent.id].in_flight;
  return "";
}

void AgentRegistry::release(const std::string& id) {
  const MutexLock lock(mu_);
  const auto place = agents_.find(id);
  if (place == agents_.end()) return;  // removed meanwhile
  place->second.in_flight = std::max(place->second.in_flight - 1, 0);
}

AgentResult AgentRegistry::invoke(const AgentInvocation& invocation) {
  ++total_invocations_;
  AgentResult result;
  RemoteAgent agent;
  result.error = claim(invocation, agent);
  if (!result.error.empty()) return result;
  const platform::SteadyTime start = platform::steadyNow();
  result = sendToAgent(agent, invocation);
  release(agent.id);
  result.agent_id = agent.id;
  result.total_time_ms = platform::millisecondsSince(start);
  if (result.success) ++successful_invocations_;
  return result;
}

AgentResult AgentRegistry::sendToAgent(const RemoteAgent& agent,
                                       const AgentInvocation& invocation) const {
  AgentResult result;
  const NodePtr node = registry_.getNode(agent.node_id);
  if (node == nullptr) {
    result.error = "Agent node not found: " + agent.node_id;
    return result;
  }
  const std::int32_t timeout_ms =
      invocation.timeout_ms < 1 ? AgentInvocation::kDefaultTimeoutMs : invocation.timeout_ms;
  ClusterCall call;
  call.to = {node->address, node->port};
  call.path = "/agent/invoke";
  call.body = platform::dumpJson({{"invocation_id", invocation.invocation_id},
                                  {"agent_id", agent.id},
                                  {"prompt", invocation.prompt},
                                  {"context", invocation.context},
                                  {"parameters", invocation.parameters},
                                  {"max_iterations", invocation.max_iterations},
                                  {"timeout_ms", timeout_ms},
                                  {"metadata", invocation.metadata}});
  call.total = std::chrono::milliseconds(timeout_ms);
  call.connect = std::min(kConnectTimeout, call.total);
  const ClusterAnswer answer = transport_.send(call);
  if (!answer.error.empty()) {
    result.error = answer.error;
    return result;
  }
  readAnswer(answer, result);
  return result;
}

json AgentRegistry::getStats() const {
  std::size_t available = 0;
  json by_type = json::object();
  const std::vector<RemoteAgent> agents = getAllAgents();
  for (const RemoteAgent& agent : agents) {
    if (agent.available) ++available;
    json& count = by_type[agentTypeToString(agent.type)];
    count = count.is_null() ? 1 : count.get<int>() + 1;
  }
  const MutexLock lock(mu_);
  return {{"total_agents", agents.size()},
          {"available_agents", available},
          {"agents_by_type", std::move(by_type)},
          {"total_invocations", total_invocations_.load()},
          {"successful_invocations", successful_invocations_.load()},
          {"active_sessions", sessions_.size()}};
}

}  // namespace tavrel::cluster
