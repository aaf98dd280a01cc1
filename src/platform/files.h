#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tavrel::platform {

/// The whole file, or nothing when it cannot be opened, read, or is not a regular file. A path with
/// a NUL in it is no path, for reading and writing.
std::optional<std::string> readFile(const std::string& path);

/// Replaces `path` with `content`: written to a temporary file beside it (mode 0600), synced and
/// renamed, so a reader or a crash sees the old file or the new one, never a mixture. A symbolic
/// link stays and what it points to is replaced; anything but a regular file is refused.
/// Returns false, and leaves the old file alone, when any step fails.
bool writeFileAtomically(const std::string& path, std::string_view content);

/// Creates the directory and its missing parents with mode 0700. True when it exists afterwards.
bool ensureDirectory(const std::string& path);

/// `$HOME/.config/tavrel`, or `<fallback_home>/.config/tavrel` when HOME is unset or empty.
std::string userConfigDirectory(const std::string& fallback_home);

}  // namespace tavrel::platform
