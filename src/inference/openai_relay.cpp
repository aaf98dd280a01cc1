#include "inference/openai_relay.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/json_text.h"

namespace tavrel::inference {

using net::WorkerIo;
using std::chrono::milliseconds;

namespace {

constexpr std::string_view kComment = ": keep-alive\n\n";
/// How long a worker that said its last word may take to end the message.
constexpr milliseconds kFarewell{1000};

/// Null when it is not JSON that can be read and written again.
nlohmann::json documentFrom(const std::string& body) {
  try {
    return platform::parseForeignJson(body);
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace

LeaseEnd leaseEndFor(int status) {
  switch (status) {
    case 429:
    case 503:
      return LeaseEnd::kBackPressure;
    case 500:
    case 502:
    case 504:
      return LeaseEnd::kFault;
    default:
      return LeaseEnd::kAnswered;
  }
}

OpenAiOutcome outcomeFor(int status) {
  if (status == 429 || status == 503) return OpenAiOutcome::kBackPressure;
  if (status < 400) return OpenAiOutcome::kOk;
  return status < 500 ? OpenAiOutcome::kRefused : OpenAiOutcome::kWorkerFault;
}

OpenAiError errorFor(WorkerIo io, const std::string& worker) {
  switch (io) {
    case WorkerIo::kConnectFailed:
      return OpenAiError::upstream(502, "Failed to connect to worker " + worker,
                                   "worker_unreachable");
    case WorkerIo::kTimedOut:
      return OpenAiError::upstream(504, "Worker " + worker + " did not answer in time",
                                   "worker_timeout");
    case WorkerIo::kClientGone:
      return OpenAiError::upstream(499, "The client closed the connection", "client_closed");
    case WorkerIo::kSendFailed:
    case WorkerIo::kClosed:
      return OpenAiError::upstream(502, "Worker " + worker + " closed the connection",
                                   "worker_disconnected");
    case WorkerIo::kOk:
    case WorkerIo::kMalformed:
    case WorkerIo::kTooLarge:
      break;
  }
  return OpenAiError::upstream(502, "Invalid response from worker " + worker,
                               "invalid_worker_response");
}

WorkerIo OpenAiRelay::awaitFirst(milliseconds wait) {
  const WorkerIo io = attempt_.exchange.readBody(piece_, ended_, wait);
  begun_ = !piece_.empty();
  return io == WorkerIo::kOk && ended_ && !begun_ && attempt_.exchange.endsByClosing()
             ? WorkerIo::kClosed
             : io;
}

void OpenAiRelay::run(const OpenAiAnswer::Sink& sink, milliseconds waited) {
  silent_ = waited;
  if (!begun_ && !ended_ && !sink(kComment)) return broken(sink, WorkerIo::kClientGone);
  while (forward(sink)) {
    if (ended_) return complete(sink);
    const milliseconds wait = patience();
    const WorkerIo io = head_missing_ ? attempt_.exchange.awaitHead(wait)
                                      : attempt_.exchange.readBody(piece_, ended_, wait);
    if (io == WorkerIo::kTimedOut) {
      silent_ += wait;
      if (silent_ >= settings_.stall_timeout || lines_.done()) return broken(sink, io);
      if (!sink(kComment)) break;
      continue;
    }
    begun_ = begun_ || !piece_.empty();
    silent_ = milliseconds(0);
    if (io != WorkerIo::kOk) {
      if (!forward(sink)) break;
      return broken(sink, io);
    }
    if (std::exchange(head_missing_, false)) {
      metrics_.firstByte(attempt_.endpoint, attempt_.seconds());
      if (!attempt_.exchange.isEventStream()) return answeredWithoutStream(sink);
    }
  }
  broken(sink, WorkerIo::kClientGone);
}

milliseconds OpenAiRelay::patience() const {
  if (lines_.done()) return kFarewell;
  const milliseconds left = settings_.stall_timeout - silent_;
  return begun_ ? left : std::min(left, settings_.keep_alive);
}

bool OpenAiRelay::forward(const OpenAiAnswer::Sink& sink) {
  if (piece_.empty()) return true;
  const std::string_view lines = lines_.take(piece_);
  const bool sent = lines.empty() || sink(lines);
  piece_.clear();
  return sent;
}

/// The stream has begun with comments, so the worker's answer cannot be handed on as it is.
void OpenAiRelay::answeredWithoutStream(const OpenAiAnswer::Sink& sink) {
  const int status = attempt_.exchange.head().status;
  std::string body;
  const WorkerIo io = attempt_.exchange.readWholeBody(body);
  if (io != WorkerIo::kOk) return broken(sink, io);
  attempt_.exchange.finish();
  const auto document = documentFrom(body);
  if (document.is_object() && document.contains("error")) {
    sink("data: " + platform::dumpJson(document) + "\n\n");
  } else {
    sink(errorFor(WorkerIo::kMalformed, attempt_.worker).event());
  }
  const bool failed = status < 400;  // a regular answer, but not the one asked for
  end(failed ? LeaseEnd::kFault : leaseEndFor(status),
      failed ? OpenAiOutcome::kWorkerFault : outcomeFor(status));
}

void OpenAiRelay::complete(const OpenAiAnswer::Sink& sink) {
  if (attempt_.exchange.endsByClosing() && !lines_.done()) return broken(sink, WorkerIo::kClosed);
  if (!lines_.rest().empty()) sink(lines_.rest());
  attempt_.exchange.finish();
  end(LeaseEnd::kAnswered, OpenAiOutcome::kOk);
}

void OpenAiRelay::broken(const OpenAiAnswer::Sink& sink, WorkerIo io) {
  if (io == WorkerIo::kClientGone) {
    attempt_.exchange.hangUp();
    return end(LeaseEnd::kUndecided, OpenAiOutcome::kClientGone);
  }
  if (lines_.done()) {  // the message lacks its end, but the client has all of it
    if (!lines_.rest().empty()) sink(lines_.rest());
    return end(LeaseEnd::kAnswered, OpenAiOutcome::kOk);
  }
  sink(std::string(lines_.gap()) + errorFor(io, attempt_.worker).event());
  end(LeaseEnd::kFault, OpenAiOutcome::kWorkerFault);
}

void OpenAiRelay::end(LeaseEnd how, OpenAiOutcome outcome) {
  const auto now = platform::steadyNow();
  attempt_.lease.end(how, now);
  metrics_.ended(attempt_.endpoint, outcome);
  if (how == LeaseEnd::kFault) metrics_.passedOver(board_.passedOver(now));
  if (outcome == OpenAiOutcome::kOk) {
    metrics_.inferred(attempt_.model, attempt_.backend, readUsage(lines_.usage()),
                      attempt_.seconds());
  }
}

}  // namespace tavrel::inference
