#include "ai/theme_config.h"

#include <nlohmann/json.hpp>

#include "platform/json_fields.h"

namespace tavrel::ai {

using nlohmann::json;
using platform::readField;

json ThemeConfig::toJson() const {
  return {{"name", name},
          {"display_name", display_name},
          {"description", description},
          {"keywords", keywords},
          {"negative_keywords", negative_keywords},
          {"keyword_threshold", platform::asWritten(keyword_threshold)},
          {"target_model", target_model},
          {"target_worker", target_worker}};
}

ThemeConfig ThemeConfig::fromJson(const json& object) {
  ThemeConfig theme;
  readField(object, "name", theme.name);
  theme.display_name = theme.name;
  readField(object, "display_name", theme.display_name);
  readField(object, "description", theme.description);
  readField(object, "keywords", theme.keywords);
  readField(object, "negative_keywords", theme.negative_keywords);
  readField(object, "keyword_threshold", theme.keyword_threshold);
  readField(object, "target_model", theme.target_model);
  readField(object, "target_worker", theme.target_worker);
  return theme;
}

json ThemeResult::toJson() const {
  return {{"theme", theme},
          {"confidence", platform::asWritten(confidence)},
          {"method", method},
          {"latency_ms", latency_ms},
          {"matched_keywords", matched_keywords}};
}

}  // namespace tavrel::ai
