#pragma once

#include <string>

#include "api/response.h"
#include "platform/text.h"

// Reads and refusals that several route families share.
namespace tavrel::controller {

inline api::Response invalidJsonBody() {
  return api::Response::error(400, "Invalid JSON body");
}

/// Whether a record may be stored under an id out of a path. Bytes that are not UTF-8 could never
/// be listed as JSON again.
inline bool isStorableId(const std::string& id) {
  return !id.empty() && platform::replaceInvalidUtf8(id) == id;
}

}  // namespace tavrel::controller
