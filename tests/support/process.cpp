#include "support/process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

namespace tavrel::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> mergedEnvironment(const Process::Environment& wanted) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('='));
    if (name != "TAVREL_API_KEY" && !wanted.contains(name)) merged.push_back(text);
  }
  for (const auto& [name, value] : wanted) merged.push_back(name + "=" + value);
  return merged;
}

void closeDescriptor(int& descriptor) {
  if (descriptor >= 0) ::close(descriptor);
  descriptor = -1;
}

// Between fork and exec: only calls that are safe there.
[[noreturn]] void becomeProgram(const char* program, char* const* arguments,
                                char* const* environment, int output, int error, pid_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);  // the parent died before the line above
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(error, STDERR_FILENO);
  ::execve(program, arguments, environment);
  ::_exit(127);
}

}  // namespace

TempDirectory::TempDirectory() {
  path_ = (std::filesystem::temp_directory_path() / "tavrel-test-XXXXXX").string();
  if (::mkdtemp(path_.data()) == nullptr) fail("mkdtemp");
}

TempDirectory::~TempDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

int freePort() {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) fail("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  const bool bound =
      ::bind(descriptor, generic, length) == 0 && ::getsockname(descriptor, generic, &length) == 0;
  ::close(descriptor);
  if (!bound) fail("bind");
  return ntohs(address.sin_port);
}

Process::Process(std::string program, std::vector<std::string> arguments, Environment environment) {
  home_ = environment.try_emplace("HOME", scratch_.path()).first->second;
  arguments.insert(arguments.begin(), program);
  spawn(program, arguments, environment);
}

Process::~Process() {
  if (!exit_status_) {
    signal(SIGKILL);
    reap();
  }
  closeDescriptor(output_.descriptor);
  closeDescriptor(error_.descriptor);
  closeDescriptor(pid_descriptor_);
}

void Process::spawn(const std::string& program, const std::vector<std::string>& arguments,
                    const Environment& environment) {
  if (::access(program.c_str(), X_OK) != 0) fail(program.c_str());
  std::vector<std::string> argument_texts = arguments;
  std::vector<std::string> environment_texts = mergedEnvironment(environment);
  const std::vector<char*> argument_list = pointersTo(argument_texts);
  const std::vector<char*> environment_list = pointersTo(environment_texts);

  std::array<int, 2> output{};
  std::array<int, 2> error{};
  if (::pipe2(output.data(), O_CLOEXEC) != 0 || ::pipe2(error.data(), O_CLOEXEC) != 0) fail("pipe");
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    becomeProgram(program.c_str(), argument_list.data(), environment_list.data(), output[1],
                  error[1], parent);
  }
  ::close(output[1]);
  ::close(error[1]);
  output_.descriptor = output[0];
  error_.descriptor = error[0];
  if (pid_ < 0) fail("fork");
  // The C library's own declaration of this call is missing its C linkage in some versions.
  pid_descriptor_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pid_descriptor_ < 0) fail("pidfd_open");
}

std::optional<std::string> Process::waitForLine(std::string_view text, milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  for (;;) {
    if (const std::string* line = findLine(text)) return *line;
    const bool ended = output_.descriptor < 0 && error_.descriptor < 0;
    if (ended || !pump(deadline)) return std::nullopt;
  }
}

void Process::signal(int number) const {
  if (!exit_status_ && pid_ > 0) ::kill(pid_, number);
}

std::optional<int> Process::waitForExit(milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  while (!exit_status_ || output_.descriptor >= 0 || error_.descriptor >= 0) {
    // Output may be held open by a grandchild; the program's own end is what counts then.
    if (!pump(deadline)) break;
  }
  return exit_status_;
}

bool Process::pump(steady_clock::time_point deadline) {
  std::array<pollfd, 3> watched{{{output_.descriptor, POLLIN, 0},
                                 {error_.descriptor, POLLIN, 0},
                                 {exit_status_ ? -1 : pid_descriptor_, POLLIN, 0}}};
  const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
  const int wait = static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
  const int ready = ::poll(watched.data(), watched.size(), wait);
  if (ready < 0 && errno == EINTR) return true;
  if (ready <= 0) return false;
  if (watched[0].revents != 0) readFrom(output_);
  if (watched[1].revents != 0) readFrom(error_);
  if (watched[2].revents != 0) reap();
  return true;
}

void Process::readFrom(Stream& stream) {
  std::array<char, 8192> buffer{};
  const ssize_t count = ::read(stream.descriptor, buffer.data(), buffer.size());
  if (count < 0 && errno == EINTR) return;
  if (count <= 0) {
    if (!stream.partial.empty()) stream.lines.push_back(std::exchange(stream.partial, {}));
    closeDescriptor(stream.descriptor);
    return;
  }
  for (const char byte : std::string_view(buffer.data(), static_cast<std::size_t>(count))) {
    if (byte == '\n') {
      stream.lines.push_back(std::exchange(stream.partial, {}));
    } else {
      stream.partial.push_back(byte);
    }
  }
}

void Process::reap() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0) {
    if (errno != EINTR) return;
  }
  exit_status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

const std::string* Process::findLine(std::string_view text) const {
  for (const Stream* stream : {&output_, &error_}) {
    for (const std::string& line : stream->lines) {
      if (line.find(text) != std::string::npos) return &line;
    }
  }
  return nullptr;
}

}  // namespace tavrel::test
