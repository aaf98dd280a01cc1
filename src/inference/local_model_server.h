#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inference/chat_request.h"
#include "inference/worker_answer.h"
#include "net/http_client.h"

namespace tavrel::inference {

/// A model that a model server has.
struct LocalModel {
  std::string name;
  std::optional<std::uint64_t> size_bytes;
};

/// The Ollama-style model server that may run beside the controller: asked when no worker has a
/// model.
///
/// Threads: any. Calls block, at most for the times below. Failure: a server that is not there, or
/// makes no sense, has no models and no answers; nothing throws.
class LocalModelServer {
 public:
  static constexpr const char* kDefaultUrl = "http://localhost:11434";
  static constexpr std::chrono::milliseconds kConnectTimeout{1000};
  static constexpr std::chrono::milliseconds kListTimeout{2000};
  static constexpr std::chrono::milliseconds kChatTimeout{120'000};

  /// `http` must outlive this.
  explicit LocalModelServer(net::HttpClient& http, std::string base_url = kDefaultUrl);

  const std::string& baseUrl() const { return base_url_; }
  /// The part of the base URL that names the machine, e.g. "localhost:11434".
  const std::string& host() const { return host_; }

  std::vector<LocalModel> listModels();
  /// Exact match of the name.
  bool hasModel(const std::string& model);

  struct Chat {
    WorkerAnswer answer;
    std::string error;  ///< empty when there is an answer
  };
  Chat chat(const ChatRequest& request);

 private:
  net::HttpClient& http_;
  const std::string base_url_;
  const std::string host_;
};

}  // namespace tavrel::inference
