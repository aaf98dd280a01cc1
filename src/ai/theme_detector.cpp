#include "ai/theme_detector.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "ai/keyword_finder.h"
#include "ai/model_server.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/files.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::ai {

using nlohmann::json;
using platform::MutexLock;

namespace {

constexpr const char* kGeneral = "general";
constexpr float kFallbackThreshold = 0.6F;
constexpr float kBoost = 1.5F;
constexpr float kNegativeFactor = 0.3F;
constexpr float kFailedConfidence = 0.3F;
constexpr float kUnreadableConfidence = 0.5F;
constexpr std::size_t kPromptCharacters = 500;
constexpr double kTemperature = 0.1;
constexpr std::int32_t kMaxTokens = 100;

std::int32_t wholeMillisecondsSince(platform::SteadyTime start) {
  return static_cast<std::int32_t>(platform::millisecondsSince(start));
}

/// The line after `label`, without blanks before and white space behind; nothing when the label is
/// missing.
std::optional<std::string> lineAfter(const std::string& text, std::string_view label) {
  const std::size_t at = text.find(label);
  if (at == std::string::npos) return std::nullopt;
  const std::size_t begin = text.find_first_not_of(' ', at + label.size());
  if (begin == std::string::npos) return "";
  const std::size_t end = std::min(text.find('\n', begin), text.size());
  std::string line = text.substr(begin, end - begin);
  line.erase(line.find_last_not_of(" \t\r\n\v\f") + 1);
  return line;
}

float readConfidence(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const float value = std::strtof(text.c_str(), &end);
  // Too small to be told from zero is out of range as well.
  const bool out_of_range = errno == ERANGE || !std::isfinite(value);
  if (end == text.c_str() || out_of_range) return kUnreadableConfidence;
  return std::clamp(value, 0.0F, 1.0F);
}

}  // namespace

/// The themes with everything that searching them needs.
struct ThemeDetector::Prepared {
  struct Theme {
    ThemeConfig config;
    std::vector<std::size_t> keywords;  // numbers of the finder, in the theme's order
    std::vector<std::size_t> negative_keywords;
  };

  explicit Prepared(std::map<std::string, ThemeConfig> configs) {
    for (auto& [name, config] : configs) {
      Theme& theme = themes[name];
      for (const std::string& word : config.keywords) theme.keywords.push_back(finder.add(word));
      for (const std::string& word : config.negative_keywords) {
        theme.negative_keywords.push_back(finder.add(word));
      }
      theme.config = std::move(config);
    }
    finder.build();
  }

  std::map<std::string, ThemeConfig> configs() const {
    std::map<std::string, ThemeConfig> all;
    for (const auto& [name, theme] : themes) all.emplace(name, theme.config);
    return all;
  }

  std::map<std::string, Theme> themes;
  KeywordFinder finder;
};

namespace {

template <class Theme>
float calculateKeywordScore(const Theme& theme, const std::vector<char>& found) {
  if (theme.keywords.empty()) return 0;
  const auto occurs = [&](std::size_t number) { return found[number] != 0; };
  const auto count = std::count_if(theme.keywords.begin(), theme.keywords.end(), occurs);
  const float ratio = static_cast<float>(count) / static_cast<float>(theme.keywords.size());
  if (std::any_of(theme.negative_keywords.begin(), theme.negative_keywords.end(), occurs)) {
    return ratio * kNegativeFactor;
  }
  return ratio >= theme.config.keyword_threshold ? std::min(ratio * kBoost, 1.0F) : ratio;
}

template <class Themes>
std::string buildClassificationPrompt(const Themes& themes, const std::string& content) {
  std::string prompt =
      "Classify the following text into exactly one theme category.\n\nAvailable themes:\n";
  for (const auto& [name, theme] : themes) {
    if (!theme.config.description.empty()) {
      prompt += "- " + name + ": " + theme.config.description + '\n';
    }
  }
  return prompt + "\nText to classify:\n\"\"\"" +
         platform::firstCharacters(content, kPromptCharacters) +
         "\"\"\"\n\nRespond with ONLY the theme name and confidence (0.0-1.0) in this exact "
         "format:\nTHEME: <theme_name>\nCONFIDENCE: <0.0-1.0>\n";
}

}  // namespace

