#include "inference/science_context.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string_view>

#include "platform/console.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::inference {
namespace {

constexpr std::array<std::string_view, 6> kScientific = {
    "science", "pharmaceutical", "bioinformatics", "chemistry", "physics", "biology"};
constexpr int kMaxResults = 5;
constexpr std::size_t kMaxAnswerBytes = std::size_t{4} << 20;
constexpr std::chrono::milliseconds kConnectTimeout{3000};
constexpr std::chrono::milliseconds kTotalTimeout{30'000};

/// The first of the members that is a text with something in it.
std::string firstText(const nlohmann::json& object, std::initializer_list<const char*> keys) {
  for (const char* key : keys) {
    std::string text = platform::textMember(object, key);
    if (!text.empty()) return text;
  }
  return {};
}

std::string resultText(const nlohmann::json& result) {
  std::string text = firstText(result, {"title", "name"});
  const std::string snippet = firstText(result, {"snippet", "description", "abstract"});
  const std::string provider = firstText(result, {"provider", "source"});
  if (!snippet.empty()) text += " " + snippet;
  if (!provider.empty()) text += " (" + provider + ")";
  return text;
}

/// The findings worded for the model; "" when there are none.
std::string wordFindings(const nlohmann::json& answer) {
  if (!answer.is_object()) return {};
  std::string findings = firstText(answer, {"summary", "synthesis"});
  const nlohmann::json* results = platform::jsonMember(answer, "results");
  int index = 0;
  if (results != nullptr && results->is_array()) {
    for (const nlohmann::json& result : *results) {
      if (!result.is_object() || index == kMaxResults) continue;
      findings += "\n[" + std::to_string(++index) + "] " + resultText(result);
    }
  }
  if (findings.empty()) return {};
  return "[SCIENTIFIC DATA CONTEXT - retrieved from Tavrel Science Worker]\n" + findings +
         "\n[END SCIENTIFIC DATA CONTEXT]\n\nUse the scientific data above to provide an accurate, "
         "well-informed answer.";
}

}  // namespace

bool wantsScience(const std::vector<std::string>& categories) {
  return std::any_of(categories.begin(), categories.end(), [](const std::string& category) {
    return std::find(kScientific.begin(), kScientific.end(), category) != kScientific.end();
  });
}

std::string scienceContext(net::HttpClient& http, const std::string& worker_url,
                           const std::string& question) {
  platform::printLine(platform::singleLine("[MoE/Science] Querying science worker at " +
                                           worker_url + " for context enrichment"));
  net::HttpCall call;
  call.method = "POST";
  call.url = net::joinUrl(worker_url, "/api/v1/research/federated-search");
  call.headers = {{"Content-Type", "application/json"}};
  call.max_answer_bytes = kMaxAnswerBytes;
  call.body =
      platform::dumpJson({{"query", question}, {"max_results", kMaxResults}, {"synthesize", true}});
  const net::HttpResult result = http.send(call, {kConnectTimeout, kTotalTimeout});
  std::string context;
  bool failed = !result.ok();
  if (!failed) {
    try {
      context = wordFindings(platform::parseForeignJson(result.body));
    } catch (const std::exception&) {
      failed = true;
    }
  }
  if (failed) {
    platform::printLine("[MoE/Science] Science worker query failed (HTTP " +
                        std::to_string(result.status) + ")");
  } else if (!context.empty()) {
    platform::printLine("[MoE/Science] Injected science context (" +
                        std::to_string(context.size()) + " chars) into conversation");
  }
  return context;
}

}  // namespace tavrel::inference
