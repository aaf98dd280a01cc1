#include "load_generator/bench_backend.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace tavrel::load {
namespace {

constexpr std::size_t kMaxRequestBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxSightings = 100'000;
constexpr std::size_t kReadBytes = 16384;
constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNsPerSecond = 1'000'000'000;
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kCompletion =
    R"({"id":"chatcmpl-bench","object":"chat.completion","created":1700000000,)"
    R"("model":"bench-model","choices":[{"index":0,"message":{"role":"assistant",)"
    R"("content":"The quick brown fox jumps over the lazy dog."},"finish_reason":"stop"}],)"
    R"("usage":{"prompt_tokens":12,"completion_tokens":10,"total_tokens":22}})";
constexpr std::string_view kStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-cache\r\n"
    "Transfer-Encoding: chunked\r\n";

std::string jsonAnswer(std::string_view body, bool close_after) {
  std::string text = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ";
  text.append(std::to_string(body.size()));
  text.append(close_after ? "\r\nConnection: close\r\n\r\n" : "\r\n\r\n").append(body);
  return text;
}

void appendChunk(std::string& out, std::string_view data) {
  std::array<char, 16> size{};
  const auto end = std::to_chars(size.data(), size.data() + size.size(), data.size(), 16).ptr;
  out.append(size.data(), end).append("\r\n").append(data).append("\r\n");
}

std::string streamEvent(int index) {
  return R"(data: {"id":"chatcmpl-bench","object":"chat.completion.chunk","created":1700000000,)"
         R"("model":"bench-model","choices":[{"index":0,"delta":{"content":"word)" +
         std::to_string(index) + " \"},\"finish_reason\":null}]}\n\n";
}

/// The value of a header in a request head, "" when it is absent.
std::string headerValue(std::string_view lower_case_head, std::string_view lower_case_name) {
  const std::string key = "\r\n" + std::string(lower_case_name) + ":";
  const std::size_t at = lower_case_head.find(key);
  if (at == std::string_view::npos) return "";
  std::string_view value = lower_case_head.substr(at + key.size());
  value = value.substr(0, value.find("\r\n"));
  const std::size_t first = value.find_first_not_of(' ');
  return first == std::string_view::npos ? "" : std::string(value.substr(first));
}

}  // namespace

struct BenchBackend::Connection {
  Descriptor socket;
  std::uint64_t serial = 0;
  std::string in;
  std::string out;
  bool waits_for_room = false;  // EPOLLOUT is asked for
  bool close_after = false;
  bool busy = false;  // an answer is pending or streaming; later requests wait
  bool streaming = false;
  int events_sent = 0;
  std::int64_t started_ns = 0;
  BackendScript script;
};

BenchBackend::BenchBackend(int port_count, int stop_descriptor)
    : stop_descriptor_(stop_descriptor) {
  for (int i = 0; i < port_count; ++i) {
    int port = 0;
    listeners_.push_back(listenOnLoopback(0, port));
    ports_.push_back(port);
    const int fd = listeners_.back().get();
    epoll_.add(fd, EPOLLIN, static_cast<std::uint64_t>(fd));
  }
  epoll_.add(stop_descriptor_, EPOLLIN, static_cast<std::uint64_t>(stop_descriptor_));
}

BenchBackend::~BenchBackend() = default;

void BenchBackend::run() {
  bool stop = false;
  while (!stop) {
    epoll_.wait(millisecondsToNextTimer(), [&](std::uint64_t id, std::uint32_t events) {
      const int fd = static_cast<int>(id);
      if (fd == stop_descriptor_) {
        stop = true;
      } else {
        handleEvent(fd, events);
      }
    });
    fireTimers();
  }
}