ThemeResult parseLLMResponse(const std::string& reply,
                             const std::function<bool(const std::string& theme)>& known) {
  ThemeResult result;
  result.confidence = kUnreadableConfidence;
  result.method = "llm";
  if (const auto line = lineAfter(reply, "THEME:")) {
    std::string name = platform::toLower(*line);
    std::replace(name.begin(), name.end(), ' ', '_');
    if (known(name)) result.theme = name;
  }
  if (const auto line = lineAfter(reply, "CONFIDENCE:")) result.confidence = readConfidence(*line);
  return result;
}

ThemeDetector::ThemeDetector(net::HttpClient& http) : http_(http) {
  std::map<std::string, ThemeConfig> themes;
  for (ThemeConfig& theme : defaultThemes()) {
    std::string name = theme.name;
    themes.emplace(std::move(name), std::move(theme));
  }
  const MutexLock lock(themes_mu_);
  publish(std::move(themes));
}

ThemeDetector::~ThemeDetector() = default;

bool ThemeDetector::initialize(std::string ollama_url, std::string model, std::int32_t timeout_ms) {
  ollama_url_ = std::move(ollama_url);
  model_ = std::move(model);
  timeout_ms_ = timeout_ms;
  return true;
}

std::shared_ptr<const ThemeDetector::Prepared> ThemeDetector::themes() const {
  const MutexLock lock(themes_mu_);
  return themes_;
}

bool ThemeDetector::publish(std::map<std::string, ThemeConfig> themes) {
  auto prepared = std::make_shared<const Prepared>(std::move(themes));
  if (!prepared->finder.complete()) return false;
  themes_ = std::move(prepared);
  return true;
}

ThemeResult ThemeDetector::detectTheme(const std::string& content, bool use_llm) {
  ThemeResult by_keywords = detectThemeKeywords(content);
  if (use_llm && by_keywords.confidence < kFallbackThreshold) {
    ThemeResult by_model = detectThemeLLM(content);
    {
      const MutexLock lock(stats_mu_);
      countDetection(fallback_detections_, by_model.theme);
    }
    if (by_model.confidence > by_keywords.confidence) return by_model;
    // Asked in vain: what follows counts the detection a second time, on purpose.
  }
  const MutexLock lock(stats_mu_);
  countDetection(keyword_detections_, by_keywords.theme);
  return by_keywords;
}

void ThemeDetector::countDetection(std::int32_t& kind, const std::string& theme) {
  ++total_detections_;
  ++kind;
  ++theme_counts_[theme];
}

ThemeResult ThemeDetector::detectThemeKeywords(const std::string& content) {
  const platform::SteadyTime start = platform::steadyNow();
  const std::shared_ptr<const Prepared> prepared = themes();
  const std::vector<char> found = prepared->finder.find(KeywordFinder::prepare(content));
  ThemeResult result;
  result.method = "keyword";
  const Prepared::Theme* best = nullptr;
  for (const auto& [name, theme] : prepared->themes) {
    if (name == kGeneral) continue;
    const float score = calculateKeywordScore(theme, found);
    if (score <= result.confidence) continue;
    result.theme = name;
    result.confidence = score;
    best = &theme;
  }
  for (std::size_t i = 0; best != nullptr && i < best->keywords.size(); ++i) {
    if (found[best->keywords[i]] != 0) result.matched_keywords.push_back(best->config.keywords[i]);
  }
  result.latency_ms = wholeMillisecondsSince(start);
  const MutexLock lock(stats_mu_);
  avg_keyword_latency_ms_ = (keyword_detections_ * avg_keyword_latency_ms_ + result.latency_ms) /
                            (keyword_detections_ + 1.0);
  return result;
}

ThemeResult ThemeDetector::detectThemeLLM(const std::string& content) {
  const platform::SteadyTime start = platform::steadyNow();
  const std::shared_ptr<const Prepared> prepared = themes();
  const std::string reply = callOllama(buildClassificationPrompt(prepared->themes, content));
  ThemeResult result;
  if (reply.empty()) {
    result.confidence = kFailedConfidence;
    result.method = "llm_failed";
  } else {
    result = parseLLMResponse(
        reply, [&](const std::string& theme) { return prepared->themes.contains(theme); });
  }
  result.latency_ms = wholeMillisecondsSince(start);
  const MutexLock lock(stats_mu_);
  ++llm_detections_;
  avg_llm_latency_ms_ =
      ((llm_detections_ - 1) * avg_llm_latency_ms_ + result.latency_ms) / llm_detections_;
  return result;
}

