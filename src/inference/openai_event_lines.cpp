#include "inference/openai_event_lines.h"

#include <algorithm>

#include "inference/openai_usage.h"

namespace tavrel::inference {

namespace {

constexpr std::size_t kTailBytes = 3;  // enough for a line's end and a blank line

/// The worker's last word, at the beginning of a line.
bool hasDone(std::string_view lines) {
  for (std::size_t at = lines.find("[DONE]"); at != std::string_view::npos;
       at = lines.find("[DONE]", at + 1)) {
    const std::size_t line = lines.find_last_of("\r\n", at);
    const std::size_t begin = line == std::string_view::npos ? 0 : line + 1;
    const std::string_view before = lines.substr(begin, at - begin);
    if (before == "data: " || before == "data:") return true;
  }
  return false;
}

}  // namespace

std::string_view OpenAiEventLines::take(std::string_view piece) {
  const std::size_t last = piece.find_last_of("\r\n");
  if (last == std::string_view::npos) {
    held_.append(piece);
    if (held_.size() <= kLongestHeld) return {};
    ready_.swap(held_);
    held_.clear();
    return letThrough(ready_);
  }
  const std::string_view lines = piece.substr(0, last + 1);
  if (held_.empty()) {
    held_.assign(piece.substr(last + 1));
    return letThrough(lines);
  }
  ready_.swap(held_);
  ready_.append(lines);
  held_.assign(piece.substr(last + 1));
  return letThrough(ready_);
}

std::string_view OpenAiEventLines::letThrough(std::string_view lines) {
  if (!done_) done_ = hasDone(lines);
  const std::string_view usage = findUsage(lines);
  if (!usage.empty()) usage_.assign(usage);
  tail_.append(lines.substr(lines.size() - std::min(lines.size(), kTailBytes)));
  tail_.erase(0, tail_.size() - std::min(tail_.size(), kTailBytes));
  return lines;
}

bool OpenAiEventLines::done() const {
  return done_ || hasDone(held_);
}

std::string_view OpenAiEventLines::gap() const {
  if (tail_.empty() || tail_.ends_with("\n\n") || tail_.ends_with("\n\r\n") ||
      tail_.ends_with("\r\r")) {
    return "";
  }
  return tail_.back() == '\n' || tail_.back() == '\r' ? "\n" : "\n\n";
}

}  // namespace tavrel::inference
