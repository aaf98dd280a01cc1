#pragma once

#include <chrono>
#include <cstddef>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::platform {

struct ProgramLimits {
  std::chrono::milliseconds timeout;  ///< after it the program and its children are killed
  std::size_t max_output_bytes = std::size_t{1}
                                 << 20;  ///< kept of each stream; the rest is dropped
  std::stop_token stop{};                ///< kills it early
};

/// What came of a program.
struct ProgramResult {
  enum class End { kNotStarted, kExited, kTimedOut, kStopped };

  End end = End::kNotStarted;
  std::string error;    ///< why it could not be started, else empty
  int exit_status = 0;  ///< or 128 + the signal that ended it
  std::string output;
  std::string error_output;
};

/// Runs the program `arguments[0]` (searched in PATH) with the other arguments, none of which a
/// shell sees, and waits for its end. It reads `input`, has a process group of its own, the default
/// signal dispositions and no other open file of this process. Children that it leaves running when
/// it exits by itself are left alone, and their output is no longer read.
///
/// Threads: any number may call at once; announced through BlockingScope. Failure: told by the
/// result, never thrown.
ProgramResult runProgram(const std::vector<std::string>& arguments, const ProgramLimits& limits,
                         std::string_view input = "");

}  // namespace tavrel::platform
