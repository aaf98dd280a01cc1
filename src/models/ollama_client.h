#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "net/worker_client.h"

namespace tavrel::models {

/// What a model server tells about a model.
struct ModelDetails {
  bool found = false;
  std::string modelfile;
  std::string template_text;
  std::string system;
  std::string license;
  std::string parameters;
  nlohmann::json details = nlohmann::json::object();
};

/// Asks one Ollama-style model server. Any thread; calls block.
class OllamaClient {
 public:
  /// `client` must outlive this; `base_url` is e.g. "http://10.0.0.7:11434".
  OllamaClient(net::WorkerClient& client, std::string base_url);

  /// A server that does not know the model gives `found` false. Throws std::runtime_error with the
  /// reason when the server cannot be asked or makes no sense.
  ModelDetails showModel(const std::string& name);

 private:
  net::WorkerClient& client_;
  const std::string base_url_;
};

}  // namespace tavrel::models
