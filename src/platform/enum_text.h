#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Enumerations whose values count up from 0, written as the texts of a table in that order.
namespace tavrel::platform {

template <class Enum, std::size_t N>
std::string enumText(Enum value, const std::string_view (&texts)[N]) {
  const auto place = static_cast<std::size_t>(value);
  return std::string(place < N ? texts[place] : "unknown");
}

template <class Enum, std::size_t N>
std::optional<Enum> enumFromText(std::string_view text, const std::string_view (&texts)[N]) {
  for (std::size_t place = 0; place < N; ++place) {
    if (texts[place] == text) return static_cast<Enum>(place);
  }
  return std::nullopt;
}

}  // namespace tavrel::platform
