#include "inference/openai_exchange.h"

#include <utility>

#include "platform/text.h"

namespace tavrel::inference {

using net::WorkerIo;

namespace {

/// For the rest of an answer that began before the request was sent.
constexpr std::chrono::milliseconds kEarlyAnswerWait{1000};

/// How a connection looks that the worker closed while it was kept.
bool looksStale(WorkerIo io) {
  return io == WorkerIo::kSendFailed || io == WorkerIo::kClosed;
}

}  // namespace

OpenAiExchange::OpenAiExchange(net::WorkerConnectionPool& pool, const OpenAiSettings& settings,
                               net::WorkerAddress address, int client_descriptor)
    : pool_(pool),
      settings_(settings),
      address_(std::move(address)),
      client_descriptor_(client_descriptor) {}

WorkerIo OpenAiExchange::begin(std::string_view path, std::string_view body,
                               std::chrono::milliseconds wait) {
  connection_ = pool_.take(address_, client_descriptor_);
  if (connection_ != nullptr) {
    const WorkerIo io = ask(path, body, wait);
    if (!looksStale(io) || connection_->answerBegun()) return io;
  }
  connection_ = std::make_unique<net::WorkerConnection>(client_descriptor_);
  const WorkerIo connected = connection_->connect(address_, settings_.connect_timeout);
  if (connected == WorkerIo::kConnectFailed) pool_.forget(address_);
  return connected == WorkerIo::kOk ? ask(path, body, wait) : connected;
}

WorkerIo OpenAiExchange::ask(std::string_view path, std::string_view body,
                             std::chrono::milliseconds wait) {
  const std::string head = net::workerPostHead(address_, path, body.size(), true);
  const WorkerIo sent = connection_->send(head, body, settings_.stall_timeout);
  request_sent_ = sent == WorkerIo::kOk;
  if (request_sent_) return connection_->readHead(head_, wait);
  // A worker that refuses a body early answers without reading the rest of it.
  if (sent == WorkerIo::kSendFailed &&
      connection_->readHead(head_, kEarlyAnswerWait) == WorkerIo::kOk) {
    return WorkerIo::kOk;
  }
  return sent;
}

void OpenAiExchange::finish() {
  pool_.giveBack(address_, std::move(connection_));
}

bool OpenAiExchange::endsByClosing() const {
  return head_.header("Content-Length").empty() && head_.header("Transfer-Encoding").empty();
}

bool OpenAiExchange::isEventStream() const {
  return head_.status / 100 == 2 &&
         platform::toLower(head_.header("Content-Type")).starts_with("text/event-stream");
}

}  // namespace tavrel::inference
