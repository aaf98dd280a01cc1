#include "inference/chat_proxy.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "inference/science_context.h"
#include "inference/worker_answer.h"
#include "platform/console.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::inference {
namespace {

constexpr std::string_view kWorkerPath = "/v1/chat/completions";
constexpr std::string_view kStreamEnd = "data: [DONE]\n\n";

ChatReply failure(int status, std::string error) {
  return {.status = status, .body = {}, .error = std::move(error)};
}

void print(const std::string& line) {
  platform::printLine(platform::singleLine(line));
}

/// A number as a reader would write it: no trailing zeros.
std::string shortNumber(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

std::string hostOf(const worker::WorkerInfo& worker) {
  return worker.ip_address + ":" + std::to_string(worker.port);
}

/// The worker as the decision model sees it.
ai::RoutingTarget targetFor(const worker::WorkerInfo& worker, const std::string& model) {
  ai::RoutingTarget target;
  target.id = worker.worker_id;
  target.load = std::clamp(static_cast<double>(worker.metrics.cpu_usage) / 100, 0.0, 1.0);
  for (const worker::RunningModel& running : worker.running_models) {
    if (running.name == model) {
      target.latency_ms = static_cast<std::int32_t>(std::clamp(running.avg_latency_ms, 0.0F, 1e9F));
    }
  }
  target.capabilities = worker.capabilities.available_backends;
  if (worker.capabilities.has_gpu) target.capabilities.emplace_back("gpu");
  return target;
}

void writeStreamError(const ChatProxy::Write& write, std::string_view message) {
  std::string event = "data: {\"error\":";
  platform::appendJsonString(event, message);
  event.append("}\n\n").append(kStreamEnd);
  write(event);
}

/// What a stream is asked for; nothing when it cannot be, which the client has then been told.
std::optional<ChatRequest> readStreamRequest(const nlohmann::json* body,
                                             const ChatProxy::Write& write) {
  std::string error;
  try {
    if (body == nullptr) {
      error = "Invalid JSON body";
    } else if (asksForEnsemble(*body)) {
      error =
          "Ensemble mode does not support streaming. Use the non-streaming "
          "/api/v1/chat/completions endpoint instead.";
    } else if (chatMessages(*body) == nullptr) {
      error = "messages array is required";
    } else {
      return ChatRequest::read(*body);
    }
  } catch (const nlohmann::json::type_error&) {
    error = "A member of the request has the wrong type";
  }
  writeStreamError(write, error);
  return std::nullopt;
}

}  // namespace

ChatProxy::ChatProxy(ChatServices services, ChatTimeouts timeouts)
    : services_(std::move(services)), timeouts_(timeouts), selector_(services_.workers) {}

ChatReply ChatProxy::complete(const nlohmann::json& body, const std::string& raw_body,
                              const ChatCaller& caller) {
  const auto start = platform::steadyNow();
  if (asksForEnsemble(body)) return askEnsemble(raw_body);
  const nlohmann::json* messages = chatMessages(body);
  if (messages == nullptr) return failure(400, "messages array is required");
  ChatRequest request = ChatRequest::read(body);

  const std::optional<Routing> by_expert = applyExperts(request, *messages);
  Routing routing;
  const worker::WorkerPtr worker = chooseWorker(request.model, routing);
  const std::string decided = routing.by_decision_model ? " - AI: " + routing.reason : "";
  if (by_expert) routing = *by_expert;
  if (worker == nullptr) return answerLocally(request, routing, caller, start);
  print("[Router] Request routed to " + worker->worker_id + " (" + hostOf(*worker) + ") using " +
        routing.strategy + decided);
  return forward(*worker, request, routing, caller, start);
}

ChatReply ChatProxy::askEnsemble(const std::string& raw_body) const {
  const auto router = services_.routers.firstHealthy();
  if (!router) return failure(503, "No healthy router available for ensemble mode");
  const std::string url = router->baseUrl();
  print("[Ensemble] Forwarding ensemble request to router at " +
        url.substr(std::min(url.size(), std::string_view("http://").size())));
  const net::HttpResult result = services_.http.postJson(
      url + std::string(kWorkerPath), raw_body, {timeouts_.router_connect, timeouts_.router});
  if (result.status != 200 || !result.transport_error.empty()) {
    print("[Ensemble] Router request failed: HTTP " + std::to_string(result.status) +
          ", curl code " + std::to_string(result.transport_code));
    return failure(502, "Router ensemble request failed");
  }
  if (!nlohmann::json::accept(result.body)) return failure(502, "Router ensemble request failed");
  return {.status = 200, .body = result.body, .error = {}};
}

std::optional<ChatProxy::Routing> ChatProxy::applyExperts(ChatRequest& request,
                                                          const nlohmann::json& messages) {
  if (!services_.experts.enabled()) return std::nullopt;
  const std::string question = lastUserText(messages);
  const auto expert = services_.experts.chooseForChat(question);
  if (!expert) return std::nullopt;

  const std::string score = "(score=" + std::to_string(expert->score) + ")";
  std::optional<Routing> routing =
      Routing{.strategy = "moe_routing", .reason = "MoE expert: " + expert->id + " " + score};
  const std::string matched = "[MoE] Query matched expert '" + expert->id + "' " + score;
  if (expert->model == request.model) {
    print(matched + ", keeping model: " + request.model);
  } else if (services_.workers.modelAvailable(expert->model)) {
    print(matched + ", model override: " + request.model + " -> " + expert->model);
    request.model = expert->model;
  } else {
    print("[MoE] No worker has expert model '" + expert->model +
          "', falling back to original model '" + request.model + "'");
    routing.reset();
  }
  if (wantsScience(expert->categories)) {
    const std::string url = services_.science_worker_url();
    const std::string context =
        url.empty() ? std::string() : scienceContext(services_.http, url, question);
    if (!context.empty()) request.prependSystemMessage(context);
  }
  return routing;
}

worker::WorkerPtr ChatProxy::chooseWorker(const std::string& model, Routing& routing) {
  if (services_.ai_control.decidesAlone()) {
    if (auto worker = askDecisionModel(model, routing)) return worker;
  }
  auto choice = selector_.select(model);
  if (!choice) {
    routing.strategy = "local";
    return nullptr;
  }
  routing.strategy = choice->strategy == LoadStrategy::kRoundRobin ? "round_robin" : "load_based";
  return std::move(choice->worker);
}

worker::WorkerPtr ChatProxy::askDecisionModel(const std::string& model, Routing& routing) {
  const auto service = services_.ai_control.service();
  const auto candidates = selector_.candidates(model);
  if (service == nullptr || candidates.empty()) return nullptr;
  std::vector<ai::RoutingTarget> targets;
  targets.reserve(candidates.size());
  for (const auto& candidate : candidates) targets.push_back(targetFor(*candidate, model));

  const ai::AIDecision decision = service->selectWorker("chat", targets);
  const auto chosen =
      std::find_if(candidates.begin(), candidates.end(), [&](const worker::WorkerPtr& candidate) {
        return candidate->worker_id == decision.target_id;
      });
  if (chosen == candidates.end()) {
    platform::printLine("[AI Routing] Decision failed, falling back to load-based");
    return nullptr;
  }
  print("[AI Routing] Selected worker " + decision.target_id + " (confidence: " +
        shortNumber(decision.confidence) + ", reason: " + decision.reasoning + ")");
  routing = {.strategy = "ai_routing", .reason = decision.reasoning, .by_decision_model = true};
  selector_.countRouted(decision.target_id);
  return *chosen;
}

ChatReply ChatProxy::forward(const worker::WorkerInfo& worker, const ChatRequest& request,
                             const Routing& routing, const ChatCaller& caller,
                             platform::SteadyTime start) {
  const std::string host = hostOf(worker);
  const net::WorkerAddress address{worker.ip_address, worker.port};
  net::WorkerConnection connection(caller.client_descriptor);
  if (connection.connect(address, timeouts_.worker) != net::WorkerIo::kOk) {
    return failure(503, "Failed to connect to worker " + host);
  }
  const std::string body = request.workerBody(/*stream=*/false);
  if (connection.send(net::workerPostHead(address, kWorkerPath, body.size(), /*keep_alive=*/false),
                      body, timeouts_.worker) != net::WorkerIo::kOk) {
    return failure(500, "Failed to send request to worker");
  }
  net::HttpResponseHead head;
  if (connection.readHead(head, timeouts_.worker) != net::WorkerIo::kOk) {
    return failure(500, "Invalid response from worker");
  }
  // An answer that breaks off is judged by what arrived: it may be complete JSON all the same.
  std::string reply;
  if (connection.readWholeBody(reply, kMaxWorkerAnswerBytes, timeouts_.worker) ==
      net::WorkerIo::kTooLarge) {
    return failure(500, "Failed to parse worker response: the answer is too large");
  }
  WorkerAnswer answer;
  try {
    answer = parseWorkerAnswer(reply);
  } catch (const std::exception& error) {
    return failure(500, std::string("Failed to parse worker response: ") + error.what());
  }
  services_.metrics.recordLlmInference(
      request.model, worker.backend_type.empty() ? "unknown" : worker.backend_type,
      answer.prompt_tokens, answer.completion_tokens, platform::millisecondsSince(start) / 1000);
  return {.status = 200,
          .body = completionJson(answer, {.request_id = caller.request_id,
                                          .created = platform::toEpochSeconds(platform::wallNow()),
                                          .model = request.model,
                                          .worker = worker.worker_id,
                                          .worker_host = host,
                                          .strategy = routing.strategy,
                                          .reason = routing.reason}),
          .error = {}};
}

ChatReply ChatProxy::answerLocally(const ChatRequest& request, const Routing& routing,
                                   const ChatCaller& caller, platform::SteadyTime start) {
  LocalModelServer& local = services_.local_server;
  if (!local.hasModel(request.model)) {
    return failure(404, "Model '" + request.model + "' not found on any worker or locally");
  }
  const LocalModelServer::Chat chat = local.chat(request);
  if (!chat.error.empty()) return failure(500, "Local model server failed: " + chat.error);
  services_.metrics.recordLlmInference(request.model, "local", chat.answer.prompt_tokens,
                                       chat.answer.completion_tokens,
                                       platform::millisecondsSince(start) / 1000);
  return {
      .status = 200,
      .body = completionJson(chat.answer, {.request_id = caller.request_id,
                                           .created = platform::toEpochSeconds(platform::wallNow()),
                                           .model = request.model,
                                           .worker = "local",
                                           .worker_host = local.host(),
                                           .strategy = routing.strategy,
                                           .reason = routing.reason}),
      .error = {}};
}

void ChatProxy::stream(const nlohmann::json* body, const ChatCaller& caller, const Write& write) {
  const auto start = platform::steadyNow();
  const std::optional<ChatRequest> request = readStreamRequest(body, write);
  if (!request) return;
  const worker::WorkerPtr worker = selector_.first(request->model);
  if (worker == nullptr) {
    return writeStreamError(write, "No worker found with model: " + request->model);
  }
  const net::WorkerAddress address{worker->ip_address, worker->port};
  net::WorkerConnection connection(caller.client_descriptor);
  if (connection.connect(address, timeouts_.worker_stream) != net::WorkerIo::kOk) {
    return writeStreamError(write, "Failed to connect to worker");
  }
  const std::string text = request->workerBody(/*stream=*/true);
  if (connection.send(net::workerPostHead(address, kWorkerPath, text.size(), /*keep_alive=*/false),
                      text, timeouts_.worker_stream) != net::WorkerIo::kOk) {
    return writeStreamError(write, "Failed to send request to worker");
  }
  if (relay(connection, write)) {
    services_.metrics.recordLlmInference(
        request->model, worker->backend_type.empty() ? "unknown" : worker->backend_type, 0, 0,
        platform::millisecondsSince(start) / 1000);
  }
}

bool ChatProxy::relay(net::WorkerConnection& connection, const Write& write) const {
  net::HttpResponseHead head;
  if (connection.readHead(head, timeouts_.worker_stream) != net::WorkerIo::kOk) return false;
  std::string piece;
  for (bool end = false; !end;) {
    piece.clear();
    const auto read = connection.readBody(piece, end, timeouts_.worker_stream);
    if (!piece.empty() && !write(piece)) return true;
    if (read != net::WorkerIo::kOk) return true;
  }
  return true;
}

}  // namespace tavrel::inference
