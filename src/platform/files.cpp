#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/random.h"

namespace tavrel::platform {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  ~Descriptor() {
    if (value_ >= 0) ::close(value_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return value_; }

 private:
  int value_;
};

bool writeAll(int descriptor, std::string_view rest) {
  while (!rest.empty()) {
    const ssize_t written = ::write(descriptor, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeWhole(const Descriptor& file, std::string_view content) {
  return writeAll(file.get(), content) && ::fsync(file.get()) == 0;
}

/// Makes a new file of that name with the content, synced. Nothing is left behind on failure.
bool createFile(const std::string& path, std::string_view content) {
  constexpr mode_t kMode = S_IRUSR | S_IWUSR;
  // Without a name until it is whole: a process that is killed leaves no copy of a secret lying
  // about.
  const Descriptor unnamed(::open(parentOf(path).c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, kMode));
  if (unnamed.get() >= 0) {
    if (!writeWhole(unnamed, content)) return false;
    const std::string source = "/proc/self/fd/" + std::to_string(unnamed.get());
    if (::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      return true;
    }
  }
  // Not every file system can do that.
  const Descriptor named(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (named.get() < 0) return false;
  if (writeWhole(named, content)) return true;
  ::unlink(path.c_str());
  return false;
}

/// Beyond it the system calls a chain of symbolic links a loop.
constexpr int kMaxLinks = 40;

bool isPath(const std::string& path) {
  return path.find('\0') == std::string::npos;
}

/// The path of the regular file, there already or not, that writing to `path` replaces: what its
/// symbolic links lead to. Nothing when something else is there.
std::optional<std::string> replaceable(std::filesystem::path path) {
  for (int links = 0; links <= kMaxLinks; ++links) {
    std::error_code error;
    const auto found = std::filesystem::symlink_status(path, error);
    if (found.type() == std::filesystem::file_type::not_found ||
        found.type() == std::filesystem::file_type::regular) {
      return path.string();
    }
    if (found.type() != std::filesystem::file_type::symlink) return std::nullopt;
    const auto target = std::filesystem::read_symlink(path, error);
    if (error) return std::nullopt;
    path = path.parent_path() / target;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> readFile(const std::string& path) {
  if (!isPath(path)) return {};  // the system would take it to end at the NUL
  // Non-blocking, so that a FIFO in the file's place cannot hold the caller.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  std::string content;
  content.reserve(static_cast<std::size_t>(status.st_size));
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {};
    if (count == 0) return content;
    content.append(buffer, static_cast<std::size_t>(count));
  }
}

bool writeFileAtomically(const std::string& wanted, std::string_view content) {
  const auto target = isPath(wanted) ? replaceable(wanted) : std::nullopt;
  if (!target) return false;
  const std::string& path = *target;
  const std::string temporary = path + ".tmp-" + randomHex(8);
  if (!createFile(temporary, content)) return false;
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  const Descriptor directory(::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.get() >= 0) ::fsync(directory.get());
  return true;
}

bool ensureDirectory(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode);
  if (path.empty() || !ensureDirectory(parentOf(path))) return false;
  return ::mkdir(path.c_str(), S_IRWXU) == 0 || errno == EEXIST;
}

std::string userConfigDirectory(const std::string& fallback_home) {
  const char* home = std::getenv("HOME");
  return (home != nullptr && *home != '\0' ? std::string(home) : fallback_home) + "/.config/tavrel";
}

}  // namespace tavrel::platform