void BenchBackend::handleEvent(int fd, std::uint32_t events) {
  const auto index = static_cast<std::size_t>(fd);
  const auto is_fd = [fd](const Descriptor& one) { return one.get() == fd; };
  if (index >= connections_.size() || !connections_[index]) {
    if (std::any_of(listeners_.begin(), listeners_.end(), is_fd)) acceptAll(fd);
    return;
  }
  Connection& connection = *connections_[index];
  if ((events & EPOLLOUT) != 0) flush(connection);
  if (connections_[index] && (events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
    readFrom(connection);
  }
}

void BenchBackend::acceptAll(int listener) {
  for (;;) {
    Descriptor socket(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.open()) return;
    const auto index = static_cast<std::size_t>(socket.get());
    if (connections_.size() <= index) connections_.resize(index + 1);
    auto connection = std::make_unique<Connection>();
    connection->serial = ++accepted_;
    epoll_.add(socket.get(), EPOLLIN | EPOLLRDHUP, index);
    connection->socket = std::move(socket);
    connections_[index] = std::move(connection);
  }
}

void BenchBackend::readFrom(Connection& connection) {
  std::array<char, kReadBytes> bytes;
  for (;;) {
    const ssize_t count = recv(connection.socket.get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count <= 0) return closeConnection(connection);
    connection.in.append(bytes.data(), static_cast<std::size_t>(count));
    if (connection.in.size() > kMaxRequestBytes) return closeConnection(connection);
    // A request seen before the hang-up behind it is noted as arrived.
    if (!serve(connection)) return closeConnection(connection);
    if (static_cast<std::size_t>(count) < bytes.size()) break;
  }
  flush(connection);
}

bool BenchBackend::serve(Connection& connection) {
  while (!connection.busy && !connection.close_after) {
    const std::size_t head_end = connection.in.find(kHeadEnd);
    if (head_end == std::string::npos) return true;
    const std::string head =
        platform::toLower(std::string_view(connection.in).substr(0, head_end + kHeadEnd.size()));
    if (!headerValue(head, "transfer-encoding").empty()) return false;
    std::size_t length = 0;
    const std::string length_text = headerValue(head, "content-length");
    std::from_chars(length_text.data(), length_text.data() + length_text.size(), length);
    if (length > kMaxRequestBytes) return false;
    if (connection.in.size() - head.size() < length) return true;
    const std::string body = connection.in.substr(head.size(), length);
    connection.in.erase(0, head.size() + length);
    if (!serveOne(connection, head, body)) return false;
  }
  return true;
}

bool BenchBackend::serveOne(Connection& connection, std::string_view head, std::string_view body) {
  if (head.substr(0, head.find("\r\n")).find("http/1.1") == std::string_view::npos) return false;
  connection.close_after = headerValue(head, "connection") == "close";
  if (head.starts_with("post /v1/chat/completions ")) {
    ++requests_;
    startChat(connection, body);
    return true;
  }
  if (head.starts_with("get /dev/stats ")) {
    connection.out += jsonAnswer(statistics(), connection.close_after);
    return true;
  }
  connection.out += "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
  return true;
}

void BenchBackend::startChat(Connection& connection, std::string_view body) {
  connection.script = BackendScript::fromBody(body);
  connection.started_ns = monotonicNanoseconds();
  if (connection.script.tag != 0 && sightings_.size() < kMaxSightings) {
    sightings_[connection.script.tag].arrived_ns = connection.started_ns;
  }
  connection.streaming = body.find(R"("stream":true)") != std::string_view::npos ||
                         body.find(R"("stream": true)") != std::string_view::npos;
  if (connection.streaming) {
    connection.busy = true;
    connection.events_sent = 0;
    connection.out.append(kStreamHead);
    connection.out.append(connection.close_after ? "Connection: close\r\n\r\n" : "\r\n");
    continueStream(connection);
  } else if (connection.script.delay_ms > 0) {
    connection.busy = true;
    schedule(connection, connection.started_ns + connection.script.delay_ms * kNsPerMs);
  } else {
    finishAnswer(connection);
  }
}

void BenchBackend::fireTimers() {
  const std::int64_t now = monotonicNanoseconds();
  while (!timers_.empty() && timers_.top().due_ns <= now) {
    const Timer timer = timers_.top();
    timers_.pop();
    const auto& connection = connections_[static_cast<std::size_t>(timer.fd)];
    if (!connection || connection->serial != timer.serial || !connection->busy) continue;
    if (connection->streaming) {
      continueStream(*connection);
    } else {
      finishAnswer(*connection);
    }
    // The next request may have come while this one was being answered.
    if (serve(*connection)) {
      flush(*connection);
    } else {
      closeConnection(*connection);
    }
  }
}

/// Sends every event that is due by now, so that a delayed timer delays but never drops one.
void BenchBackend::continueStream(Connection& connection) {
  const BackendScript& script = connection.script;
  const std::int64_t now = monotonicNanoseconds();
  const auto due = [&](int index) {
    if (script.per_second == 0) return connection.started_ns;
    return connection.started_ns + index * kNsPerSecond / script.per_second;
  };
  while (connection.events_sent < script.events && due(connection.events_sent) <= now) {
    appendChunk(connection.out, streamEvent(connection.events_sent++));
  }
  if (connection.events_sent < script.events) {
    schedule(connection, due(connection.events_sent));
    return;
  }
  appendChunk(connection.out, "data: [DONE]\n\n");
  connection.out += "0\r\n\r\n";
  connection.busy = false;
}

void BenchBackend::finishAnswer(Connection& connection) {
  static const std::string kKept = jsonAnswer(kCompletion, false);
  static const std::string kClosed = jsonAnswer(kCompletion, true);
  connection.out += connection.close_after ? kClosed : kKept;
  connection.busy = false;
}

void BenchBackend::schedule(const Connection& connection, std::int64_t due_ns) {
  timers_.push({due_ns, connection.socket.get(), connection.serial});
}

int BenchBackend::millisecondsToNextTimer() const {
  if (timers_.empty()) return -1;
  const std::int64_t left = timers_.top().due_ns - monotonicNanoseconds();
  return left <= 0 ? 0 : static_cast<int>((left + kNsPerMs - 1) / kNsPerMs);
}

void BenchBackend::flush(Connection& connection) {
  while (!connection.out.empty()) {
    const ssize_t sent =
        send(connection.socket.get(), connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) break;
    if (sent < 0) return closeConnection(connection);
    connection.out.erase(0, static_cast<std::size_t>(sent));
  }
  const bool wants_room = !connection.out.empty();
  if (wants_room != connection.waits_for_room) {
    const std::uint32_t events = EPOLLIN | EPOLLRDHUP | (wants_room ? EPOLLOUT : 0U);
    const int fd = connection.socket.get();
    epoll_.change(fd, events, static_cast<std::uint64_t>(fd));
    connection.waits_for_room = wants_room;
  }
  if (connection.close_after && !connection.busy && !wants_room) closeConnection(connection);
}

void BenchBackend::closeConnection(Connection& connection) {
  const auto sighting = sightings_.find(connection.script.tag);
  if (connection.busy && sighting != sightings_.end()) {
    sighting->second.left_ns = monotonicNanoseconds();
  }
  connections_[static_cast<std::size_t>(connection.socket.get())].reset();
}

std::string BenchBackend::statistics() const {
  nlohmann::json seen = nlohmann::json::object();
  for (const auto& [tag, sighting] : sightings_) {
    seen[std::to_string(tag)] = {{"arrived_ns", sighting.arrived_ns},
                                 {"left_ns", sighting.left_ns}};
  }
  return nlohmann::json{{"connections", accepted_}, {"requests", requests_}, {"tags", seen}}.dump();
}

}  // namespace tavrel::load
