#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "ai/theme_config.h"
#include "net/http_client.h"
#include "platform/mutex.h"

namespace tavrel::ai {

/// Sorts texts into themes: by keywords, and where those say little by asking a language model.
///
/// Threads: any. Detection works on an immutable copy of the themes that is prepared when they
/// change, and holds no lock meanwhile; themes_mu_ and stats_mu_ are leaves.
/// Failure: a model that cannot be asked gives "llm_failed"; nothing throws.
class ThemeDetector {
 public:
  /// Begins with the built-in themes and without a language model. `http` must outlive this.
  explicit ThemeDetector(net::HttpClient& http);
  ~ThemeDetector();
  ThemeDetector(const ThemeDetector&) = delete;
  ThemeDetector& operator=(const ThemeDetector&) = delete;

  /// Names the language model. To be called before the first detection; always true.
  bool initialize(std::string ollama_url, std::string model, std::int32_t timeout_ms);

  /// With `use_llm` the model is asked when the keywords are less sure than
  /// llm_fallback_threshold; its answer holds when it is surer.
  ThemeResult detectTheme(const std::string& content, bool use_llm);

  /// Adds the theme, or replaces the one of its name. False, and no change, when the themes would
  /// have more keywords together than can be searched for (KeywordFinder::kMaxStates).
  bool addTheme(ThemeConfig theme) TV_EXCLUDES(themes_mu_);
  bool removeTheme(const std::string& name) TV_EXCLUDES(themes_mu_);
  std::optional<ThemeConfig> getTheme(const std::string& name) const TV_EXCLUDES(themes_mu_);
  std::vector<ThemeConfig> getThemes() const TV_EXCLUDES(themes_mu_);  ///< in name order

  /// Both report a failure on standard error and return false. Loading adds to the themes, and
  /// either takes all of the file or nothing.
  bool saveThemesToFile(const std::string& path) const;
  bool loadThemesFromFile(const std::string& path) TV_EXCLUDES(themes_mu_);

  nlohmann::json getStats() const TV_EXCLUDES(stats_mu_);

 private:
  struct Prepared;

  std::shared_ptr<const Prepared> themes() const TV_EXCLUDES(themes_mu_);
  /// False, and no change, when they have too many keywords.
  bool publish(std::map<std::string, ThemeConfig> themes) TV_REQUIRES(themes_mu_);
  ThemeResult detectThemeKeywords(const std::string& content) TV_EXCLUDES(stats_mu_);
  ThemeResult detectThemeLLM(const std::string& content) TV_EXCLUDES(stats_mu_);
  std::string callOllama(const std::string& prompt) const;
  void countDetection(std::int32_t& kind, const std::string& theme) TV_REQUIRES(stats_mu_);

  net::HttpClient& http_;
  std::string ollama_url_;
  std::string model_;
  std::int32_t timeout_ms_ = 0;

  mutable platform::Mutex themes_mu_;
  std::shared_ptr<const Prepared> themes_ TV_GUARDED_BY(themes_mu_);

  mutable platform::Mutex stats_mu_;
  std::int32_t total_detections_ TV_GUARDED_BY(stats_mu_) = 0;
  std::int32_t keyword_detections_ TV_GUARDED_BY(stats_mu_) = 0;
  std::int32_t llm_detections_ TV_GUARDED_BY(stats_mu_) = 0;
  std::int32_t fallback_detections_ TV_GUARDED_BY(stats_mu_) = 0;
  double avg_keyword_latency_ms_ TV_GUARDED_BY(stats_mu_) = 0;
  double avg_llm_latency_ms_ TV_GUARDED_BY(stats_mu_) = 0;
  std::map<std::string, std::int32_t> theme_counts_ TV_GUARDED_BY(stats_mu_);
};

/// The one detector of the program, which exists from the first time somebody needs it.
/// Threads: any; mu_ is a leaf.
class LazyThemeDetector {
 public:
  /// `http` must outlive this.
  explicit LazyThemeDetector(net::HttpClient& http) : http_(http) {}

  /// Null until it was created.
  std::shared_ptr<ThemeDetector> get() const TV_EXCLUDES(mu_);
  std::shared_ptr<ThemeDetector> getOrCreate() TV_EXCLUDES(mu_);
  /// One created here gets this language model; one that exists keeps what it has.
  std::shared_ptr<ThemeDetector> getOrCreate(const std::string& ollama_url,
                                             const std::string& model, std::int32_t timeout_ms)
      TV_EXCLUDES(mu_);

 private:
  net::HttpClient& http_;
  mutable platform::Mutex mu_;
  std::shared_ptr<ThemeDetector> detector_ TV_GUARDED_BY(mu_);
};

/// What a model's reply to the classification prompt says; `known` tells whether a theme exists.
ThemeResult parseLLMResponse(const std::string& reply,
                             const std::function<bool(const std::string& theme)>& known);

}  // namespace tavrel::ai
