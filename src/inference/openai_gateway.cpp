#include "inference/openai_gateway.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "ai/moe_router.h"
#include "inference/chat_request.h"
#include "inference/local_model_server.h"
#include "inference/openai_usage.h"
#include "platform/text.h"

namespace tavrel::inference {

using net::WorkerIo;
using std::chrono::milliseconds;

/// One client request on its way through the gateway; lives as long as `answer` runs.
struct OpenAiGateway::Job {
  OpenAiEndpoint endpoint;
  int client_descriptor;
  bool stream;
  std::string model;
  std::string_view body;
  std::string changed_body;  // what `body` shows when an expert's model replaced the client's
  platform::SteadyTime started;
};

/// What came of asking one worker.
struct OpenAiGateway::Result {
  OpenAiAnswer answer;
  bool may_retry = false;
  std::optional<OpenAiOutcome> outcome;  // empty: told when the stream has run
};

namespace {

constexpr const char* kLocal = "local";

/// A worker chooses its own id: what cannot stand in a header is encoded.
std::string headerValue(const std::string& text) {
  const bool plain =
      std::all_of(text.begin(), text.end(), [](char c) { return c > 32 && c < 127; });
  return plain ? text : platform::percentEncode(text);
}

/// "host:port", the host of an IPv6 address in brackets.
net::WorkerAddress addressOf(std::string host) {
  net::WorkerAddress address{"", 80};
  const std::size_t colon = host.rfind(':');
  if (colon != std::string::npos && host.find(']', colon) == std::string::npos) {
    std::from_chars(host.data() + colon + 1, host.data() + host.size(), address.port);
    host.resize(colon);
  }
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  address.host = std::move(host);
  return address;
}

OpenAiAnswer answerFrom(const OpenAiAttempt& attempt, const net::HttpResponseHead& head) {
  OpenAiAnswer answer;
  answer.status = head.status;
  const std::string_view content_type = head.header("Content-Type");
  if (!content_type.empty()) answer.content_type = content_type;
  answer.headers.emplace_back("X-Tavrel-Worker", headerValue(attempt.worker));
  if (head.status == 429 || head.status == 503) {
    const std::string_view wait = head.header("Retry-After");
    answer.headers.emplace_back("Retry-After", wait.empty() ? "1" : wait);
  }
  return answer;
}

OpenAiAnswer streamAnswer(std::shared_ptr<OpenAiRelay> relay, OpenAiAnswer answer,
                          milliseconds waited) {
  answer.headers.emplace_back("Cache-Control", "no-cache");
  answer.headers.emplace_back("X-Accel-Buffering", "no");
  answer.stream = [relay = std::move(relay), waited](const OpenAiAnswer::Sink& sink) {
    relay->run(sink, waited);
  };
  return answer;
}

}  // namespace

OpenAiGateway::OpenAiGateway(const worker::WorkerRegistry& workers, net::WorkerConnectionPool& pool,
                             const ai::MoeRouter& experts, LocalModelServer& local,
                             metrics::MetricsCollector& collector, OpenAiSettings settings)
    : settings_(settings),
      workers_(workers),
      pool_(pool),
      experts_(experts),
      local_(local),
      board_(workers),
      metrics_(collector) {}

OpenAiAnswer OpenAiGateway::answer(const Call& call) {
  const platform::SteadyTime started = platform::steadyNow();
  OpenAiRequest request;
  if (const auto refusal = request.parse(call.endpoint, call.body)) {
    metrics_.ended(call.endpoint, OpenAiOutcome::kRefused);
    return OpenAiAnswer::error(*refusal);
  }
  Job job{call.endpoint, call.client_descriptor, request.stream(), request.model(), call.body, {},
          started};
  applyExperts(job, request);
  std::optional<Result> result = askWorkers(job);
  if (!result) result = askLocally(job);
  if (result->outcome) metrics_.ended(call.endpoint, *result->outcome);
  return std::move(result->answer);
}

void OpenAiGateway::applyExperts(Job& job, const OpenAiRequest& request) const {
  if (job.endpoint != OpenAiEndpoint::kChatCompletions || !experts_.enabled()) return;
  const auto document = nlohmann::json::parse(job.body);
  const auto expert = experts_.chooseForChat(lastUserText(document.at("messages")));
  if (!expert || expert->model == job.model || !workers_.modelAvailable(expert->model)) return;
  job.changed_body = request.withModel(job.body, expert->model);
  job.body = job.changed_body;
  job.model = expert->model;
}

std::optional<OpenAiGateway::Result> OpenAiGateway::askWorkers(const Job& job) {
  std::optional<Result> result;
  std::vector<std::string> tried;
  while (tried.size() <= kMaxRetries && (!result || result->may_retry)) {
    WorkerLease lease = board_.choose(job.model, tried, platform::steadyNow());
    if (!lease) break;
    if (result) metrics_.retried();
    const worker::WorkerInfo& worker = lease.worker();
    tried.push_back(worker.worker_id);
    net::WorkerAddress address{worker.ip_address, worker.port};
    std::string backend = worker.backend_type.empty() ? "unknown" : worker.backend_type;
    result = ask(job, {job.endpoint,
                       job.model,
                       worker.worker_id,
                       std::move(backend),
                       job.started,
                       std::move(lease),
                       {pool_, settings_, std::move(address), job.client_descriptor}});
  }
  return result;
}

OpenAiGateway::Result OpenAiGateway::askLocally(const Job& job) {
  if (!local_.hasModel(job.model)) {
    return {OpenAiAnswer::error(OpenAiError::modelNotFound(job.model)), false,
            OpenAiOutcome::kRefused};
  }
  return ask(job, {job.endpoint,
                   job.model,
                   kLocal,
                   kLocal,
                   job.started,
                   {},
                   {pool_, settings_, addressOf(local_.host()), job.client_descriptor}});
}

OpenAiGateway::Result OpenAiGateway::ask(const Job& job, OpenAiAttempt attempt) {
  const milliseconds wait = job.stream ? untilComment(attempt) : settings_.stall_timeout;
  const WorkerIo io = attempt.exchange.begin(openAiPath(job.endpoint), job.body, wait);
  if (io == WorkerIo::kTimedOut && wait < settings_.stall_timeout &&
      attempt.exchange.requestSent()) {
    return streamWithoutHead(std::move(attempt), wait);
  }
  if (io != WorkerIo::kOk) return failed(attempt, io);
  metrics_.firstByte(job.endpoint, attempt.seconds());
  return attempt.exchange.isEventStream() ? stream(std::move(attempt)) : whole(std::move(attempt));
}

OpenAiGateway::Result OpenAiGateway::stream(OpenAiAttempt attempt) {
  OpenAiAnswer answer = answerFrom(attempt, attempt.exchange.head());
  auto relay = std::make_shared<OpenAiRelay>(std::move(attempt), settings_, metrics_, board_);
  // As long as the client has no byte, a worker that breaks off can be replaced by another.
  const milliseconds wait = untilComment(relay->attempt());
  const WorkerIo io = relay->awaitFirst(wait);
  const bool goes_on = io == WorkerIo::kTimedOut && wait < settings_.stall_timeout;
  if (io != WorkerIo::kOk && !goes_on) return failed(relay->attempt(), io);
  return {streamAnswer(std::move(relay), std::move(answer), goes_on ? wait : milliseconds(0)),
          false,
          {}};
}

OpenAiGateway::Result OpenAiGateway::streamWithoutHead(OpenAiAttempt attempt, milliseconds waited) {
  net::HttpResponseHead head;
  head.status = 200;
  head.headers.emplace_back("Content-Type", "text/event-stream");
  OpenAiAnswer answer = answerFrom(attempt, head);
  auto relay = std::make_shared<OpenAiRelay>(std::move(attempt), settings_, metrics_, board_);
  relay->headIsMissing();
  return {streamAnswer(std::move(relay), std::move(answer), waited), false, {}};
}

OpenAiGateway::Result OpenAiGateway::whole(OpenAiAttempt attempt) {
  std::string body;
  const WorkerIo io = attempt.exchange.readWholeBody(body);
  if (io != WorkerIo::kOk) return failed(attempt, io);
  attempt.exchange.finish();

  const int status = attempt.exchange.head().status;
  const bool garbage = status < 300 ? !looksLikeJsonObject(body) : status < 400;
  if (garbage) return failed(attempt, WorkerIo::kMalformed);
  const LeaseEnd end = leaseEndFor(status);
  endLease(attempt, end);
  if (status < 300) {
    metrics_.inferred(attempt.model, attempt.backend, readUsage(findUsage(body)),
                      attempt.seconds());
  }
  Result result{answerFrom(attempt, attempt.exchange.head()), end != LeaseEnd::kAnswered,
                outcomeFor(status)};
  result.answer.body = std::move(body);
  return result;
}

OpenAiGateway::Result OpenAiGateway::failed(OpenAiAttempt& attempt, WorkerIo io) {
  attempt.exchange.hangUp();
  const bool client_gone = io == WorkerIo::kClientGone;
  endLease(attempt, client_gone ? LeaseEnd::kUndecided : LeaseEnd::kFault);
  Result result;
  result.answer = OpenAiAnswer::error(errorFor(io, attempt.worker));
  result.answer.headers.emplace_back("X-Tavrel-Worker", headerValue(attempt.worker));
  result.outcome = client_gone ? OpenAiOutcome::kClientGone : OpenAiOutcome::kWorkerFault;
  // A request that took a worker all its time, or an answer beyond all bounds, would do the same to
  // the next one.
  result.may_retry = !client_gone && io != WorkerIo::kTimedOut && io != WorkerIo::kTooLarge;
  return result;
}

milliseconds OpenAiGateway::untilComment(const OpenAiAttempt& attempt) const {
  const auto due = attempt.started + settings_.keep_alive;
  const auto left = std::chrono::ceil<milliseconds>(due - platform::steadyNow());
  return std::clamp(left, milliseconds(0), settings_.stall_timeout);
}

void OpenAiGateway::endLease(OpenAiAttempt& attempt, LeaseEnd how) {
  const auto now = platform::steadyNow();
  attempt.lease.end(how, now);
  if (how == LeaseEnd::kFault) metrics_.passedOver(board_.passedOver(now));
}

void OpenAiGateway::tidy(platform::SteadyTime now) {
  pool_.expire(now);
  metrics_.passedOver(board_.passedOver(now));
}

}  // namespace tavrel::inference
