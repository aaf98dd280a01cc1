#include "ai/moe_router.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "platform/console.h"
#include "platform/json_fields.h"
#include "platform/text.h"

namespace tavrel::ai {
namespace {

constexpr const char* kMembers[] = {"enabled", "router_model", "default_expert", "experts"};
constexpr std::size_t kPreviewCharacters = 100;

bool flagMember(const nlohmann::json& object, const char* key, bool fallback) {
  const nlohmann::json* value = platform::jsonMember(object, key);
  return value != nullptr && value->is_boolean() ? value->get<bool>() : fallback;
}

std::vector<std::string> textsOf(const nlohmann::json& object, const char* key) {
  std::vector<std::string> texts;
  const nlohmann::json* values = platform::jsonMember(object, key);
  if (values == nullptr || !values->is_array()) return texts;
  for (const nlohmann::json& value : *values) {
    if (value.is_string()) texts.push_back(value.get<std::string>());
  }
  return texts;
}

struct Expert {
  std::string id;
  std::string model;
  std::vector<std::string> keywords;  // lower-case, none empty
  std::vector<std::string> categories;
};

Expert readExpert(const nlohmann::json& object) {
  Expert expert;
  expert.id = platform::textMember(object, "id");
  expert.model = platform::textMember(object, "model");
  expert.categories = textsOf(object, "categories");
  for (const std::string& keyword : textsOf(object, "keywords")) {
    if (!keyword.empty()) expert.keywords.push_back(platform::toLower(keyword));
  }
  return expert;
}

enum class Count { kKeywords, kOccurrences };

std::size_t scoreOf(const Expert& expert, std::string_view lowered, Count count) {
  std::size_t score = 0;
  for (const std::string& keyword : expert.keywords) {
    if (count == Count::kOccurrences) {
      score += platform::countOccurrences(lowered, keyword);
    } else if (lowered.find(keyword) != std::string_view::npos) {
      ++score;
    }
  }
  return score;
}

}  // namespace

struct MoeRouter::Snapshot {
  nlohmann::json document;
  bool enabled = false;
  std::string default_expert;
  std::vector<Expert> experts;  // the enabled ones

  explicit Snapshot(nlohmann::json value) : document(std::move(value)) {
    enabled = flagMember(document, "enabled", false);
    default_expert = platform::textMember(document, "default_expert");
    const nlohmann::json& list = document.at("experts");
    if (!list.is_array()) return;
    for (const nlohmann::json& object : list) {
      if (object.is_object() && flagMember(object, "enabled", true)) {
        experts.push_back(readExpert(object));
      }
    }
  }

  std::optional<ExpertChoice> choose(std::string_view text, Count count) const {
    const std::string lowered = platform::toLower(text);
    const Expert* best = nullptr;
    std::size_t best_score = 0;
    for (const Expert& expert : experts) {
      const std::size_t score = scoreOf(expert, lowered, count);
      if (score > best_score) {
        best = &expert;
        best_score = score;
      }
    }
    if (best == nullptr) best = defaultExpert();
    if (best == nullptr) return std::nullopt;
    return ExpertChoice{best->id, best->model, best_score, best->categories};
  }

  const Expert* defaultExpert() const {
    if (default_expert.empty()) return nullptr;
    for (const Expert& expert : experts) {
      if (expert.id == default_expert) return &expert;
    }
    return nullptr;
  }
};

MoeRouter::MoeRouter()
    : snapshot_(
          std::make_shared<const Snapshot>(nlohmann::json{{"enabled", false},
                                                          {"router_model", ""},
                                                          {"default_expert", ""},
                                                          {"experts", nlohmann::json::array()}})) {}

MoeRouter::~MoeRouter() = default;

std::shared_ptr<const MoeRouter::Snapshot> MoeRouter::snapshot() const {
  platform::MutexLock lock(mu_);
  return snapshot_;
}

void MoeRouter::publish(nlohmann::json document) {
  snapshot_ = std::make_shared<const Snapshot>(std::move(document));
  enabled_.store(snapshot_->enabled, std::memory_order_release);
}

nlohmann::json MoeRouter::config() const {
  return snapshot()->document;
}

nlohmann::json MoeRouter::update(const nlohmann::json& changes) {
  nlohmann::json document;
  {
    platform::MutexLock lock(mu_);
    document = snapshot_->document;
    for (const char* key : kMembers) {
      if (const nlohmann::json* value = platform::jsonMember(changes, key)) document[key] = *value;
    }
    publish(document);
  }
  platform::printLine("[MoE] Configuration updated");
  return document;
}

void MoeRouter::addExpert(nlohmann::json expert) {
  const std::string line = "[MoE] Added expert: " + platform::textMember(expert, "id") + " -> " +
                           platform::textMember(expert, "model");
  {
    platform::MutexLock lock(mu_);
    nlohmann::json document = snapshot_->document;
    nlohmann::json& experts = document["experts"];
    // A document that was given something else than a list starts a new one.
    if (!experts.is_array()) experts = nlohmann::json::array();
    experts.push_back(std::move(expert));
    publish(std::move(document));
  }
  platform::printLine(platform::singleLine(line));
}

bool MoeRouter::removeExpert(const std::string& id) {
  {
    platform::MutexLock lock(mu_);
    nlohmann::json document = snapshot_->document;
    nlohmann::json& experts = document["experts"];
    const auto matches = [&](const nlohmann::json& expert) {
      const nlohmann::json* value =
          expert.is_object() ? platform::jsonMember(expert, "id") : nullptr;
      return value != nullptr && *value == id;
    };
    if (!experts.is_array()) return false;
    const auto found = std::find_if(experts.begin(), experts.end(), matches);
    if (found == experts.end()) return false;
    experts.erase(found);
    publish(std::move(document));
  }
  platform::printLine(platform::singleLine("[MoE] Removed expert: " + id));
  return true;
}

nlohmann::json MoeRouter::route(const std::string& query) const {
  const auto current = snapshot();
  if (!current->enabled) {
    return {{"routed", false},
            {"reason", "MoE routing is disabled"},
            {"default_expert", current->document.at("default_expert")}};
  }
  const auto choice = current->choose(query, Count::kKeywords);
  return {{"routed", choice.has_value()},
          {"expert_id", choice ? choice->id : ""},
          {"model", choice ? choice->model : ""},
          {"score", choice ? choice->score : 0},
          {"query_preview", platform::firstCharacters(query, kPreviewCharacters)}};
}

std::optional<ExpertChoice> MoeRouter::chooseForChat(std::string_view text) const {
  const auto current = snapshot();
  if (!current->enabled) return std::nullopt;
  return current->choose(text, Count::kOccurrences);
}

}  // namespace tavrel::ai
