#include "ai/keyword_finder.h"

#include <deque>
#include <utility>

#include "platform/text.h"

namespace tavrel::ai {
namespace {

constexpr std::int8_t kDropped = -1;

/// The symbol of a prepared character, kDropped for every other.
constexpr std::int8_t symbolOf(unsigned char c) {
  if (c >= 'a' && c <= 'z') return static_cast<std::int8_t>(c - 'a');
  if (c >= '0' && c <= '9') return static_cast<std::int8_t>(c - '0' + 26);
  if (c == ' ') return 36;
  return c == '-' ? std::int8_t{37} : kDropped;
}

/// What becomes of a character of a text: 0 when it is dropped.
constexpr char preparedForm(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return static_cast<char>(c - 'A' + 'a');
  if (c == '\t' || c == '\n') return ' ';
  return symbolOf(c) == kDropped ? '\0' : static_cast<char>(c);
}

template <class Value, class Of>
constexpr std::array<Value, 256> tableOf(Of of) {
  std::array<Value, 256> table{};
  for (std::size_t c = 0; c < table.size(); ++c) table[c] = of(static_cast<unsigned char>(c));
  return table;
}

constexpr auto kSymbolOf = tableOf<std::int8_t>(symbolOf);
constexpr auto kPreparedForm = tableOf<char>(preparedForm);

}  // namespace

std::string KeywordFinder::prepare(std::string_view text) {
  std::string prepared(text.size(), '\0');
  std::size_t size = 0;
  for (const char c : text) {
    const char form = kPreparedForm[static_cast<unsigned char>(c)];
    prepared[size] = form;
    size += form == '\0' ? 0 : 1;
  }
  prepared.resize(size);
  return prepared;
}

std::size_t KeywordFinder::add(std::string_view keyword) {
  std::string lowered = platform::toLower(keyword);
  const std::size_t number = numbers_.size();
  const auto [place, is_new] = numbers_.emplace(std::move(lowered), number);
  if (!is_new) return place->second;
  const std::string& text = place->first;
  if (text.empty()) {
    always_ = number;
  } else if (KeywordFinder::prepare(text) == text) {
    const std::int32_t end = insert(text);
    if (end == kNone) {
      complete_ = false;
    } else {
      states_[static_cast<std::size_t>(end)].keyword = static_cast<std::int32_t>(number);
    }
  }
  return number;
}

/// The state of the keyword's last character, kNone when the tables could grow too large.
std::int32_t KeywordFinder::insert(std::string_view lowered) {
  if (states_.size() + lowered.size() > kMaxStates) return kNone;
  std::size_t state = 0;
  for (const char c : lowered) {
    const auto symbol = static_cast<std::size_t>(kSymbolOf[static_cast<unsigned char>(c)]);
    std::int32_t next = states_[state].next[symbol];
    if (next == kNone) {
      next = static_cast<std::int32_t>(states_.size());
      states_[state].next[symbol] = next;
      states_.emplace_back();
    }
    state = static_cast<std::size_t>(next);
  }
  return static_cast<std::int32_t>(state);
}

/// Turns the tree of keywords into a machine that knows a next state for every character: nearest
/// states first, each leans on its longest proper suffix, which is done before it.
void KeywordFinder::build() {
  struct Pending {
    std::size_t state;
    std::size_t suffix;
  };
  std::deque<Pending> pending;
  for (std::int32_t& next : states_[0].next) {
    if (next == kNone) {
      next = 0;
    } else {
      pending.push_back({static_cast<std::size_t>(next), 0});
    }
  }
  for (; !pending.empty(); pending.pop_front()) {
    const auto [at, suffix_at] = pending.front();
    State& state = states_[at];
    const State& suffix = states_[suffix_at];
    state.shorter = suffix.keyword != kNone ? static_cast<std::int32_t>(suffix_at) : suffix.shorter;
    for (std::size_t symbol = 0; symbol < kSymbols; ++symbol) {
      std::int32_t& next = state.next[symbol];
      if (next == kNone) {
        next = suffix.next[symbol];
      } else {
        pending.push_back(
            {static_cast<std::size_t>(next), static_cast<std::size_t>(suffix.next[symbol])});
      }
    }
  }
}

/// Everything that ends at this state. What was found before has had its suffixes marked too.
void KeywordFinder::mark(std::int32_t state, std::vector<char>& found) const {
  while (state != kNone) {
    const State& at = states_[static_cast<std::size_t>(state)];
    if (at.keyword != kNone) {
      char& seen = found[static_cast<std::size_t>(at.keyword)];
      if (seen != 0) return;
      seen = 1;
    }
    state = at.shorter;
  }
}

std::vector<char> KeywordFinder::find(std::string_view prepared) const {
  std::vector<char> found(numbers_.size(), 0);
  if (always_ < found.size()) found[always_] = 1;
  std::int32_t state = 0;
  for (const char c : prepared) {
    const std::int8_t symbol = kSymbolOf[static_cast<unsigned char>(c)];
    if (symbol == kDropped) continue;
    state = states_[static_cast<std::size_t>(state)].next[static_cast<std::size_t>(symbol)];
    const State& at = states_[static_cast<std::size_t>(state)];
    if (at.keyword != kNone || at.shorter != kNone) mark(state, found);
  }
  return found;
}

}  // namespace tavrel::ai
