#pragma once

#include <string_view>

namespace tavrel::platform {

/// Writes one line (the line end is added) to standard output in one piece, flushed. Lines of
/// concurrent callers never mix. Control characters become "?", so that no name or path that came
/// over the network can forge a line or steer a terminal. Any thread.
void printLine(std::string_view line);

/// The same on standard error.
void printError(std::string_view line);

/// Writes a text of our own, line ends included, as it is.
void printText(std::string_view text);

}  // namespace tavrel::platform
