#pragma once

#include "api/response.h"
#include "net/http_client.h"
#include "net/worker_client.h"
#include "platform/outcome.h"

// How what daemons answer is passed on.
namespace tavrel::controller {

/// The answer of a daemon with its status: JSON as JSON, anything else as {"raw_response": text},
/// nothing as {}. `unreached` is the 502 when there was none that can be passed on.
inline api::Response relayed(const net::HttpResult& result, std::string_view unreached) {
  if (!net::canBePassedOn(result)) return api::Response::error(502, unreached);
  nlohmann::json answer =
      result.body.empty() ? nlohmann::json::object() : net::parsedJson(result.body);
  if (answer.is_discarded()) answer = net::rawResponse(result.body);
  return api::Response::json(answer, result.status);
}

inline api::Response toResponse(const platform::Outcome& outcome) {
  if (!outcome.error.empty()) return api::Response::error(outcome.status, outcome.error);
  return api::Response::json(outcome.body, outcome.status);
}

}  // namespace tavrel::controller
