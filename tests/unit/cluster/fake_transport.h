#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "cluster/cluster_manager.h"
#include "cluster/cluster_transport.h"
#include "platform/mutex.h"

namespace tavrel::test {

/// Answers every call with what `answer` says, and keeps the calls.
class FakeTransport : public cluster::ClusterTransport {
 public:
  using Answer = std::function<cluster::ClusterAnswer(const cluster::ClusterCall&)>;

  explicit FakeTransport(Answer answer = nullptr) : answer_(std::move(answer)) {}

  cluster::ClusterAnswer send(const cluster::ClusterCall& call) override {
    {
      const platform::MutexLock lock(mu_);
      calls_.push_back(call);
    }
    return answer_ ? answer_(call) : cluster::ClusterAnswer{"Couldn't connect to server", 0, {}};
  }

  void answerWith(Answer answer) { answer_ = std::move(answer); }
  /// The calls since the last time.
  std::vector<cluster::ClusterCall> take() {
    const platform::MutexLock lock(mu_);
    return std::exchange(calls_, {});
  }

 private:
  Answer answer_;
  platform::Mutex mu_;
  std::vector<cluster::ClusterCall> calls_ TV_GUARDED_BY(mu_);
};

/// What one node under test is put into: a clock that stands still until it is moved, no threads,
/// and the console as a list of lines.
struct FakeWorld {
  FakeTransport transport;
  platform::SteadyTime now{std::chrono::hours{1}};
  std::vector<std::string> lines;

  cluster::ClusterEnvironment environment() {
    return {transport,
            [this] { return now; },
            [this] { return "id-" + std::to_string(next_id++); },
            [this](std::string_view line) { lines.emplace_back(line); },
            1,
            false};
  }

 private:
  std::atomic<int> next_id{0};
};

}  // namespace tavrel::test
