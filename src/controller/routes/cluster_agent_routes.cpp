#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/route_book.h"
#include "cluster/agent_registry.h"
#include "cluster/llm_pool.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "inference/agent_host.h"
#include "platform/json_fields.h"
#include "platform/random.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using platform::readField;

struct LlmPoolRoutes {
  const cluster::LLMPool* pool;

  Response stats() const {
    return pool == nullptr ? notInitialized() : Response::ok(pool->getStats());
  }
  Response models() const {
    if (pool == nullptr) return notInitialized();
    return Response::ok({{"models", pool->getAvailableModels()}});
  }

 private:
  static Response notInitialized() { return Response::error(503, "LLM pool not initialized"); }
};

/// An optional text; empty counts as not given.
void readOptional(const json& body, const char* key, std::optional<std::string>& field) {
  std::string text;
  readField(body, key, text);
  if (!text.empty()) field = std::move(text);
}

struct AgentRoutes {
  cluster::AgentRegistry* agents;
  const inference::AgentHost& host;

  Response stats() const {
    return agents == nullptr ? notInitialized() : Response::ok(agents->getStats());
  }

  Response list() const {
    if (agents == nullptr) return notInitialized();
    return Response::ok(platform::jsonArray(agents->getAllAgents()));
  }

  Response registerAgent(const Request& req) const {
    if (agents == nullptr) return notInitialized();
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    cluster::RemoteAgent agent;
    readField(body, "id", agent.id);
    readField(body, "name", agent.name);
    agent.type = static_cast<cluster::AgentType>(platform::jsonNumberOr(body, "type", 0));
    readField(body, "agent_type_id", agent.agent_type_id);
    readField(body, "node_id", agent.node_id);
    readField(body, "model", agent.model);
    readField(body, "allowed_tools", agent.allowed_tools);
    readField(body, "max_concurrent_tasks", agent.max_concurrent_tasks);
    if (agent.id.empty()) return Response::error(400, "Agent id is required");
    if (!agents->registerAgent(agent)) return Response::error(503, "No room for this agent");
    return Response::ok({{"success", true}, {"agent_id", agent.id}});
  }

  Response invoke(const Request& req) const {
    if (agents == nullptr) return notInitialized();
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    cluster::AgentInvocation invocation;
    invocation.invocation_id = platform::generateUUID();
    readOptional(body, "agent_id", invocation.agent_id);
    readField(body, "prompt", invocation.prompt);
    readField(body, "context", invocation.context);
    readField(body, "parameters", invocation.parameters);
    readField(body, "max_iterations", invocation.max_iterations);
    readField(body, "timeout_ms", invocation.timeout_ms);
    readOptional(body, "session_id", invocation.session_id);
    readField(body, "metadata", invocation.metadata);
    invocation.preferred_type =
        static_cast<cluster::AgentType>(platform::jsonNumberOr(body, "preferred_type", 0));
    const cluster::AgentResult result = agents->invoke(invocation);
    return Response::ok({{"invocation_id", invocation.invocation_id},
                         {"agent_id", result.agent_id},
                         {"success", result.success},
                         {"response", result.response},
                         {"error", result.error},
                         {"iterations", result.iterations},
                         {"total_time_ms", result.total_time_ms}});
  }

  /// This controller as the host of an agent.
  Response runHere(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    std::string model = inference::AgentHost::kDefaultModel;
    std::string prompt;
    std::string agent_type = "general";
    readField(*req.json(), "model", model);
    readField(*req.json(), "prompt", prompt);
    readField(*req.json(), "agent_type", agent_type);
    if (prompt.empty()) return Response::error(400, "prompt is required");
    return Response::ok(host.run(agent_type, model, prompt));
  }

 private:
  static Response notInitialized() {
    return Response::error(503, "Agent registry not initialized");
  }
};

}  // namespace

void addClusterAgentRoutes(api::RouteBook& book, const cluster::LLMPool* llm_pool,
                           cluster::AgentRegistry* agents, const inference::AgentHost& host) {
  const LlmPoolRoutes l{llm_pool};
  book.get("/api/v1/cluster/llm/stats", [l](auto&, auto&) { return l.stats(); });
  book.get("/api/v1/cluster/llm/models", [l](auto&, auto&) { return l.models(); });

  const AgentRoutes a{agents, host};
  book.get("/api/v1/cluster/agents/stats", [a](auto&, auto&) { return a.stats(); });
  book.get("/api/v1/cluster/agents", [a](auto&, auto&) { return a.list(); });
  book.post("/api/v1/cluster/agents/register",
            [a](auto&, auto& req) { return a.registerAgent(req); });
  book.post("/api/v1/cluster/agents/invoke", [a](auto&, auto& req) { return a.invoke(req); });
  book.post("/agent/invoke", [a](auto&, auto& req) { return a.runHere(req); });
}

}  // namespace tavrel::controller
