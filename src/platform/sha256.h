#pragma once

#include <string>
#include <string_view>

namespace tavrel::platform {

/// SHA-256 of the bytes as 64 lower-case hexadecimal digits. Any thread.
std::string sha256Hex(std::string_view bytes);

}  // namespace tavrel::platform
