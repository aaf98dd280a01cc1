#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::dev_worker {

/// The ways a worker can fail its callers.
enum class FaultKind {
  kRefuse,       ///< resets the connection; at rate 1 it does not listen at all
  kStall,        ///< takes the request and never answers
  kCut,          ///< closes the connection in the middle of the answer
  kServerError,  ///< answers 500
  kChunked,      ///< answers in chunks that split the JSON anywhere
  kSlow,         ///< sends the answer a byte at a time
  kGarbage,      ///< answers with bytes that are not HTTP
  kTooMany,      ///< answers 429
  kUnavailable,  ///< answers 503
  kDrop,         ///< closes the connection without an answer
};

struct FaultRule {
  FaultKind kind = FaultKind::kServerError;
  double rate = 1;  ///< share of the requests it befalls, 0 to 1
};

/// "KIND" or "KIND:RATE"; nothing for an unknown kind or a rate outside 0 to 1.
std::optional<FaultRule> parseFaultRule(std::string_view text, double default_rate);

/// One line per kind, for the usage text.
std::string faultHelp();

/// Decides which requests a fault befalls: the n-th request of a worker always meets the same one,
/// so a failing run can be repeated. Threads: any.
class FaultPlan {
 public:
  explicit FaultPlan(std::vector<FaultRule> rules);

  /// The fault for the next request. Rules are asked in order, each with its own rate.
  std::optional<FaultKind> next();

  /// True when nobody is to be let in at all.
  bool refusesEverybody() const;

 private:
  const std::vector<FaultRule> rules_;
  std::atomic<std::uint64_t> requests_{0};
};

}  // namespace tavrel::dev_worker
