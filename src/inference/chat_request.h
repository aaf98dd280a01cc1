#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace tavrel::inference {

/// What a client asks for in a chat request, kept as the JSON text that goes on to the worker: the
/// conversation is never copied as a document. A plain value.
struct ChatRequest {
  std::string model;
  std::string messages;     ///< a JSON array with at least one element
  std::string temperature;  ///< JSON numbers, as the client wrote them
  std::string max_tokens;
  std::string top_p;
  std::string tools;        ///< JSON; empty: not sent
  std::string tool_choice;  ///< JSON; empty: not sent

  /// Reads the body of a request that has messages; members that are null count as missing. Numbers
  /// and texts of another type throw nlohmann's type_error.
  static ChatRequest read(const nlohmann::json& body);

  /// Puts a message of the role "system" before the conversation.
  void prependSystemMessage(std::string_view content);

  /// The body of the request to a worker.
  std::string workerBody(bool stream) const;
  /// The body of the request to an Ollama-style server.
  std::string localServerBody() const;
};

/// True when the body asks for an answer of several models.
bool asksForEnsemble(const nlohmann::json& body);

/// The conversation of the request; null when it is missing, not an array, or empty.
const nlohmann::json* chatMessages(const nlohmann::json& body);

/// What the last message of the role "user" says; the text parts one after the other when it
/// consists of parts.
std::string lastUserText(const nlohmann::json& messages);

}  // namespace tavrel::inference
