#include "dev_worker/inference_api.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "dev_worker/fault_player.h"

namespace tavrel::dev_worker {
namespace {

api::Response refusal(int status, std::string_view message, std::string_view code) {
  api::Response answer;
  answer.status = status;
  answer.body = errorBody(message, "invalid_request_error", code);
  return answer;
}

api::Response unknownModel(const std::string& model) {
  return refusal(404, "The model '" + model + "' does not exist", "model_not_found");
}

api::Response jsonAnswer(std::string body) {
  api::Response answer;
  answer.body = std::move(body);
  return answer;
}

}  // namespace

InferenceApi::InferenceApi(const Options& options, const ModelStore& models,
                           const std::optional<Upstream>& upstream, net::HttpClient& client,
                           Stats& stats, const std::atomic<bool>& stopping)
    : options_(options),
      models_(models),
      upstream_(upstream),
      client_(client),
      stats_(stats),
      stopping_(stopping),
      style_{options.answer, options.tokens},
      started_(platform::toEpochSeconds(platform::wallNow())),
      faults_(options.faults) {
  if (!options.answer.empty() && options.models.size() == 1) {
    const Answer answer = makeAnswer(style_, {});
    fixed_tokens_ = answer.tokenCount();
    fixed_tail_ = replyTail(ReplyKind::kChat, options.models.front(), answer, 0);
  }
}

void InferenceApi::addRoutes(api::HttpServer& server) {
  using api::Context;
  using api::Request;
  const std::vector<api::Middleware> guard{
      [this](Context& context, const Request& request, const api::Handler& next) {
        return guarded(context, request, next);
      }};
  server.post(
      "/v1/chat/completions",
      [this](Context& context, const Request& request) {
        return text(ReplyKind::kChat, context, request);
      },
      guard);
  server.post(
      "/v1/completions",
      [this](Context& context, const Request& request) {
        return text(ReplyKind::kCompletion, context, request);
      },
      guard);
  server.post(
      "/v1/embeddings", [this](Context&, const Request& request) { return embeddings(request); },
      guard);
  server.get("/v1/models", [this](Context&, const Request&) { return models(); });
}

api::Response InferenceApi::guarded(api::Context& context, const api::Request& request,
                                    const api::Handler& next) {
  const std::shared_ptr<Stats::Served> served = stats_.begin();
  api::Handler answer = next;
  if (upstream_) {
    answer = [this](api::Context& inner_context, const api::Request& inner_request) {
      return upstream_->forwardPost(watchFor(inner_context), inner_request);
    };
  }
  api::Response response;
  if (const std::optional<FaultKind> fault = faults_.next()) {
    stats_.faultPlayed();
    response = playFault(*fault, watchFor(context), context, request, answer);
  } else {
    response = answer(context, request);
  }
  if (response.stream) {  // the request is being served until the stream has ended
    stats_.streamStarted();
    response.stream = [served, body = std::move(response.stream)](api::StreamWriter& writer) {
      body(writer);
    };
  }
  return response;
}

api::Response InferenceApi::text(ReplyKind kind, api::Context& context,
                                 const api::Request& request) {
  if (kind == ReplyKind::kChat && !fixed_tail_.empty() && !wantsStream(request.body)) {
    return fixedAnswer(watchFor(context));
  }
  const auto& body = request.json();
  if (!body) return refusal(400, "The body is not JSON", "invalid_json");
  std::optional<ChatInput> input =
      kind == ReplyKind::kChat ? readChat(*body) : readCompletion(*body);
  if (!input) {
    return refusal(400, kind == ReplyKind::kChat ? "messages is required" : "prompt is required",
                   "missing_required_parameter");
  }
  if (input->model.empty()) input->model = options_.models.front();
  if (!models_.has(input->model)) return unknownModel(input->model);
  ClientWatch watch = watchFor(context);
  return input->stream ? streamedAnswer(kind, std::move(*input), watch)
                       : plainAnswer(kind, *input, watch);
}

api::Response InferenceApi::fixedAnswer(ClientWatch watch) {
  watch.waitUntil(tokenDue(platform::steadyNow(), fixed_tokens_));
  stats_.tokensGenerated(fixed_tokens_);
  return jsonAnswer(replyBody(ReplyKind::kChat, ReplyId::fresh(ReplyKind::kChat), fixed_tail_));
}

api::Response InferenceApi::plainAnswer(ReplyKind kind, const ChatInput& input, ClientWatch watch) {
  const Answer answer = makeAnswer(style_, input);
  watch.waitUntil(tokenDue(platform::steadyNow(), answer.tokenCount()));
  stats_.tokensGenerated(answer.tokenCount());
  const std::string tail = replyTail(kind, input.model, answer, input.prompt_tokens);
  return jsonAnswer(replyBody(kind, ReplyId::fresh(kind), tail));
}

api::Response InferenceApi::streamedAnswer(ReplyKind kind, ChatInput input, ClientWatch watch) {
  api::Response answer;
  answer.content_type = "text/event-stream";
  answer.headers["Cache-Control"] = "no-cache";
  answer.stream = [this, kind, watch, input = std::move(input)](api::StreamWriter& writer) mutable {
    sendEvents(kind, input, watch, writer);
  };
  return answer;
}

void InferenceApi::sendEvents(ReplyKind kind, const ChatInput& input, ClientWatch& watch,
                              api::StreamWriter& writer) {
  const Answer answer = makeAnswer(style_, input);
  const ReplyEvents events(kind, ReplyId::fresh(kind), input.model);
  const platform::SteadyTime start = platform::steadyNow();
  const auto send = [&](std::string_view bytes) {
    if (bytes.empty() || writer.write(bytes)) return true;
    watch.noteGone();
    return false;
  };
  if (!watch.waitUntil(tokenDue(start, 0)) || !send(events.opening())) return;
  if (answer.tool_call && !send(events.toolCall(*answer.tool_call))) return;
  int sent = 0;
  for (const std::string& token : answer.tokens) {
    if (!watch.waitUntil(tokenDue(start, sent)) || !send(events.token(token))) return;
    ++sent;
    stats_.tokensGenerated(1);
  }
  std::string end = events.finish(answer.finish_reason);
  if (input.include_usage) end += events.usage(input.prompt_tokens, answer.tokenCount());
  send(end.append(ReplyEvents::kDone));
}

api::Response InferenceApi::embeddings(const api::Request& request) {
  const auto& body = request.json();
  if (!body) return refusal(400, "The body is not JSON", "invalid_json");
  std::optional<EmbeddingInput> input = readEmbeddings(*body);
  if (!input) return refusal(400, "input is required", "missing_required_parameter");
  if (input->model.empty()) input->model = options_.models.front();
  if (!models_.has(input->model)) return unknownModel(input->model);
  return jsonAnswer(embeddingsBody(*input));
}

api::Response InferenceApi::models() {
  if (upstream_) return upstream_->forwardGet(client_, "/v1/models");
  return jsonAnswer(modelsBody(models_.names(), started_));
}

platform::SteadyTime InferenceApi::tokenDue(platform::SteadyTime start, int tokens) const {
  using Duration = platform::SteadyTime::duration;
  Duration wait = options_.latency;
  if (options_.tokens_per_second > 0) {
    constexpr double kLongestSeconds = 1e6;
    const std::chrono::duration<double> seconds(
        std::min(kLongestSeconds, tokens / options_.tokens_per_second));
    wait += std::chrono::duration_cast<Duration>(seconds);
  }
  return start + wait;
}

ClientWatch InferenceApi::watchFor(const api::Context& context) {
  return {context.client, stats_, stopping_};
}

}  // namespace tavrel::dev_worker
