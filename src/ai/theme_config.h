#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tavrel::ai {

/// A subject that texts are sorted into, and how it is recognised. A plain value.
struct ThemeConfig {
  std::string name;
  std::string display_name;  ///< the name when JSON has none
  std::string description;   ///< told to the language model; a theme without one is not offered
  std::vector<std::string> keywords;
  std::vector<std::string> negative_keywords;
  float keyword_threshold = 0.3F;  ///< share of keywords found from which the score is raised
  std::string target_model;
  std::string target_worker;

  nlohmann::json toJson() const;
  /// Missing members keep their defaults; values of a wrong type throw nlohmann's exception.
  static ThemeConfig fromJson(const nlohmann::json& object);
};

/// What a text was found to be about.
struct ThemeResult {
  std::string theme = "general";
  float confidence = 0;  ///< 0 to 1
  std::string method;    ///< "keyword", "llm" or "llm_failed"
  std::int32_t latency_ms = 0;
  std::vector<std::string> matched_keywords;  ///< of the winning theme, by keywords only

  nlohmann::json toJson() const;
};

/// The seven themes every detector begins with.
std::vector<ThemeConfig> defaultThemes();

}  // namespace tavrel::ai
