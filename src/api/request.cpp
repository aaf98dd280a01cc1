#include "api/request.h"

#include <strings.h>

#include "platform/json_text.h"

namespace tavrel::api {
namespace {

template <class Map>
std::string valueOr(const Map& map, const std::string& name, const std::string& fallback) {
  const auto found = map.find(name);
  return found == map.end() ? fallback : found->second;
}

}  // namespace

bool HeaderNameLess::operator()(const std::string& a, const std::string& b) const {
  return ::strcasecmp(a.c_str(), b.c_str()) < 0;
}

std::string Request::getPathParam(const std::string& name, const std::string& fallback) const {
  return valueOr(path_params, name, fallback);
}

std::string Request::getQuery(const std::string& name, const std::string& fallback) const {
  return valueOr(query, name, fallback);
}

std::string Request::getHeader(const std::string& name, const std::string& fallback) const {
  return valueOr(headers, name, fallback);
}

const std::optional<nlohmann::json>& Request::json() const {
  if (!json_parsed_) {
    json_parsed_ = true;
    const bool declared = getHeader("Content-Type").find("application/json") != std::string::npos;
    if (declared && !body.empty() && platform::jsonWithinLimits(body, kMaxJsonDepth)) {
      auto parsed = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
      if (!parsed.is_discarded()) json_ = std::move(parsed);
    }
  }
  return json_;
}

std::map<std::string, std::string> parseQueryParams(const std::string& text) {
  std::map<std::string, std::string> params;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('&', start), text.size());
    const std::size_t equals = text.find('=', start);
    if (equals < end)
      params[text.substr(start, equals - start)] = text.substr(equals + 1, end - equals - 1);
    start = end + 1;
  }
  return params;
}

}  // namespace tavrel::api
