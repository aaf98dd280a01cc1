#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "load_generator/loads.h"
#include "load_generator/socket.h"
#include "net/http_response_parser.h"
#include "platform/clock.h"

namespace tavrel::load {
namespace {

using nlohmann::json;

constexpr int kWaitMs = 100;
constexpr std::chrono::seconds kSilence{30};  // without any answer: give up
constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

std::string workerId(int index) {
  const std::string digits = std::to_string(index);
  return "bench-worker-" + std::string(6 - std::min<std::size_t>(6, digits.size()), '0') + digits;
}

json registration(int index, int backend_port, const std::string& model) {
  return {{"worker_id", workerId(index)},
          {"worker_name", "Bench worker " + std::to_string(index)},
          {"hostname", workerId(index) + ".example"},
          {"ip_address", "127.0.0.1"},
          {"port", backend_port},
          {"os", "Linux"},
          {"os_version", "6.1"},
          {"arch", "x86_64"},
          {"version", "4.1.0"},
          {"backend_type", "vllm"},
          {"backend_url", "http://127.0.0.1:" + std::to_string(backend_port)},
          {"capabilities",
           {{"supports_vllm", true},
            {"has_gpu", true},
            {"has_cuda", true},
            {"available_backends", {"vllm"}},
            {"installed_models", {model}}}}};
}

json gpu(int index) {
  return {{"index", index},           {"name", "Accelerator 80G"},
          {"vendor", "example"},      {"memory_total", 80 * kGiB},
          {"memory_used", 41 * kGiB}, {"memory_free", 39 * kGiB},
          {"utilization", 62.5},      {"temperature", 58.0},
          {"cuda_available", true}};
}

/// Everything a worker can report, as large as real ones are.
json heartbeat(int worker, const std::string& model) {
  const json metrics = {
      {"cpu",
       {{"model", "Server CPU 64-Core"},
        {"cores", 64},
        {"threads", 128},
        {"usage_percent", 20.0 + worker % 40},
        {"temperature", 51.5}}},
      {"memory", {{"total", 512 * kGiB}, {"used", 190 * kGiB}, {"available", 322 * kGiB}}},
      {"disk", {{"total", 4096 * kGiB}, {"used", 1700 * kGiB}, {"free", 2396 * kGiB}}},
      {"system", {{"uptime_seconds", 864000}, {"load_average", {12.5, 11.75, 10.25}}}},
      {"network", {{"rx_bytes", 123456789012}, {"tx_bytes", 98765432109}}},
      {"gpus", json::array({gpu(0), gpu(1)})}};
  const json running = {{"name", model},           {"backend", "vllm"},
                        {"model_id", model},       {"memory_usage", 41 * kGiB},
                        {"requests_served", 1234}, {"tokens_generated", 567890},
                        {"avg_latency_ms", 812.5}};
  return {{"backend_type", "vllm"},
          {"metrics", metrics},
          {"running_models", json::array({running})},
          {"available_backends", {"vllm"}},
          {"installed_models", {model}}};
}

/// Sends every request `rounds` times over a few kept-alive connections, each one's next request as
/// soon as its last was answered, and counts the answers that were not 200.
class Volley {
 public:
  Volley(int port, int connections, const std::vector<std::string>& requests, int rounds)
      : requests_(requests) {
    for (int i = 0; i < connections; ++i) {
      Lane lane{connectToLoopback(port), static_cast<std::size_t>(i), rounds, {}, {}};
      if (lane.next < requests.size() && rounds > 0) lanes_.push_back(std::move(lane));
    }
    stride_ = static_cast<std::size_t>(connections);
  }

