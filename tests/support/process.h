#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::test {

/// A directory of its own under the system's temporary directory, removed with all it holds when
/// the object goes.
class TempDirectory {
 public:
  TempDirectory();
  ~TempDirectory();
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// A TCP port of the loopback interface that nobody listened on a moment ago. Prefer programs that
/// take port 0 themselves: between this call and its use somebody else may take the port.
int freePort();

/// A program under test: its console lines, its signals, its end. HOME is a fresh directory unless
/// the caller's environment names one; TAVREL_API_KEY is not inherited.
///
/// Threads: the one that made it (the program is killed when that thread ends, so a crashed test
/// leaves nothing behind).
/// Time: every wait takes its own limit and ends as soon as it can; output is read only during
/// waits, so a program that prints more than a pipe holds (64 KiB) needs one.
/// Failure: the constructor throws std::system_error when the program cannot be started; a program
/// still running at destruction is killed.
class Process {
 public:
  using Environment = std::map<std::string, std::string>;

  explicit Process(std::string program, std::vector<std::string> arguments = {},
                   Environment environment = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// The first line, of either stream and however long ago, that contains `text`. Nothing when the
  /// time ran out or the program ended without it.
  std::optional<std::string> waitForLine(std::string_view text, std::chrono::milliseconds timeout);

  void signal(int number) const;

  /// The exit status, or 128 + the signal that ended the program; nothing when it still runs after
  /// `timeout`. All output has been collected when a value comes back.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout);

  /// Complete lines seen so far, line ends removed.
  const std::vector<std::string>& outputLines() const { return output_.lines; }
  const std::vector<std::string>& errorLines() const { return error_.lines; }

  pid_t pid() const { return pid_; }
  const std::string& home() const { return home_; }

 private:
  struct Stream {
    int descriptor = -1;
    std::string partial;
    std::vector<std::string> lines;
  };

  void spawn(const std::string& program, const std::vector<std::string>& arguments,
             const Environment& environment);
  /// Waits until output or the end arrives and takes it in; false at the deadline.
  bool pump(std::chrono::steady_clock::time_point deadline);
  static void readFrom(Stream& stream);
  void reap();
  const std::string* findLine(std::string_view text) const;

  TempDirectory scratch_;
  std::string home_;
  Stream output_;
  Stream error_;
  pid_t pid_ = -1;
  int pid_descriptor_ = -1;
  std::optional<int> exit_status_;
};

}  // namespace tavrel::test
