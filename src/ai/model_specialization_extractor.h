#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavrel::ai {

/// Tells by keywords which products and subjects a text is about, finer than the themes do
/// ("nginx", "kubernetes"), and which one a model is named for.
/// Threads: any; there is no state but a fixed table. Nothing fails.
class ModelSpecializationExtractor {
 public:
  /// Every theme of which a keyword occurs, the one with the most occurrences first. Among equals,
  /// the one whose keywords make up more of the text goes first, then the order of names decides.
  static std::vector<std::string> detectThemesFromPrompt(std::string_view prompt);

  /// The first of them for a model's name, where a theme's own name counts as a keyword; "general"
  /// when there is none.
  static std::string detectThemeFromModelName(std::string_view name);
};

}  // namespace tavrel::ai
