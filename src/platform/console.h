#pragma once

#include <string_view>

namespace tavrel::platform {

/// Writes one line (the line end is added) to standard output in one piece, flushed. Lines of
/// concurrent callers never mix. Any thread.
void printLine(std::string_view line);

/// The same on standard error.
void printError(std::string_view line);

}  // namespace tavrel::platform
