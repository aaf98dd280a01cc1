#include "platform/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/blocking.h"
#include "platform/clock.h"

extern char** environ;

namespace tavrel::platform {
namespace {

/// Closed at the end of the scope.
class ChildDescriptor {
 public:
  explicit ChildDescriptor(int number = -1) : number_(number) {}
  ~ChildDescriptor() { close(); }
  ChildDescriptor(ChildDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  ChildDescriptor& operator=(ChildDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  int get() const { return number_; }
  bool valid() const { return number_ >= 0; }
  void close() {
    if (valid()) ::close(std::exchange(number_, -1));
  }

 private:
  int number_;
};

struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    read = ChildDescriptor(ends[0]);
    write = ChildDescriptor(ends[1]);
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
  }
  ChildDescriptor read;
  ChildDescriptor write;
};

/// A file in memory that holds the input: the program can read it at its own pace.
ChildDescriptor fileWith(std::string_view input) {
  ChildDescriptor file(::memfd_create("input", MFD_CLOEXEC));
  while (file.valid() && !input.empty()) {
    const ssize_t written = ::write(file.get(), input.data(), input.size());
    if (written < 0 && errno != EINTR) return ChildDescriptor();
    if (written > 0) input.remove_prefix(static_cast<std::size_t>(written));
  }
  if (file.valid()) ::lseek(file.get(), 0, SEEK_SET);
  return file;
}

/// Starts the program with these three streams; 0 or the error number.
int spawn(const std::vector<std::string>& arguments, const std::array<int, 3>& streams,
          pid_t& child) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  for (int i = 0; i < 3; ++i) {
    ::posix_spawn_file_actions_adddup2(&files, streams[static_cast<std::size_t>(i)], i);
  }
  ::posix_spawn_file_actions_addclosefrom_np(&files, 3);

  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int error = ::posix_spawnp(&child, argv[0], &files, &attributes, argv.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&files);
  return error;
}

/// Takes what the pipe holds; closes it at its end.
void drain(ChildDescriptor& pipe, std::string& into, std::size_t limit) {
  std::array<char, 65536> buffer;
  while (pipe.valid()) {
    const ssize_t size = ::read(pipe.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == EAGAIN) return;
    if (size <= 0) {
      pipe.close();
      return;
    }
    into.append(buffer.data(),
                std::min(static_cast<std::size_t>(size), limit - std::min(limit, into.size())));
  }
}

/// How long poll may wait: until the deadline, rounded up.
int pollTimeout(SteadyTime deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steadyNow()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
}

/// A started program and what is read of it.
struct Running {
  pid_t child;
  ChildDescriptor process;  // readable when the program has ended
  ChildDescriptor out;
  ChildDescriptor err;
  int stop_event;  // becomes readable when the program is to end

  /// Reads until the program has ended, or must end.
  ProgramResult::End watch(const ProgramLimits& limits, ProgramResult& result) {
    // A timeout that no clock could add up to means "for years".
    const auto deadline =
        steadyNow() + std::min<std::chrono::milliseconds>(limits.timeout, std::chrono::hours(8760));
    for (;;) {
      pollfd entries[4] = {{process.get(), POLLIN, 0},
                           {stop_event, POLLIN, 0},
                           {out.get(), POLLIN, 0},
                           {err.get(), POLLIN, 0}};
      const int ready = ::poll(entries, 4, pollTimeout(deadline));
      drain(out, result.output, limits.max_output_bytes);
      drain(err, result.error_output, limits.max_output_bytes);
      if (ready > 0 && entries[0].revents != 0) return ProgramResult::End::kExited;
      if (ready > 0 && entries[1].revents != 0) return ProgramResult::End::kStopped;
      if (steadyNow() >= deadline) return ProgramResult::End::kTimedOut;
    }
  }

  int reap() const {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

ProgramResult notStarted(int error) {
  ProgramResult result;
  result.error = std::strerror(error);
  return result;
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& arguments, const ProgramLimits& limits,
                         std::string_view input) {
  if (arguments.empty()) return notStarted(EINVAL);
  Pipe out;
  Pipe err;
  const ChildDescriptor in = fileWith(input);
  const ChildDescriptor event(
      ::eventfd(0, EFD_CLOEXEC));  // outlives the callback that writes to it
  if (!out.read.valid() || !err.read.valid() || !in.valid() || !event.valid()) {
    return notStarted(errno);
  }
  const std::stop_callback on_stop(limits.stop, [descriptor = event.get()] {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
  });
  pid_t child = -1;
  const int error = spawn(arguments, {in.get(), out.write.get(), err.write.get()}, child);
  if (error != 0) return notStarted(error);
  out.write.close();
  err.write.close();

  const BlockingScope blocking;
  ProgramResult result;
  Running running{child, ChildDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0))),
                  std::move(out.read), std::move(err.read), event.get()};
  result.end =
      running.process.valid() ? running.watch(limits, result) : ProgramResult::End::kStopped;
  // The leader has not been waited for, so its number still stands for this group.
  if (result.end != ProgramResult::End::kExited) ::kill(-child, SIGKILL);
  result.exit_status = running.reap();
  drain(running.out, result.output, limits.max_output_bytes);
  drain(running.err, result.error_output, limits.max_output_bytes);
  return result;
}

}  // namespace tavrel::platform
