#include "api/request_fibers.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "platform/socket_wait.h"
#include "support/mock_peer.h"
#include "support/raw_client.h"
#include "support/test_server.h"

namespace tavrel::api {
namespace {

using platform::SocketWait;
using platform::steadyNow;
using test::Gate;
using test::RawClient;
using test::TestServer;
using namespace std::chrono_literals;

constexpr const char* kGet = "GET /wait HTTP/1.1\r\n\r\n";

/// A worker's socket and the worker's end of it.
class Worker {
 public:
  Worker() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0); }
  ~Worker() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  int socket() const { return ends_[0]; }
  void say(char what) const { EXPECT_EQ(::send(ends_[1], &what, 1, MSG_NOSIGNAL), 1); }
  char hear() const {
    char what = 0;
    return ::recv(ends_[0], &what, 1, MSG_DONTWAIT) == 1 ? what : '-';
  }

 private:
  int ends_[2] = {-1, -1};
};

/// The descriptor of a gate that one request waits for: each needs one of its own.
class OwnDescriptor {
 public:
  explicit OwnDescriptor(const Gate& gate) : descriptor_(::dup(gate.descriptor())) {}
  ~OwnDescriptor() { ::close(descriptor_); }
  OwnDescriptor(const OwnDescriptor&) = delete;
  OwnDescriptor& operator=(const OwnDescriptor&) = delete;
  int get() const { return descriptor_; }

 private:
  const int descriptor_;
};

/// Asked of the system each time: the compiler may remember the library's answer.
long threadNow() {
  return ::syscall(SYS_gettid);
}

bool reaches(const std::atomic<int>& count, int wanted) {
  for (int i = 0; i < 4000 && count < wanted; ++i) std::this_thread::sleep_for(5ms);
  return count == wanted;
}

std::size_t serverThreads() {
  std::size_t count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "comm");
    std::string name;
    std::getline(file, name);
    if (name == "http") ++count;
  }
  return count;
}

/// A server whose one route waits for `descriptor` and keeps what came of it.
struct WaitingServer {
  explicit WaitingServer(std::function<int()> descriptor, std::chrono::milliseconds time = 30s)
      : server([this, descriptor = std::move(descriptor), time](HttpServer& s) {
          s.get("/wait", [this, descriptor, time](Context& context, const Request&) {
            const int awaited = descriptor();
            ++waiting;
            outcome = platform::waitForSocket(awaited, POLLIN, context.client->descriptor(),
                                              steadyNow() + time);
            ended = steadyNow();
            ++served;
            return Response::ok({});
          });
        }) {}

  std::atomic<int> waiting{0};
  std::atomic<SocketWait> outcome{SocketWait::kReady};
  std::atomic<platform::SteadyTime> ended{};
  std::atomic<int> served{0};
  TestServer server;
};

