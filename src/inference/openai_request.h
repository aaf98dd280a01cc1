#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "inference/openai_error.h"

namespace tavrel::inference {

enum class OpenAiEndpoint { kChatCompletions, kCompletions, kEmbeddings };

/// Where workers serve the endpoint, e.g. "/v1/chat/completions".
std::string_view openAiPath(OpenAiEndpoint endpoint);
/// The endpoint's name in metrics, e.g. "chat_completions".
std::string_view openAiName(OpenAiEndpoint endpoint);

/// What the gateway has to know about a request body, read in one pass and without building a
/// document: the body itself travels on as it came.
///
/// A plain value that remembers positions only, not the body. Failure: parse tells what is wrong
/// with the body, in the words the client gets.
class OpenAiRequest {
 public:
  /// Members nested deeper than this are treated as not JSON.
  static constexpr std::size_t kMaxDepth = 256;

  /// Reads the body; empty when it can be forwarded. Any JSON text may come, of any size.
  std::optional<OpenAiError> parse(OpenAiEndpoint endpoint, std::string_view body);

  const std::string& model() const { return model_; }
  /// True when the client asked for an event stream.
  bool stream() const { return stream_; }

  /// The same body, byte for byte, but for another text as its model.
  std::string withModel(std::string_view body, const std::string& model) const;

 private:
  std::string model_;
  std::size_t model_begin_ = 0;  // of the value in the body, its quotes included
  std::size_t model_end_ = 0;
  bool stream_ = false;
};

}  // namespace tavrel::inference
