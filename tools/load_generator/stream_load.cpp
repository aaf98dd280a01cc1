#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "load_generator/loads.h"
#include "load_generator/measurement.h"
#include "load_generator/socket.h"
#include "net/http_response_parser.h"
#include "platform/clock.h"

namespace tavrel::load {
namespace {

constexpr int kPollMs = 100;
constexpr std::size_t kReadBytes = 65536;
constexpr std::string_view kDone = "data: [DONE]";
constexpr std::string_view kEvent = "data: ";

struct Stream {
  Descriptor socket;
  platform::SteadyTime started;
  bool sent = false;
  std::optional<double> first_byte_ms;
  net::HttpResponseParser parser;
  std::string text;  // decoded, not yet a whole line
  int events = 0;
  bool done = false;  // the final marker came, after which nothing may follow
  int after_done = 0;
};

/// Takes the complete lines off the front of the decoded text.
void countEvents(Stream& stream) {
  std::size_t begin = 0;
  for (std::size_t end; (end = stream.text.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    const std::string_view line = std::string_view(stream.text).substr(begin, end - begin);
    if (!line.starts_with(kEvent)) continue;
    if (stream.done) ++stream.after_done;
    if (line.starts_with(kDone)) {
      stream.done = true;
    } else {
      ++stream.events;
    }
  }
  stream.text.erase(0, begin);
}

/// False once the connection has nothing more to tell.
bool readFrom(Stream& stream) {
  using State = net::HttpResponseParser::State;
  std::array<char, kReadBytes> bytes;
  const ssize_t count = recv(stream.socket.get(), bytes.data(), bytes.size(), 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  const std::string_view arrived(bytes.data(), static_cast<std::size_t>(count));
  const State state =
      count == 0 ? stream.parser.finish() : stream.parser.consume(arrived, stream.text);
  if (!stream.first_byte_ms && !stream.text.empty()) {
    stream.first_byte_ms = platform::millisecondsSince(stream.started);
  }
  countEvents(stream);
  return count > 0 && (state == State::kHead || state == State::kBody);
}

nlohmann::json report(const std::vector<Stream>& streams, int expected_events, double seconds) {
  std::vector<double> first_bytes;
  std::int64_t events = 0;
  int complete = 0;
  for (const Stream& stream : streams) {
    if (stream.first_byte_ms) first_bytes.push_back(*stream.first_byte_ms);
    events += stream.events;
    const bool whole = stream.events == expected_events && stream.done && stream.after_done == 0;
    if (whole && stream.parser.head().status == 200) ++complete;
  }
  const auto expected =
      static_cast<std::int64_t>(expected_events) * static_cast<std::int64_t>(streams.size());
  return {{"streams", streams.size()}, {"complete", complete},
          {"events", events},          {"expected", expected},
          {"seconds", seconds},        {"first_byte_ms", summaryOf(first_bytes)}};
}

}  // namespace

nlohmann::json runStream(Options& options) {
  const int port = options.port("--port");
  const std::string path = options.text("--path", "/v1/chat/completions");
  const std::string model = options.text("--model", "bench-model");
  const int count = options.number("--streams", 200, 1, 10'000);
  BackendScript script;
  script.events = options.number("--events", 200, 1, 100'000);
  script.per_second = options.number("--rate", 50, 1, 1'000);
  const std::chrono::seconds limit(options.number("--limit", 60, 1, 600));
  options.refuseUnread();

  const std::string request = httpPost(port, path, chatBody(model, true, script));
  const auto begin = platform::steadyNow();
  Epoll epoll;
  std::vector<Stream> streams(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < streams.size(); ++i) {
    streams[i].started = platform::steadyNow();
    streams[i].socket = startConnecting(port);
    epoll.add(streams[i].socket.get(), EPOLLOUT, i);
  }
  int open = count;
  const auto handle = [&](std::uint64_t id, std::uint32_t) {
    Stream& stream = streams[static_cast<std::size_t>(id)];
    bool goes_on = true;
    if (!stream.sent) {
      stream.sent = true;
      goes_on = sendWhole(stream.socket.get(), request);
      epoll.change(stream.socket.get(), EPOLLIN, id);
    } else {
      goes_on = readFrom(stream);
    }
    if (!goes_on) {
      stream.socket.reset();
      --open;
    }
  };
  while (open > 0 && platform::steadyNow() - begin < limit) epoll.wait(kPollMs, handle);
  return report(streams, script.events, platform::millisecondsSince(begin) / 1000);
}

}  // namespace tavrel::load
