#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

#include "load_generator/exchange.h"
#include "load_generator/loads.h"
#include "load_generator/measurement.h"
#include "platform/clock.h"

namespace tavrel::load {
namespace {

constexpr int kPlainAnswerDelayMs = 20'000;  // far longer than anybody stays
constexpr int kStreamEvents = 1'000;         // twenty seconds
constexpr double kNsPerMs = 1e6;
constexpr std::chrono::milliseconds kGrace{2'000};  // for the backend to see the last one leave
constexpr std::chrono::milliseconds kPoll{5};
constexpr int kArrivalPolls = 200;

nlohmann::json backendTags(int backend_port) {
  const Descriptor connection = connectToLoopback(backend_port);
  const Answer answer = exchange(connection.get(), httpGet(backend_port, "/dev/stats"));
  return nlohmann::json::parse(answer.body).at("tags");
}

/// Returns when the request has reached the backend: leaving earlier would measure nothing.
void awaitArrival(int backend_port, const std::string& tag) {
  for (int i = 0; i < kArrivalPolls; ++i) {
    if (backendTags(backend_port).contains(tag)) return;
    std::this_thread::sleep_for(kPoll);
  }
  throw std::runtime_error("a request never reached the backend");
}

/// For each client that was seen leaving, the time from its leaving to the sight of it.
std::vector<double> noticed(int backend_port, const std::map<std::string, std::int64_t>& left_at) {
  const nlohmann::json tags = backendTags(backend_port);
  std::vector<double> delays_ms;
  for (const auto& [tag, left_ns] : left_at) {
    const auto seen_ns = tags.at(tag).at("left_ns").get<std::int64_t>();
    if (seen_ns > 0) delays_ms.push_back(static_cast<double>(seen_ns - left_ns) / kNsPerMs);
  }
  return delays_ms;
}

}  // namespace

nlohmann::json runLeave(Options& options) {
  const int port = options.port("--port");
  const int backend_port = options.port("--backend-port");
  const std::string path = options.text("--path", "/v1/chat/completions");
  const std::string model = options.text("--model", "bench-model");
  const bool stream = options.number("--stream", 0, 0, 1) == 1;
  const int count = options.number("--count", 100, 1, 1'000);
  const std::chrono::milliseconds stay(options.number("--stay", 20, 1, 1'000));
  options.refuseUnread();

  BackendScript script;
  script.events = kStreamEvents;
  script.delay_ms = kPlainAnswerDelayMs;
  std::map<std::string, std::int64_t> left_at;
  for (int i = 0; i < count; ++i) {
    script.tag = monotonicNanoseconds();
    Descriptor connection = connectToLoopback(port);
    sendWhole(connection.get(), httpPost(port, path, chatBody(model, stream, script)));
    awaitArrival(backend_port, std::to_string(script.tag));
    std::this_thread::sleep_for(stay);
    left_at[std::to_string(script.tag)] = monotonicNanoseconds();
    connection.reset();
  }

  std::vector<double> delays_ms = noticed(backend_port, left_at);
  const auto deadline = platform::steadyNow() + kGrace;
  while (delays_ms.size() < left_at.size() && platform::steadyNow() < deadline) {
    std::this_thread::sleep_for(kPoll);
    delays_ms = noticed(backend_port, left_at);
  }
  return {{"left", count},
          {"unnoticed", left_at.size() - delays_ms.size()},
          {"noticed_ms", summaryOf(delays_ms)}};
}

}  // namespace tavrel::load
