#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/request.h"
#include "api/response.h"
#include "platform/text.h"

// Reads and refusals that several route families share.
namespace tavrel::controller {

inline api::Response invalidJsonBody() {
  return api::Response::error(400, "Invalid JSON body");
}

/// A list under its name, and how long it is.
inline api::Response counted(const char* name, nlohmann::json list) {
  const std::size_t count = list.size();
  return api::Response::ok({{name, std::move(list)}, {"count", count}});
}

/// Whether a record may be stored under an id out of a path. Bytes that are not UTF-8 could never
/// be listed as JSON again.
inline bool isStorableId(const std::string& id) {
  return !id.empty() && platform::replaceInvalidUtf8(id) == id;
}

/// A query parameter as a decimal integer, brought into the range of the type. Throws, which
/// answers 500, when it is given and not a number.
inline std::int32_t queryNumber(const api::Request& req, const std::string& name,
                                std::int32_t fallback) {
  using Limits = std::numeric_limits<std::int32_t>;
  const long long value = std::stoll(req.getQuery(name, std::to_string(fallback)));
  return static_cast<std::int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
}

}  // namespace tavrel::controller
