#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace tavrel::api {

/// Orders header names without regard to case (RFC 9110) and keeps them as they were sent.
struct HeaderNameLess {
  bool operator()(const std::string& a, const std::string& b) const;
};

/// One HTTP request as handlers see it. Built anew for every request, const for handlers; used by
/// the one thread that serves it.
class Request {
 public:
  std::string method;  ///< "GET", "POST", …
  std::string path;    ///< percent-decoded, without the query string
  std::map<std::string, std::string, HeaderNameLess> headers;  ///< a repeated one: its last value
  std::map<std::string, std::string> query;                    ///< decoded; repeated: last value
  std::map<std::string, std::string> path_params;              ///< values of the pattern's ":name"s
  std::string body;
  std::string remote_address;  ///< the peer's IP address

  /// The value stored under `name`, or `fallback`.
  std::string getPathParam(const std::string& name, const std::string& fallback = "") const;
  std::string getQuery(const std::string& name, const std::string& fallback = "") const;
  std::string getHeader(const std::string& name, const std::string& fallback = "") const;

  /// The body as JSON: present only when the content type contains "application/json" and the
  /// body is not empty, parses, and nests no deeper than kMaxJsonDepth. Parsed on the first call.
  const std::optional<nlohmann::json>& json() const;

  static constexpr int kMaxJsonDepth = 256;

 private:
  mutable bool json_parsed_ = false;
  mutable std::optional<nlohmann::json> json_;
};

/// Splits "a=1&b=2" at "&" and the first "=" of each piece. Pieces without "=" are skipped, a
/// repeated key keeps its last value, nothing is decoded.
std::map<std::string, std::string> parseQueryParams(const std::string& text);

}  // namespace tavrel::api
