#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Reading members of JSON objects that came over the network, and lists for those that go out.
// Values of a wrong type throw nlohmann's type_error, nothing else does. No state; any thread.
namespace tavrel::platform {

/// A JSON number as a `Number`, whatever its size: what lies outside the type's range becomes the
/// nearest value inside it (1e300 as an int32 is INT32_MAX, -1 as a uint64 is 0), a fraction is cut
/// off for integers. Plain `get<int>()` is undefined behaviour or wraps on such values.
template <class Number>
Number jsonNumber(const nlohmann::json& value) {
  static_assert(std::is_arithmetic_v<Number> && !std::is_same_v<Number, bool>);
  using Limits = std::numeric_limits<Number>;
  if constexpr (std::is_integral_v<Number>) {
    if (value.is_number_unsigned()) {
      const auto wide = value.get<std::uint64_t>();
      return std::cmp_greater(wide, Limits::max()) ? Limits::max() : static_cast<Number>(wide);
    }
    if (value.is_number_integer()) {
      const auto wide = value.get<std::int64_t>();
      if (std::cmp_less(wide, Limits::min())) return Limits::min();
      return std::cmp_greater(wide, Limits::max()) ? Limits::max() : static_cast<Number>(wide);
    }
  }
  const auto wide = value.get<double>();
  if (std::isnan(wide)) return Number{};
  // As a double the maximum of a 64-bit integer is the next power of two, which is outside the
  // type: with ">=" the conversion below never sees it.
  if (wide >= static_cast<double>(Limits::max())) return Limits::max();
  if (wide <= static_cast<double>(Limits::lowest())) return Limits::lowest();
  return static_cast<Number>(wide);
}

/// A float as the double with the shortest decimals that mean it: 0.15 stays 0.15 in JSON, where a
/// plain conversion would show 0.15000000596046448.
inline double asWritten(float value) {
  std::array<char, 32> text{};
  const auto written = std::to_chars(text.data(), text.data() + text.size(), value);
  double wide = value;
  std::from_chars(text.data(), written.ptr, wide);
  return wide;
}

/// The member `key` of a JSON object, or null.
inline const nlohmann::json* jsonMember(const nlohmann::json& object, const char* key) {
  const auto& members = object.get_ref<const nlohmann::json::object_t&>();
  const auto member = members.find(key);
  return member == members.end() ? nullptr : &member->second;
}

/// The text under `key`; empty when there is none, or `value` is no object.
inline std::string textMember(const nlohmann::json& value, const char* key) {
  const nlohmann::json* text = value.is_object() ? jsonMember(value, key) : nullptr;
  return text != nullptr && text->is_string() ? text->get<std::string>() : std::string();
}

/// The number under `key` of a JSON object, or `fallback` when the key is missing.
template <class Number>
Number jsonNumberOr(const nlohmann::json& object, const char* key, Number fallback) {
  const nlohmann::json* value = jsonMember(object, key);
  return value == nullptr ? fallback : jsonNumber<Number>(*value);
}

/// Sets `field` to the member `key` of a JSON object; a missing key leaves it as it is.
template <class Field>
void readField(const nlohmann::json& object, const char* key, Field& field) {
  const nlohmann::json* value = jsonMember(object, key);
  if (value == nullptr) return;
  if constexpr (std::is_arithmetic_v<Field> && !std::is_same_v<Field, bool>) {
    field = jsonNumber<Field>(*value);
  } else {
    field = value->get<Field>();
  }
}

/// The same, but a null counts as missing.
template <class Field>
void readFieldUnlessNull(const nlohmann::json& object, const char* key, Field& field) {
  const nlohmann::json* value = jsonMember(object, key);
  if (value != nullptr && !value->is_null()) readField(object, key, field);
}

/// What `toJson` of each record gives, as an array.
template <class Records>
nlohmann::json jsonArray(const Records& records) {
  nlohmann::json array = nlohmann::json::array();
  for (const auto& record : records) array.push_back(record.toJson());
  return array;
}

}  // namespace tavrel::platform
