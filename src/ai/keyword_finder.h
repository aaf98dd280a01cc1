#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tavrel::ai {

/// Finds which of many keywords occur in a text, all in one pass over it (Aho-Corasick).
///
/// Texts are searched in prepared form: ASCII letters in lower case, digits, blanks and "-";
/// everything else is gone. A keyword with another character in it therefore never occurs, and the
/// empty keyword always does.
///
/// Use: add every keyword, then build, then find. Threads: find from any number once built.
/// Failure: keywords that would take more than kMaxStates are left out, which complete() tells.
class KeywordFinder {
 public:
  /// Letters that keywords may have together, those of a common beginning counted once: whoever
  /// configures megabytes of them must not get gigabytes of tables.
  static constexpr std::size_t kMaxStates = std::size_t{1} << 19;

  /// The number under which `find` tells about the keyword. Case does not matter.
  std::size_t add(std::string_view keyword);
  void build();
  /// Whether every keyword that was added is searched for.
  bool complete() const { return complete_; }

  /// For each number whether the keyword occurs.
  std::vector<char> find(std::string_view prepared) const;

  /// The prepared form of a text: tabs and line ends become blanks.
  static std::string prepare(std::string_view text);

 private:
  static constexpr std::size_t kSymbols = 38;
  static constexpr std::int32_t kNone = -1;

  struct State {
    State() { next.fill(kNone); }
    std::array<std::int32_t, kSymbols> next;
    std::int32_t keyword = kNone;  ///< that ends here
    std::int32_t shorter = kNone;  ///< the longest proper suffix at which a keyword ends
  };

  std::int32_t insert(std::string_view lowered);
  void mark(std::int32_t state, std::vector<char>& found) const;

  std::unordered_map<std::string, std::size_t> numbers_;
  std::vector<State> states_ = std::vector<State>(1);
  bool complete_ = true;
  std::size_t always_ = SIZE_MAX;  ///< the number of the empty keyword
};

}  // namespace tavrel::ai
