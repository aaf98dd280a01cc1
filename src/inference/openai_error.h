#pragma once

#include <string>

namespace tavrel::inference {

/// A refusal or failure in the shape that clients of the OpenAI API read. A plain value.
struct OpenAiError {
  int status = 500;
  std::string message;
  std::string type;   ///< e.g. "invalid_request_error"
  std::string param;  ///< the member that is wrong; empty: null
  std::string code;   ///< empty: null

  /// {"error": {"message", "type", "param", "code"}}, compact. Bytes that are not UTF-8 are
  /// replaced.
  std::string body() const;
  /// The same as one event of a stream that has begun.
  std::string event() const;

  static OpenAiError invalidRequest(std::string message, std::string param, std::string code);
  static OpenAiError modelNotFound(const std::string& model);
  /// No worker could be asked, or none answered in a way that can be handed on: 502, 503 or 504.
  static OpenAiError upstream(int status, std::string message, std::string code);
};

}  // namespace tavrel::inference
