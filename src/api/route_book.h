#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "api/context.h"
#include "api/request.h"
#include "api/response.h"

namespace tavrel::api {

using Handler = std::function<Response(Context&, const Request&)>;
/// Calls `next` to run the rest of the chain, or answers itself.
using Middleware = std::function<Response(Context&, const Request&, const Handler& next)>;
/// Serves a streaming route. No middleware runs around it, and the answer is always 200.
using StreamHandler = std::function<void(Context&, const Request&, StreamWriter&)>;

/// Asked before a streaming route begins: an answer refuses the request, nothing lets it pass.
using StreamGuard = std::function<std::optional<Response>(Context&, const Request&)>;

/// No bound but the server's own.
inline constexpr std::size_t kAnyBody = std::numeric_limits<std::size_t>::max();

/// One route: exactly one of `handler` and `stream_handler` is set.
struct Route {
  std::string method;  ///< "GET", "POST", "PUT", "DELETE" or "OPTIONS"
  std::string pattern;
  Handler handler;
  StreamHandler stream_handler;
  std::vector<Middleware> middlewares;
  /// Longer bodies are refused with 413 when they begin to arrive, as those are that no route
  /// takes.
  std::size_t max_body_bytes = kAnyBody;
};

/// The routes that families offer, before they are put on a server in the order of the catalogue.
class RouteBook {
 public:
  void get(std::string pattern, Handler handler) {
    add("GET", std::move(pattern), std::move(handler));
  }
  void post(std::string pattern, Handler handler, std::size_t max_body_bytes = kAnyBody) {
    add("POST", std::move(pattern), std::move(handler), max_body_bytes);
  }
  void put(std::string pattern, Handler handler) {
    add("PUT", std::move(pattern), std::move(handler));
  }
  void del(std::string pattern, Handler handler) {
    add("DELETE", std::move(pattern), std::move(handler));
  }
  void getStream(std::string pattern, StreamHandler handler);
  void postStream(std::string pattern, StreamHandler handler);

  const std::vector<Route>& routes() const { return routes_; }
  /// The route offered for this method and pattern, or null.
  const Route* find(const std::string& method, const std::string& pattern) const;

 private:
  void add(std::string method, std::string pattern, Handler handler,
           std::size_t max_body_bytes = kAnyBody);

  std::vector<Route> routes_;
};

}  // namespace tavrel::api
