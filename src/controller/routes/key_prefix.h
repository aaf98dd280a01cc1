#pragma once

#include <cstddef>
#include <string>

#include "platform/text.h"

namespace tavrel::controller {

inline constexpr std::size_t kShownKeyCharacters = 12;

/// The beginning of an API key for lists: twelve characters, of a key as short as that half or
/// less.
inline std::string keyPrefix(const std::string& key) {
  const std::string text = platform::replaceInvalidUtf8(key);
  std::size_t shown = kShownKeyCharacters;
  std::string prefix = platform::firstCharacters(text, shown);
  while (shown > 0 && prefix == text) {
    shown /= 2;
    prefix = platform::firstCharacters(text, shown);
  }
  return prefix + "...";
}

}  // namespace tavrel::controller
