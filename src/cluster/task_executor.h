#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <stop_token>
#include <string>

namespace tavrel::net {
class HttpClient;
}

namespace tavrel::cluster {

/// A task that cannot be begun; what() says why.
struct TaskRefused : std::runtime_error {
  TaskRefused(int http_status, const std::string& why)
      : std::runtime_error(why), status(http_status) {}
  int status;
};

/// Carries out tasks that other nodes send: commands, health checks and questions for models.
/// Commands run with the rights of this process; whoever lets tasks in decides who may send them.
///
/// Threads: any; calls block for as long as the task takes, at most its "timeout_ms".
class TaskExecutor {
 public:
  static constexpr std::size_t kMaxOutputBytes = std::size_t{1} << 20;

  /// The client must outlive it. A stop kills the commands that run.
  TaskExecutor(net::HttpClient& http, std::stop_token stop) : http_(http), stop_(std::move(stop)) {}

  /// The answer to a task: "type", and "params" or else "payload". Throws TaskRefused; members of a
  /// wrong type throw nlohmann's exception.
  nlohmann::json execute(const nlohmann::json& task) const;

 private:
  nlohmann::json runCommand(const nlohmann::json& params, int timeout_ms) const;
  nlohmann::json listModels(const nlohmann::json& params, int timeout_ms) const;

  net::HttpClient& http_;
  const std::stop_token stop_;
};

}  // namespace tavrel::cluster