/// The model's reply, "" on any failure.
std::string ThemeDetector::callOllama(const std::string& prompt) const {
  if (ollama_url_.empty()) return "";
  return generate(http_, {ollama_url_, model_, prompt, kTemperature, kMaxTokens,
                          std::chrono::milliseconds(std::max(timeout_ms_, 0))})
      .text;
}

bool ThemeDetector::addTheme(ThemeConfig theme) {
  const MutexLock lock(themes_mu_);
  auto configs = themes_->configs();
  std::string name = theme.name;
  configs[std::move(name)] = std::move(theme);
  return publish(std::move(configs));
}

bool ThemeDetector::removeTheme(const std::string& name) {
  const MutexLock lock(themes_mu_);
  auto configs = themes_->configs();
  return configs.erase(name) == 1 && publish(std::move(configs));
}

std::optional<ThemeConfig> ThemeDetector::getTheme(const std::string& name) const {
  const auto prepared = themes();
  const auto found = prepared->themes.find(name);
  if (found == prepared->themes.end()) return std::nullopt;
  return found->second.config;
}

std::vector<ThemeConfig> ThemeDetector::getThemes() const {
  std::vector<ThemeConfig> all;
  const auto prepared = themes();
  for (const auto& [name, theme] : prepared->themes) all.push_back(theme.config);
  return all;
}

bool ThemeDetector::saveThemesToFile(const std::string& path) const {
  json list = platform::jsonArray(getThemes());
  const std::size_t count = list.size();
  const json document = {
      {"version", "1.0.0"}, {"themes", std::move(list)}, {"total_themes", count}};
  if (platform::writeFileAtomically(path, document.dump(2))) return true;
  platform::printError("[ThemeDetector] Failed to save themes: cannot write " + path);
  return false;
}

bool ThemeDetector::loadThemesFromFile(const std::string& path) {
  try {
    const auto text = platform::readFile(path);
    if (!text) throw std::runtime_error("cannot read " + path);
    const json document = platform::parseForeignJson(*text);
    std::vector<ThemeConfig> loaded;
    if (document.contains("themes")) {
      for (const json& theme : document.at("themes"))
        loaded.push_back(ThemeConfig::fromJson(theme));
    }
    const MutexLock lock(themes_mu_);
    auto configs = themes_->configs();
    for (ThemeConfig& theme : loaded) {
      std::string name = theme.name;
      configs[std::move(name)] = std::move(theme);
    }
    if (!publish(std::move(configs))) throw std::runtime_error("too many keywords");
    return true;
  } catch (const std::exception& error) {
    platform::printError(std::string("[ThemeDetector] Failed to load themes: ") + error.what());
    return false;
  }
}

json ThemeDetector::getStats() const {
  const MutexLock lock(stats_mu_);
  return {{"total_detections", total_detections_},
          {"keyword_detections", keyword_detections_},
          {"llm_detections", llm_detections_},
          {"fallback_detections", fallback_detections_},
          {"avg_keyword_latency_ms", avg_keyword_latency_ms_},
          {"avg_llm_latency_ms", avg_llm_latency_ms_},
          {"theme_distribution", theme_counts_},
          {"llm_fallback_threshold", platform::asWritten(kFallbackThreshold)}};
}

std::shared_ptr<ThemeDetector> LazyThemeDetector::get() const {
  const MutexLock lock(mu_);
  return detector_;
}

std::shared_ptr<ThemeDetector> LazyThemeDetector::getOrCreate() {
  return getOrCreate("", "", 0);
}

std::shared_ptr<ThemeDetector> LazyThemeDetector::getOrCreate(const std::string& ollama_url,
                                                              const std::string& model,
                                                              std::int32_t timeout_ms) {
  const MutexLock lock(mu_);
  if (detector_ == nullptr) {
    detector_ = std::make_shared<ThemeDetector>(http_);
    detector_->initialize(ollama_url, model, timeout_ms);
  }
  return detector_;
}

}  // namespace tavrel::ai
