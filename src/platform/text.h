#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavrel::platform {

/// ASCII letters in lower case; every other byte as it is.
std::string toLower(std::string_view text);
bool equalsIgnoringCase(std::string_view a, std::string_view b);

/// The first `max_characters` UTF-8 characters of `text`, never half a character.
std::string firstCharacters(std::string_view text, std::size_t max_characters);

/// `text` with every byte sequence that is not UTF-8 replaced by U+FFFD.
std::string replaceInvalidUtf8(std::string_view text);

/// Whether a control character is in `text`. Without one, nothing can end the line or the string
/// that it is put into.
bool hasControls(std::string_view text);

/// `text` with every control character replaced by a space, so that what somebody sent cannot pass
/// for a console line of its own.
std::string singleLine(std::string_view text);

/// `text` as one URL path segment or query value: everything but unreserved characters becomes %XX,
/// and a segment "." or ".." is encoded as well, so that no proxy on the way collapses it.
std::string percentEncode(std::string_view text);

/// `text` for an HTML text node or a quoted attribute.
std::string escapeHtml(std::string_view text);

/// How often `needle` occurs in `text`, occurrences not overlapping. 0 for an empty needle.
std::size_t countOccurrences(std::string_view text, std::string_view needle);

}  // namespace tavrel::platform
