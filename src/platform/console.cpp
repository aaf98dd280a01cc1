#include "platform/console.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace tavrel::platform {
namespace {

// One write call per line: the kernel keeps concurrent lines apart, and nothing is left in a buffer
// when the process is killed.
void writeLine(int descriptor, std::string_view line) {
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line).push_back('\n');
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = ::write(descriptor, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // a closed console is no reason to stop serving
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

void printLine(std::string_view line) {
  writeLine(STDOUT_FILENO, line);
}
void printError(std::string_view line) {
  writeLine(STDERR_FILENO, line);
}

}  // namespace tavrel::platform
