#include "dev_worker/faults.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace tavrel::dev_worker {
namespace {

struct KindEntry {
  std::string_view name;
  FaultKind kind;
  std::string_view help;
};

constexpr std::array kKinds{
    KindEntry{"refuse", FaultKind::kRefuse, "resets the connection; at rate 1 never listens"},
    KindEntry{"stall", FaultKind::kStall, "takes the request and never answers"},
    KindEntry{"cut", FaultKind::kCut, "closes the connection in the middle of the answer"},
    KindEntry{"5xx", FaultKind::kServerError, "answers 500"},
    KindEntry{"chunked", FaultKind::kChunked, "answers in chunks that split the JSON anywhere"},
    KindEntry{"slow", FaultKind::kSlow, "sends the answer a byte at a time"},
    KindEntry{"garbage", FaultKind::kGarbage, "answers with bytes that are not HTTP"},
    KindEntry{"429", FaultKind::kTooMany, "answers 429"},
    KindEntry{"503", FaultKind::kUnavailable, "answers 503"},
    KindEntry{"drop", FaultKind::kDrop, "closes the connection without an answer"},
};

/// A well-mixed number in [0, 1) for each (request, rule).
double drawFor(std::uint64_t request, std::uint64_t rule) {
  std::uint64_t bits = (request + 1) * 0x9e3779b97f4a7c15ULL + rule * 0xd1b54a32d192ed03ULL;
  bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9ULL;
  bits = (bits ^ (bits >> 27)) * 0x94d049bb133111ebULL;
  bits ^= bits >> 31;
  return static_cast<double>(bits >> 11) * 0x1.0p-53;
}

}  // namespace

std::optional<FaultRule> parseFaultRule(std::string_view text, double default_rate) {
  FaultRule rule;
  rule.rate = default_rate;
  const std::size_t colon = text.find(':');
  const std::string_view name = text.substr(0, colon);
  const auto* entry =
      std::find_if(kKinds.begin(), kKinds.end(), [&](const auto& e) { return e.name == name; });
  if (entry == kKinds.end()) return std::nullopt;
  rule.kind = entry->kind;
  if (colon != std::string_view::npos) {
    const std::string_view rate = text.substr(colon + 1);
    const char* const end = rate.data() + rate.size();
    const auto [stop, error] = std::from_chars(rate.data(), end, rule.rate);
    if (error != std::errc{} || stop != end) return std::nullopt;
  }
  if (!(rule.rate >= 0 && rule.rate <= 1)) return std::nullopt;
  return rule;
}

std::string faultHelp() {
  std::string text;
  for (const KindEntry& entry : kKinds) {
    std::string line = "  " + std::string(entry.name);
    line.resize(32, ' ');
    text += line + std::string(entry.help) + "\n";
  }
  return text;
}

FaultPlan::FaultPlan(std::vector<FaultRule> rules) : rules_(std::move(rules)) {}

std::optional<FaultKind> FaultPlan::next() {
  if (rules_.empty()) return std::nullopt;
  const std::uint64_t request = requests_.fetch_add(1, std::memory_order_relaxed);
  for (std::size_t i = 0; i < rules_.size(); ++i) {
    if (drawFor(request, i) < rules_[i].rate) return rules_[i].kind;
  }
  return std::nullopt;
}

bool FaultPlan::refusesEverybody() const {
  return !rules_.empty() && rules_.front().kind == FaultKind::kRefuse && rules_.front().rate >= 1;
}

}  // namespace tavrel::dev_worker
