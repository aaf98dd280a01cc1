#include "controller/routes/account_body.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "controller/routes/route_input.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::controller {

using api::Response;
using nlohmann::json;

namespace {

bool isOfType(const json& value, MemberType type) {
  switch (type) {
    case MemberType::kText:
      return value.is_string();
    case MemberType::kNumber:
      return value.is_number();
    case MemberType::kFlag:
      return value.is_boolean();
    case MemberType::kObject:
      return value.is_object();
    case MemberType::kArray:
      return value.is_array();
    case MemberType::kObjectOrText:
      return value.is_object() || value.is_string();
  }
  return false;
}

}  // namespace

bool hasTypes(const json& value, std::initializer_list<BodyMember> members) {
  return std::all_of(members.begin(), members.end(), [&](const BodyMember& member) {
    const json* found = platform::jsonMember(value, member.name);
    return found == nullptr || isOfType(*found, member.type);
  });
}

std::optional<Response> refusedBody(const api::Request& request,
                                    std::initializer_list<BodyMember> members,
                                    std::string_view not_json, std::size_t max_bytes) {
  if (request.body.size() > max_bytes) return Response::error(413, "Body too large");
  if (!request.json() || !request.json()->is_object()) return Response::error(400, not_json);
  if (!hasTypes(*request.json(), members)) return invalidJsonBody();
  return std::nullopt;
}

bool isTooShort(const std::string& password) {
  return platform::firstCharacters(password, kLeastPasswordCharacters - 1) == password;
}

std::string textOr(const json& object, const char* name, std::string fallback) {
  const json* value = platform::jsonMember(object, name);
  if (value == nullptr) return fallback;
  return value->is_string() ? value->get<std::string>() : "";
}

std::string jsonText(const json& value) {
  return value.is_string() ? value.get<std::string>() : platform::dumpJson(value);
}

std::string jsonTextOr(const json& object, const char* name, std::string fallback) {
  const json* value = platform::jsonMember(object, name);
  return value == nullptr ? fallback : jsonText(*value);
}

}  // namespace tavrel::controller
