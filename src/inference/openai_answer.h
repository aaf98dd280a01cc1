#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "inference/openai_error.h"

namespace tavrel::inference {

/// What the gateway answers a client. A plain value; a stream runs at most once.
struct OpenAiAnswer {
  /// Writes to the client at once; false once that has left.
  using Sink = std::function<bool(std::string_view)>;

  int status = 200;
  std::string content_type = "application/json";
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::function<void(const Sink&)> stream;  ///< when set, it writes the body

  static OpenAiAnswer error(const OpenAiError& error);
};

}  // namespace tavrel::inference
