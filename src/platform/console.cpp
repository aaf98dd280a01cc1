#include "platform/console.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace tavrel::platform {
namespace {

// One write call per text: the kernel keeps concurrent ones apart, and nothing is left in a buffer
// when the process is killed.
void writeText(int descriptor, std::string_view rest) {
  while (!rest.empty()) {
    const ssize_t written = ::write(descriptor, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // a closed console is no reason to stop serving
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

void writeLine(int descriptor, std::string_view line) {
  std::string text;
  text.reserve(line.size() + 1);
  for (const char c : line) {
    text.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c);
  }
  text.push_back('\n');
  writeText(descriptor, text);
}

}  // namespace

void printLine(std::string_view line) {
  writeLine(STDOUT_FILENO, line);
}
void printError(std::string_view line) {
  writeLine(STDERR_FILENO, line);
}

void printText(std::string_view text) {
  writeText(STDOUT_FILENO, text);
}

}  // namespace tavrel::platform
