#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/timeouts.h"

namespace tavrel::net {

struct HttpCall {
  std::string method = "GET";
  std::string url;  ///< http or https only
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;  ///< sent for every method but GET; empty sends none
  std::size_t max_answer_bytes = std::size_t{64} << 20;
};

/// What came of a call. An HTTP status of 500 is an answer, not a transport error.
struct HttpResult {
  std::string transport_error;  ///< empty when an answer arrived, else libcurl's text
  int transport_code = 0;       ///< libcurl's number for it; 0 when an answer arrived
  int status = 0;               ///< 0 when none arrived
  std::string body;
  std::string content_type;

  bool ok() const { return transport_error.empty() && status == 200; }
};

/// Outbound HTTP calls (libcurl). Redirects are not followed; dot segments in a URL are sent as
/// given; proxies named by the environment are not used. Every call has a connection of its own: a
/// kept one would tie up a thread of a simple peer, and a request lost on a stale one would be sent
/// twice.
///
/// Threads: any number may call at once. Calls block (they announce it through
/// platform::BlockingScope) and are never made with a lock held. Handles are kept for reuse.
/// Stopping: `cancelAll` makes running calls end within about a second and later ones fail at once.
/// Failure: told by HttpResult; a timeout below a millisecond counts as one.
class HttpClient {
 public:
  HttpClient();
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  HttpResult send(const HttpCall& call, Timeouts timeouts);
  HttpResult get(const std::string& url, Timeouts timeouts);
  /// POST with "Content-Type: application/json".
  HttpResult postJson(const std::string& url, std::string body, Timeouts timeouts);

  void cancelAll();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// `base_url` and `path` (which begins with a slash) with exactly one slash between them.
std::string joinUrl(std::string base_url, const std::string& path);

/// The part of a URL that names the machine and its port, e.g. "localhost:11434".
std::string authorityOf(const std::string& url);

/// Whether the text is an http or https URL with a host, in one line.
bool isHttpUrl(std::string_view text);

}  // namespace tavrel::net