TEST(RequestFibers, AWaitEndsWithDataAHangUpOrItsDeadline) {
  const Worker worker;
  {
    WaitingServer waits([&] { return worker.socket(); });
    const RawClient client(waits.server.port());
    client.send(kGet);
    ASSERT_TRUE(reaches(waits.waiting, 1));
    std::this_thread::sleep_for(20ms);
    worker.say('a');
    EXPECT_EQ(client.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
    EXPECT_EQ(waits.outcome, SocketWait::kReady);
    EXPECT_EQ(worker.hear(), 'a');

    // Again on the same connections, both of which the set of events knows by now.
    client.send(kGet);
    ASSERT_TRUE(reaches(waits.waiting, 2));
    std::this_thread::sleep_for(20ms);
    const auto left = steadyNow();
    client.halfClose();
    ASSERT_TRUE(reaches(waits.served, 2));
    EXPECT_EQ(waits.outcome, SocketWait::kClientGone);
    EXPECT_LT(waits.ended.load() - left, 1s);
  }
  WaitingServer waits([&] { return worker.socket(); }, 120ms);
  const auto start = steadyNow();
  EXPECT_EQ(waits.server.client().Get("/wait")->status, 200);
  EXPECT_EQ(waits.outcome, SocketWait::kTimedOut);
  EXPECT_GE(waits.ended.load() - start, 120ms);
  EXPECT_LT(waits.ended.load() - start, 2s);
}

TEST(RequestFibers, ASocketThatWasGivenUpTellsOnlyTheNextWhoWaits) {
  const Worker worker;
  const Worker silent;
  std::atomic<int> gave_up{0};
  std::atomic<char> heard_late{'?'};
  std::atomic<char> heard_next{'?'};
  const TestServer server([&](HttpServer& s) {
    s.get("/gives-up", [&](Context& context, const Request&) {
      const int client = context.client->descriptor();
      platform::waitForSocket(worker.socket(), POLLIN, client, steadyNow() + 20ms);
      ++gave_up;
      const auto outcome =
          platform::waitForSocket(silent.socket(), POLLIN, client, steadyNow() + 300ms);
      heard_late = outcome == SocketWait::kTimedOut ? '-' : '!';
      return Response::ok({});
    });
    s.get("/next", [&](Context& context, const Request&) {
      platform::waitForSocket(worker.socket(), POLLIN, context.client->descriptor(),
                              steadyNow() + 20s);
      heard_next = worker.hear();
      return Response::ok({});
    });
  });
  const RawClient first(server.port());
  const RawClient second(server.port());
  first.send("GET /gives-up HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(reaches(gave_up, 1));
  second.send("GET /next HTTP/1.1\r\n\r\n");
  std::this_thread::sleep_for(20ms);
  worker.say('x');
  EXPECT_EQ(second.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  EXPECT_EQ(heard_next, 'x');
  EXPECT_EQ(first.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  EXPECT_EQ(heard_late, '-');
}

TEST(RequestFibers, ThousandsWaitWithAHandfulOfThreads) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr int kRequests = 300;
#else
  constexpr int kRequests = 2000;
#endif
  rlimit files{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = std::min<rlim_t>(files.rlim_max, 3 * kRequests + 200);
  ::setrlimit(RLIMIT_NOFILE, &files);

  Gate gate;
  std::vector<std::unique_ptr<OwnDescriptor>> awaited;
  for (int i = 0; i < kRequests; ++i) awaited.push_back(std::make_unique<OwnDescriptor>(gate));
  std::atomic<std::size_t> next{0};
  WaitingServer waits([&] { return awaited[next++]->get(); });
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < kRequests; ++i) {
    clients.push_back(std::make_unique<RawClient>(waits.server.port()));
    clients.back()->send(kGet);
  }
  ASSERT_TRUE(reaches(waits.waiting, kRequests));
  EXPECT_LE(serverThreads(), 4 * std::thread::hardware_concurrency());
  EXPECT_EQ(waits.server.client().Get("/nothing")->status, 404);
  gate.open();
  for (const auto& client : clients) {
    EXPECT_EQ(client->readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  }
  EXPECT_EQ(waits.served, kRequests);
}

TEST(RequestFibers, BeyondTheMaximumRequestsBlockTheirThreads) {
  Gate gate;
  std::atomic<int> waiting{0};
  ServerConfig config;
  config.max_threads = 8;
  const TestServer server(
      [&](HttpServer& s) {
        s.get("/wait", [&](Context& context, const Request&) {
          const OwnDescriptor awaited(gate);
          ++waiting;
          platform::waitForSocket(awaited.get(), POLLIN, context.client->descriptor(),
                                  steadyNow() + 20s);
          return Response::ok({});
        });
      },
      config);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 14; ++i) {
    clients.push_back(std::make_unique<RawClient>(server.port()));
    clients.back()->send(kGet);
  }
  EXPECT_TRUE(reaches(waiting, 14));
  gate.open();
  for (const auto& client : clients) {
    EXPECT_EQ(client->readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  }
}

/// Handles an exception over many waits, and throws it on at the end.
void waitWhileHandling(const Worker& worker, int client, int rounds, std::atomic<int>& moves) {
  try {
    throw std::runtime_error("of client " + std::to_string(client));
  } catch (const std::exception&) {
    long thread = threadNow();
    for (int i = 0; i < rounds; ++i) {
      platform::waitForSocket(worker.socket(), POLLIN, client, steadyNow() + 20s);
      EXPECT_EQ(worker.hear(), 'w');
      if (threadNow() != std::exchange(thread, threadNow())) ++moves;
    }
    throw;
  }
}

TEST(RequestFibers, MoveBetweenThreadsWithTheirExceptions) {
  constexpr int kClients = 8;
  constexpr int kRounds = 100;
  std::vector<std::unique_ptr<Worker>> workers;
  for (int i = 0; i < kClients; ++i) workers.push_back(std::make_unique<Worker>());
  std::atomic<int> moves{0};
  std::atomic<std::size_t> next{0};
  const TestServer server([&](HttpServer& s) {
    s.get("/wait", [&](Context& context, const Request&) {
      const int client = context.client->descriptor();
      try {
        waitWhileHandling(*workers[next++], client, kRounds, moves);
      } catch (const std::exception& error) {
        EXPECT_EQ(error.what(), "of client " + std::to_string(client));
        return Response::ok({});
      }
      return Response::error(500, "not thrown");
    });
  });
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<RawClient>(server.port()));
    clients.back()->send(kGet);
  }
  std::vector<std::thread> talkers;
  talkers.reserve(workers.size());
  for (const auto& worker : workers) {
    talkers.emplace_back([&worker] {
      for (int i = 0; i < kRounds; ++i) {
        worker->say('w');
        if (i % 4 == 0) std::this_thread::sleep_for(1ms);
      }
    });
  }
  for (std::thread& talker : talkers) talker.join();
  for (const auto& client : clients) {
    EXPECT_EQ(client->readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  }
  EXPECT_GT(moves, 0);
}

TEST(RequestFibers, StopEndsStreamsAtOnceAndGivesOthersTime) {
  const Worker worker;
  const Worker silent;
  const Worker of_stream;
  std::atomic<int> waiting{0};
  std::atomic<int> streams_ended{0};
  ServerConfig config;
  config.stop_grace = 600ms;
  TestServer server(
      [&](HttpServer& s) {
        const auto wait = [&](const Worker& what, Context& context) {
          ++waiting;
          return platform::waitForSocket(what.socket(), POLLIN, context.client->descriptor(),
                                         steadyNow() + 60s);
        };
        s.getStream("/stream", [&, wait](Context& context, const Request&, StreamWriter& writer) {
          writer.write("data: x\n\n");
          if (wait(of_stream, context) == SocketWait::kClientGone) ++streams_ended;
        });
        s.get("/answered", [&, wait](Context& context, const Request&) {
          return wait(worker, context) == SocketWait::kReady ? Response::ok({})
                                                             : Response::error(500, "");
        });
        s.get("/silent", [&, wait](Context& context, const Request&) {
          wait(silent, context);
          return Response::ok({});
        });
      },
      config);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (const char* path : {"/stream", "/answered", "/silent"}) {
    clients.push_back(std::make_unique<RawClient>(server.port()));
    clients.back()->send(std::string("GET ") + path + " HTTP/1.1\r\n\r\n");
  }
  ASSERT_TRUE(reaches(waiting, 3));
  const auto start = steadyNow();
  std::thread stopper([&] { server.server().stop(); });
  EXPECT_TRUE(reaches(streams_ended, 1));
  EXPECT_LT(steadyNow() - start, 500ms);
  worker.say('a');
  EXPECT_EQ(clients[1]->readAll().substr(0, 12), "HTTP/1.1 200");
  EXPECT_LT(steadyNow() - start, 550ms);
  stopper.join();
  EXPECT_GE(steadyNow() - start, 600ms);
  EXPECT_LT(steadyNow() - start, 3s);
}

}  // namespace
}  // namespace tavrel::api