  void run() {
    for (std::size_t i = 0; i < lanes_.size(); ++i) {
      epoll_.add(lanes_[i].socket.get(), EPOLLIN, i);
      send(lanes_[i]);
    }
    open_ = lanes_.size();
    auto last_answer = platform::steadyNow();
    std::int64_t seen = 0;
    while (open_ > 0) {
      epoll_.wait(kWaitMs, [this](std::uint64_t id, std::uint32_t) {
        read(lanes_[static_cast<std::size_t>(id)]);
      });
      if (std::exchange(seen, answered_) != answered_) last_answer = platform::steadyNow();
      if (platform::steadyNow() - last_answer > kSilence) {
        throw std::runtime_error("the server stopped answering");
      }
    }
  }

  std::int64_t answered() const { return answered_; }
  std::int64_t refused() const { return refused_; }

 private:
  struct Lane {
    Descriptor socket;
    std::size_t next;
    int rounds_left;
    net::HttpResponseParser parser;
    std::string body;
  };

  void send(Lane& lane) {
    if (!sendWhole(lane.socket.get(), requests_[lane.next])) {
      throw std::runtime_error("the server closed a connection");
    }
  }

  void read(Lane& lane) {
    using State = net::HttpResponseParser::State;
    std::array<char, 4096> bytes;
    const ssize_t count = recv(lane.socket.get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) throw std::runtime_error("the server closed a connection");
    const State state =
        lane.parser.consume({bytes.data(), static_cast<std::size_t>(count)}, lane.body);
    if (state == State::kMalformed) throw std::runtime_error("the answer is not HTTP");
    if (state != State::kDone) return;
    ++answered_;
    if (lane.parser.head().status != 200) ++refused_;
    lane.parser = {};
    lane.body.clear();
    advance(lane);
  }

  void advance(Lane& lane) {
    const std::size_t first = static_cast<std::size_t>(&lane - lanes_.data());
    lane.next += stride_;
    if (lane.next >= requests_.size()) {
      lane.next = first;
      --lane.rounds_left;
    }
    if (lane.rounds_left > 0) {
      send(lane);
    } else {
      lane.socket.reset();
      --open_;
    }
  }

  const std::vector<std::string>& requests_;
  std::vector<Lane> lanes_;
  std::size_t stride_ = 1;
  std::size_t open_ = 0;
  Epoll epoll_;
  std::int64_t answered_ = 0;
  std::int64_t refused_ = 0;
};

}  // namespace

nlohmann::json runHeartbeats(Options& options) {
  const int port = options.port("--port");
  const std::vector<int> backends = options.ports("--backend-ports");
  const int workers = options.number("--workers", 10, 1, 100'000);
  const int with_model = options.number("--with-model", workers, 0, workers);
  const std::string model = options.text("--model", "bench-model");
  const int rounds = options.number("--rounds", 1, 0, 100'000);
  const int connections = options.number("--connections", 16, 1, 1'000);
  const bool registers = options.number("--register", 1, 0, 1) == 1;
  options.refuseUnread();

  std::vector<std::string> registrations;
  std::vector<std::string> heartbeats;
  for (int i = 0; i < workers; ++i) {
    const std::string own = i < with_model ? model : "other-model-" + std::to_string(i);
    const int backend = backends[static_cast<std::size_t>(i) % backends.size()];
    registrations.push_back(
        httpPost(port, "/api/v1/workers/register", registration(i, backend, own).dump()));
    heartbeats.push_back(
        httpPost(port, "/api/v1/workers/" + workerId(i) + "/heartbeat", heartbeat(i, own).dump()));
  }
  Volley registering(port, connections, registrations, registers ? 1 : 0);
  registering.run();

  const auto begin = platform::steadyNow();
  Volley beating(port, connections, heartbeats, rounds);
  beating.run();
  const double seconds = platform::millisecondsSince(begin) / 1000;
  return {{"registered", registering.answered()},
          {"heartbeats", beating.answered()},
          {"refused", registering.refused() + beating.refused()},
          {"bytes_each", heartbeats.front().size()},
          {"seconds", seconds},
          {"per_second", static_cast<double>(beating.answered()) / seconds}};
}

}  // namespace tavrel::load
