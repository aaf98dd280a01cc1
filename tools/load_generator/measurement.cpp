#include "load_generator/measurement.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "platform/clock.h"

namespace tavrel::load {
namespace {

constexpr double kMedian = 0.50;
constexpr double kTail = 0.99;

template <typename Number>
void readMember(std::string_view body, std::string_view key, Number most, Number& value) {
  const std::size_t at = body.find(key);
  if (at == std::string_view::npos) return;
  const char* digits = body.data() + at + key.size();
  std::from_chars(digits, body.data() + body.size(), value);
  value = std::clamp(value, Number{0}, most);
}

}  // namespace

double percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const double rank = std::ceil(fraction * static_cast<double>(samples.size()));
  const std::size_t index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
  return samples[std::min(index, samples.size() - 1)];
}

nlohmann::json summaryOf(const std::vector<double>& milliseconds) {
  return {{"samples", milliseconds.size()},
          {"p50", percentile(milliseconds, kMedian)},
          {"p99", percentile(milliseconds, kTail)},
          {"max", percentile(milliseconds, 1.0)}};
}

std::int64_t monotonicNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             platform::steadyNow().time_since_epoch())
      .count();
}

std::string BackendScript::toText() const {
  return "bench events=" + std::to_string(events) + " rate=" + std::to_string(per_second) +
         " delay=" + std::to_string(delay_ms) + " tag=" + std::to_string(tag) + " end";
}

BackendScript BackendScript::fromBody(std::string_view body) {
  BackendScript script;
  const std::size_t begin = body.find("bench events=");
  if (begin == std::string_view::npos) return script;
  body.remove_prefix(begin);
  readMember(body, "events=", 1'000'000, script.events);
  readMember(body, "rate=", 1'000, script.per_second);
  readMember(body, "delay=", 60'000, script.delay_ms);
  readMember(body, "tag=", std::numeric_limits<std::int64_t>::max(), script.tag);
  return script;
}

std::string chatBody(const std::string& model, bool stream, const BackendScript& script) {
  const nlohmann::json message = {{"role", "user"}, {"content", script.toText()}};
  return nlohmann::json{
      {"model", model}, {"messages", nlohmann::json::array({message})}, {"stream", stream}}
      .dump();
}

}  // namespace tavrel::load
