#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "load_generator/bench_backend.h"
#include "load_generator/loads.h"
#include "load_generator/measurement.h"
#include "load_generator/socket.h"

namespace tavrel::load {
namespace {

Options optionsOf(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  return Options(static_cast<int>(pointers.size()), pointers.data(), 0);
}

/// A backend on a thread of its own.
class RunningBackend {
 public:
  RunningBackend() : stop_{makePipe()}, backend_(2, stop_.read.get()) {
    thread_ = std::thread([this] { backend_.run(); });
  }
  ~RunningBackend() {
    stop_.write.reset();
    thread_.join();
  }
  std::string port() const { return std::to_string(backend_.ports().front()); }

 private:
  struct Pipe {
    Descriptor read, write;
  };
  static Pipe makePipe() {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }

  Pipe stop_;
  BenchBackend backend_;
  std::thread thread_;
};

/// Answers one request with the given bytes and hangs up.
class OneAnswer {
 public:
  explicit OneAnswer(std::string answer) {
    listener_ = listenOnLoopback(0, port_);
    thread_ = std::thread([this, text = std::move(answer)] {
      Epoll waiting;
      waiting.add(listener_.get(), EPOLLIN, 0);
      waiting.wait(kIoSeconds * 1000, [](std::uint64_t, std::uint32_t) {});
      const Descriptor connection(accept(listener_.get(), nullptr, nullptr));
      char request[4096];
      if (recv(connection.get(), request, sizeof request, 0) > 0) {
        sendWhole(connection.get(), text);
      }
    });
  }
  ~OneAnswer() { thread_.join(); }
  std::string port() const { return std::to_string(port_); }

 private:
  int port_ = 0;
  Descriptor listener_;
  std::thread thread_;
};

TEST(LoadMeasurement, PercentileIsTheNearestRankWhateverTheOrder) {
  std::vector<double> samples;
  for (int i = 100; i >= 1; --i) samples.push_back(i);
  EXPECT_EQ(percentile(samples, 0.50), 50);
  EXPECT_EQ(percentile(samples, 0.99), 99);
  EXPECT_EQ(percentile({7}, 0.99), 7);
  EXPECT_EQ(percentile({}, 0.99), 0);
}

TEST(LoadMeasurement, ScriptSurvivesTheRequestBodyAndIsBounded) {
  BackendScript script;
  script.events = 7;
  script.per_second = 30;
  script.delay_ms = 40;
  script.tag = 1234567890123;
  const BackendScript read = BackendScript::fromBody(chatBody("bench-model", true, script));
  EXPECT_EQ(read.events, 7);
  EXPECT_EQ(read.per_second, 30);
  EXPECT_EQ(read.delay_ms, 40);
  EXPECT_EQ(read.tag, 1234567890123);
  EXPECT_EQ(BackendScript::fromBody("bench events=-5 rate=99999999 end").events, 0);
  EXPECT_EQ(BackendScript::fromBody("bench events=-5 rate=99999999 end").per_second, 1000);
}

TEST(LoadOptions, RefuseWhatWouldMeasureSomethingElse) {
  Options misspelt = optionsOf({"--port", "80", "--stream", "1"});
  EXPECT_THROW(runStream(misspelt), std::invalid_argument);
  Options half = optionsOf({"--port", "80x"});
  EXPECT_THROW(half.port("--port"), std::invalid_argument);
  EXPECT_THROW(optionsOf({"--port"}), std::invalid_argument);
  Options none = optionsOf({});
  EXPECT_THROW(none.port("--port"), std::invalid_argument);
}

TEST(LoadGenerator, CountsEveryEventOfEveryStream) {
  const RunningBackend backend;
  Options options =
      optionsOf({"--port", backend.port(), "--streams", "5", "--events", "20", "--rate", "1000"});
  const nlohmann::json figures = runStream(options);
  EXPECT_EQ(figures["complete"], 5);
  EXPECT_EQ(figures["events"], 100);
  EXPECT_EQ(figures["first_byte_ms"]["samples"], 5);
}

TEST(LoadGenerator, SeesThatAStreamWasCutShort) {
  const OneAnswer server(
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "9\r\ndata: {}\n\r\n1\r\n\n\r\n6\r\ndata: \r\n");
  Options options =
      optionsOf({"--port", server.port(), "--streams", "1", "--events", "3", "--limit", "5"});
  const nlohmann::json figures = runStream(options);
  EXPECT_EQ(figures["complete"], 0);
  EXPECT_EQ(figures["events"], 1);
  EXPECT_EQ(figures["expected"], 3);
}

TEST(LoadGenerator, TheBackendNoticesClientsThatLeave) {
  const RunningBackend backend;
  for (const std::string stream : {"0", "1"}) {
    Options options = optionsOf({"--port", backend.port(), "--backend-port", backend.port(),
                                 "--count", "3", "--stay", "1", "--stream", stream});
    const nlohmann::json figures = runLeave(options);
    EXPECT_EQ(figures["unnoticed"], 0) << "stream " << stream;
    EXPECT_EQ(figures["noticed_ms"]["samples"], 3);
    EXPECT_GE(figures["noticed_ms"]["p50"].get<double>(), 0);
  }
}

TEST(LoadGenerator, CountsRefusedHeartbeats) {
  const RunningBackend backend;  // knows no such route
  Options options =
      optionsOf({"--port", backend.port(), "--backend-ports", backend.port(), "--workers", "7",
                 "--rounds", "3", "--connections", "2", "--register", "0"});
  const nlohmann::json figures = runHeartbeats(options);
  EXPECT_EQ(figures["heartbeats"], 21);
  EXPECT_EQ(figures["refused"], 21);
}

}  // namespace
}  // namespace tavrel::load
