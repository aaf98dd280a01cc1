#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavrel::inference {

/// Answers of workers and model servers larger than this are not read to their end.
inline constexpr std::size_t kMaxWorkerAnswerBytes = std::size_t{64} << 20;

/// What a worker said, whichever of the usual shapes it said it in. A plain value.
struct WorkerAnswer {
  std::string text;
  std::string tool_calls;  ///< a JSON array; empty: none
  std::string tools;       ///< a JSON array; empty: none
  std::int64_t prompt_tokens = 0;
  std::int64_t completion_tokens = 0;
};

/// Reads the body of an answer. Members of a wrong type count as missing, text that is not UTF-8 is
/// replaced. Throws std::exception when it is not JSON or nests too deeply.
WorkerAnswer parseWorkerAnswer(std::string_view body);

/// What the completion tells beside the answer.
struct CompletionFacts {
  std::string_view request_id;
  std::int64_t created = 0;  ///< seconds since the epoch
  std::string_view model;
  std::string_view worker;
  std::string_view worker_host;  ///< "address:port"
  std::string_view strategy;
  std::string_view reason;
};

/// The completion object that clients get, compact, keys in order.
std::string completionJson(const WorkerAnswer& answer, const CompletionFacts& facts);

}  // namespace tavrel::inference
