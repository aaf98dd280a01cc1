#include "metrics/exposition.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace tavrel::metrics {
namespace {

using nlohmann::json;

/// The shortest text that reads back as the same number.
std::string numberText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char buffer[32];
  const auto result = std::to_chars(std::begin(buffer), std::end(buffer), value);
  return std::string(buffer, result.ptr);
}

/// Backslashes and line ends escaped, in label values quotes as well.
std::string escaped(std::string_view text, bool quotes) {
  std::string out;
  out.reserve(text.size());
  for (const char c : platform::replaceInvalidUtf8(text)) {
    if (c == '\n') {
      out += "\\n";
    } else {
      if (c == '\\' || (quotes && c == '"')) out += '\\';
      out += c;
    }
  }
  return out;
}

using LabelTexts = std::vector<std::pair<std::string, std::string>>;

std::string formatLabels(const LabelTexts& labels) {
  if (labels.empty()) return "";
  std::string text;
  for (const auto& [name, value] : labels) {
    text += text.empty() ? '{' : ',';
    text.append(name).append("=\"").append(escaped(value, true)).append("\"");
  }
  return text + '}';
}

void appendSample(std::string& out, const std::string& name, const std::string& labels,
                  const std::string& value) {
  out.append(name).append(labels).append(" ").append(value).append("\n");
}

void appendHistogram(std::string& out, const std::string& name, const LabelTexts& labels,
                     const HistogramBuckets& buckets) {
  LabelTexts with_bound = labels;
  const auto place = std::find_if(with_bound.begin(), with_bound.end(),
                                  [](const auto& label) { return label.first > "le"; });
  std::string& bound = with_bound.insert(place, {"le", ""})->second;
  for (std::size_t i = 0; i < buckets.bounds.size(); ++i) {
    bound = numberText(buckets.bounds[i]);
    appendSample(out, name + "_bucket", formatLabels(with_bound),
                 std::to_string(buckets.counts[i]));
  }
  bound = "+Inf";
  appendSample(out, name + "_bucket", formatLabels(with_bound), std::to_string(buckets.count));
  appendSample(out, name + "_sum", formatLabels(labels), numberText(buckets.sum));
  appendSample(out, name + "_count", formatLabels(labels), std::to_string(buckets.count));
}

struct Kind {
  MetricType type;
  const char* name;
  const char* json_key;
};
constexpr Kind kKinds[] = {{MetricType::kCounter, "counter", "counters"},
                           {MetricType::kGauge, "gauge", "gauges"},
                           {MetricType::kHistogram, "histogram", "histograms"}};

json seriesJson(const FamilySnapshot& family) {
  json series = json::array();
  for (const auto& [key, value] : family.values) {
    series.push_back(
        {{"labels", json::object_t(key->labels.begin(), key->labels.end())}, {"value", value}});
  }
  for (const auto& [key, histogram] : family.histograms) {
    json buckets = json::array();
    for (std::size_t i = 0; i < histogram.bounds.size(); ++i) {
      buckets.push_back({{"le", histogram.bounds[i]}, {"count", histogram.counts[i]}});
    }
    series.push_back({{"labels", json::object_t(key->labels.begin(), key->labels.end())},
                      {"sum", histogram.sum},
                      {"count", histogram.count},
                      {"buckets", std::move(buckets)}});
  }
  return series;
}

}  // namespace

std::string toPrometheusText(const std::vector<FamilySnapshot>& families) {
  std::string out;
  for (const Kind& kind : kKinds) {
    for (const FamilySnapshot& family : families) {
      if (family.info.type != kind.type) continue;
      const std::string& name = family.info.name;
      out += "# HELP " + name + " " + escaped(family.info.help, false) + "\n";
      out += "# TYPE " + name + " " + kind.name + "\n";
      for (const auto& [key, value] : family.values) {
        appendSample(out, name, formatLabels(key->labels), numberText(value));
      }
      for (const auto& [key, histogram] : family.histograms) {
        appendHistogram(out, name, key->labels, histogram);
      }
    }
  }
  return out;
}

std::string toJsonText(const std::vector<FamilySnapshot>& families) {
  json dump;
  for (const Kind& kind : kKinds) {
    json& of_kind = dump[kind.json_key] = json::object();
    for (const FamilySnapshot& family : families) {
      if (family.info.type == kind.type) of_kind[family.info.name] = seriesJson(family);
    }
  }
  return dump.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace tavrel::metrics
