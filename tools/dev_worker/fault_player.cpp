#include "dev_worker/fault_player.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "dev_worker/wire.h"
#include "platform/blocking.h"

namespace tavrel::dev_worker {
namespace {

constexpr std::chrono::milliseconds kSlowPause{1};  // between the bytes of a slow answer
constexpr int kSendLimitMs = 5000;

bool sendRaw(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent =
        ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      continue;
    }
    if (errno == EINTR) continue;
    const platform::BlockingScope blocking;
    pollfd room{descriptor, POLLOUT, 0};
    if (errno != EAGAIN || ::poll(&room, 1, kSendLimitMs) <= 0) return false;
  }
  return true;
}

/// What the server sends after this goes nowhere, and it closes the connection.
void hangUp(int descriptor) {
  ::shutdown(descriptor, SHUT_RDWR);
}

void reset(int descriptor) {
  const sockaddr nobody{.sa_family = AF_UNSPEC, .sa_data = {}};
  (void)::connect(descriptor, &nobody, sizeof nobody);  // dissolves the connection with a reset
}

std::string rawHead(const api::Response& answer) {
  return "HTTP/1.1 " + std::to_string(answer.status) +
         " Answer\r\nContent-Type: " + answer.content_type +
         "\r\nContent-Length: " + std::to_string(answer.body.size()) +
         "\r\nConnection: close\r\n\r\n";
}

api::Response failure(int status, std::string_view message) {
  api::Response answer;
  answer.status = status;
  answer.body = errorBody(message, "server_error", "injected_fault");
  if (status == 429) answer.headers["Retry-After"] = "1";
  return answer;
}

/// Hangs up once some bytes of a stream have been sent.
class CuttingWriter : public api::StreamWriter {
 public:
  CuttingWriter(api::StreamWriter& inner, int descriptor, std::size_t bytes)
      : inner_(inner), descriptor_(descriptor), left_(bytes) {}

  bool write(std::string_view bytes) override {
    const std::string_view kept = bytes.substr(0, left_);
    left_ -= kept.size();
    if (!kept.empty() && !inner_.write(kept)) return false;
    if (left_ > 0) return true;
    hangUp(descriptor_);
    return false;
  }

 private:
  api::StreamWriter& inner_;
  const int descriptor_;
  std::size_t left_;
};

class SlowWriter : public api::StreamWriter {
 public:
  SlowWriter(api::StreamWriter& inner, ClientWatch& watch) : inner_(inner), watch_(watch) {}

  bool write(std::string_view bytes) override {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (!inner_.write(bytes.substr(i, 1))) return false;
      if (!watch_.waitUntil(platform::steadyNow() + kSlowPause)) return false;
    }
    return true;
  }

 private:
  api::StreamWriter& inner_;
  ClientWatch& watch_;
};

api::Response cut(const ClientWatch& watch, api::Response answer) {
  constexpr std::size_t kStreamBytes = 600;  // a few events, the last of them broken
  if (answer.stream) {
    answer.stream = [descriptor = watch.descriptor(),
                     body = std::move(answer.stream)](api::StreamWriter& writer) {
      CuttingWriter cutting(writer, descriptor, kStreamBytes);
      body(cutting);
      hangUp(descriptor);
    };
    return answer;
  }
  const std::string_view body = answer.body;
  sendRaw(watch.descriptor(), rawHead(answer).append(body.substr(0, body.size() / 2)));
  hangUp(watch.descriptor());
  return answer;
}

api::Response slow(ClientWatch watch, api::Response answer) {
  if (answer.stream) {
    answer.stream = [watch, body = std::move(answer.stream)](api::StreamWriter& writer) mutable {
      SlowWriter slow_writer(writer, watch);
      body(slow_writer);
    };
    return answer;
  }
  const std::string bytes = rawHead(answer) + answer.body;
  platform::SteadyTime due = platform::steadyNow();
  for (const char& byte : bytes) {
    if (!watch.waitUntil(due) || !sendRaw(watch.descriptor(), {&byte, 1})) break;
    due = platform::steadyNow() + kSlowPause;
  }
  hangUp(watch.descriptor());
  return answer;
}

api::Response chunked(api::Response answer) {
  constexpr std::size_t kPieceBytes = 7;
  if (answer.stream) return answer;
  answer.stream = [body = std::move(answer.body)](api::StreamWriter& writer) {
    for (std::size_t at = 0; at < body.size(); at += kPieceBytes) {
      if (!writer.write(std::string_view(body).substr(at, kPieceBytes))) return;
    }
  };
  return answer;
}

}  // namespace

api::Response playFault(FaultKind kind, ClientWatch watch, api::Context& context,
                        const api::Request& request, const api::Handler& next) {
  if (watch.descriptor() < 0) return failure(500, "No connection to play a fault on");
  switch (kind) {
    case FaultKind::kServerError:
      return failure(500, "Injected failure");
    case FaultKind::kTooMany:
      return failure(429, "Injected rate limit");
    case FaultKind::kUnavailable:
      return failure(503, "Injected overload");
    case FaultKind::kChunked:
      return chunked(next(context, request));
    case FaultKind::kCut:
      return cut(watch, next(context, request));
    case FaultKind::kSlow:
      return slow(watch, next(context, request));
    case FaultKind::kStall:
      watch.waitUntilGone();
      break;
    case FaultKind::kGarbage:
      sendRaw(watch.descriptor(), "\x16\x03\x01 this is not an answer \xff\xfe\r\n\r\n{\"]");
      hangUp(watch.descriptor());
      break;
    case FaultKind::kDrop:
      hangUp(watch.descriptor());
      break;
    case FaultKind::kRefuse:
      reset(watch.descriptor());
      break;
  }
  return failure(500, "The connection is gone");
}

}  // namespace tavrel::dev_worker
