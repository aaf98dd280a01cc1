#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

// JSON as text, where what comes in was written by somebody else. No state; any thread.
namespace tavrel::platform {

/// Values that are still read. A value takes two bytes of text and up to a hundred in memory.
inline constexpr std::size_t kMaxJsonValues = std::size_t{1} << 20;

/// True when no object or array in `text` lies deeper than `max_depth`, and it has no more than
/// `max_values` values. Text that is not JSON may give either answer.
bool jsonWithinLimits(std::string_view text, int max_depth,
                      std::size_t max_values = kMaxJsonValues);

/// Nesting that is still read. Deeper documents would exhaust the stack when copied or written.
inline constexpr int kMaxForeignJsonDepth = 256;

/// Reads what another program sent. Bytes that are not UTF-8 and halves of surrogate pairs become
/// U+FFFD. Throws std::exception when it is not JSON or nests too deeply.
nlohmann::json parseForeignJson(std::string_view text);

/// Appends `text` as a JSON string, quotes included. Bytes that are not UTF-8 become U+FFFD.
void appendJsonString(std::string& out, std::string_view text);

/// The value as compact JSON; text in it that is not UTF-8 is replaced, never raised.
std::string dumpJson(const nlohmann::json& value);

/// A JSON array that is written element by element: a long one would take ten times the memory as a
/// document, and the C library keeps much of that.
class JsonArrayText {
 public:
  void add(const nlohmann::json& element);
  /// The whole array, once.
  std::string take();

 private:
  std::string text_ = "[";
};

}  // namespace tavrel::platform
