#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "api/request.h"
#include "api/response.h"

// Bodies of the account routes, which anybody may send.
namespace tavrel::controller {

enum class MemberType : std::uint8_t { kText, kNumber, kFlag, kObject, kArray, kObjectOrText };

/// A member that a body may have.
struct BodyMember {
  const char* name;
  MemberType type;
};

/// Bytes of a body that becomes one record: records are listed to others.
inline constexpr std::size_t kMaxRecordBody = std::size_t{1} << 20;
/// As long as the server lets a body be.
inline constexpr std::size_t kAnyLength = std::numeric_limits<std::size_t>::max();

/// Why the body is of no use: it is longer than `max_bytes` (413), no JSON object (400 with the
/// text `not_json`), or one of `members` is there with a wrong type (400 "Invalid JSON body").
/// Nothing when it can be used: request.json() is an object then, and its members read as their
/// types.
std::optional<api::Response> refusedBody(const api::Request& request,
                                         std::initializer_list<BodyMember> members,
                                         std::string_view not_json = "Invalid JSON body",
                                         std::size_t max_bytes = kMaxRecordBody);

/// Whether the members that are there have their types. `value` must be an object.
bool hasTypes(const nlohmann::json& value, std::initializer_list<BodyMember> members);

/// The member when it is there; empty when it is no text.
std::string textOr(const nlohmann::json& object, const char* name, std::string fallback = "");

/// For columns that keep JSON as text: a text as it is, anything else as its JSON.
std::string jsonText(const nlohmann::json& value);
/// The same for a member; `fallback` when it is not there.
std::string jsonTextOr(const nlohmann::json& object, const char* name, std::string fallback);

inline constexpr std::size_t kLeastPasswordCharacters = 8;

bool isTooShort(const std::string& password);

inline api::Response passwordTooShort() {
  return api::Response::error(400, "Password must be at least 8 characters");
}

/// For an address with control characters: it goes into the headers of mails.
inline api::Response invalidEmail() {
  return api::Response::error(400, "Invalid email address");
}

}  // namespace tavrel::controller
