#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "net/http_client.h"

namespace tavrel::ai {

/// A prompt for an Ollama-style model server.
struct GenerateCall {
  std::string base_url;  ///< e.g. "http://localhost:11434"
  std::string model;
  std::string prompt;
  double temperature = 0;
  std::int32_t max_tokens = 256;
  std::chrono::milliseconds timeout;
};

/// What became of it: `error` is empty when the model answered.
struct Generated {
  std::string text;
  std::string error;
};

/// Lets the model complete the prompt (POST /api/generate) and waits for the whole answer, of at
/// most 1 MiB. Never throws for what the server sends. Any thread; no lock may be held.
Generated generate(net::HttpClient& http, const GenerateCall& call);

}  // namespace tavrel::ai
