#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::load {

/// The value that a share of `fraction` of the samples does not exceed (nearest rank); 0 without
/// samples.
double percentile(std::vector<double> samples, double fraction);

/// {"samples", "p50", "p99", "max"} of times in milliseconds.
nlohmann::json summaryOf(const std::vector<double>& milliseconds);

/// Nanoseconds of the machine's monotonic clock: the same in every process.
std::int64_t monotonicNanoseconds();

/// What the benchmark backend is asked to do. It travels in the text of the user's message, because
/// that is the one part of a request which every proxy passes on unchanged.
struct BackendScript {
  int events = 50;       ///< of a streamed answer
  int per_second = 50;   ///< pace of those events; 0: all at once
  int delay_ms = 0;      ///< before a plain answer
  std::int64_t tag = 0;  ///< under which arrival and leaving are noted; 0: not noted

  std::string toText() const;
  /// Reads a script out of a request body; members that are not in it keep their defaults.
  static BackendScript fromBody(std::string_view body);
};

/// The chat request that carries the script.
std::string chatBody(const std::string& model, bool stream, const BackendScript& script);

}  // namespace tavrel::load
