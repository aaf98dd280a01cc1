#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "api/route_book.h"

namespace tavrel::api {

/// How an HttpServer listens and answers.
struct ServerConfig {
  std::string host = "0.0.0.0";
  std::int32_t port = 8080;  ///< 0 lets the system choose; getPort tells which it was
  std::int32_t read_timeout_seconds = 30;
  std::int32_t write_timeout_seconds = 30;
  bool cors_enabled = true;
  std::vector<std::string> cors_origins = {"*"};  ///< only the first is used
  std::string cors_methods = "GET, POST, PUT, DELETE, OPTIONS";
  std::string cors_headers = "Content-Type, Authorization, X-API-Key";
  bool tls_enabled = false;  ///< stored only: the server speaks plain HTTP
  std::string certificate_path;
  std::string key_path;

  std::size_t max_body_bytes = std::size_t{256} << 20;
  std::size_t max_header_bytes = std::size_t{64} << 10;
  std::size_t max_header_fields = 100;
  std::size_t max_connections = 16384;
  std::size_t max_threads = 4096;
  std::chrono::seconds idle_timeout{75};       ///< for a kept-alive connection between requests
  std::chrono::milliseconds stop_grace{2000};  ///< how long running requests may finish on stop
};

/// The HTTP/JSON server of the controller: routes, middlewares, CORS, request ids, streams.
///
/// Threads: configure, use, the registrations and start/stop belong to the owner; handlers run on
/// the server's own threads, many at once. Nothing may be registered after start.
class HttpServer {
 public:
  HttpServer();
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  void configure(const ServerConfig& config);

  /// Appends a server-wide middleware: the first one is the outermost. Applies to every ordinary
  /// route, whenever that was registered.
  void use(Middleware middleware);

  /// Sets what is asked before each streaming route, which no middleware runs around. Without a
  /// guard all pass.
  void guardStreams(StreamGuard guard);

  void get(const std::string& pattern, Handler handler, std::vector<Middleware> middlewares = {});
  void post(const std::string& pattern, Handler handler, std::vector<Middleware> middlewares = {});
  void put(const std::string& pattern, Handler handler, std::vector<Middleware> middlewares = {});
  void del(const std::string& pattern, Handler handler, std::vector<Middleware> middlewares = {});
  void options(const std::string& pattern, Handler handler,
               std::vector<Middleware> middlewares = {});
  void getStream(const std::string& pattern, StreamHandler handler);
  void postStream(const std::string& pattern, StreamHandler handler);
  void addRoute(Route route);
  /// Every route of the book, in its order.
  void addRoutes(const RouteBook& book);

  /// Everything registered so far, in order.
  const std::vector<Route>& routes() const;

  /// Called once by stop when the grace is over and requests are still running, to end what they
  /// wait for.
  void onGraceOver(std::function<void()> action);

  /// Binds, listens and returns whether it does; false when already running or the port is taken.
  bool start();
  /// Stops listening, ends open streams, lets running requests finish for a while, and returns when
  /// no handler runs any more. May be called twice, from any one thread.
  void stop();
  bool isRunning() const;

  std::string getAddress() const;
  std::int32_t getPort() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// "req-" and 16 random hexadecimal digits.
std::string generateRequestId();

}  // namespace tavrel::api
