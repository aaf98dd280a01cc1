#include "api/http_server.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include "api/connection_engine.h"
#include "api/httplib_bridge.h"
#include "api/route_table.h"
#include "platform/console.h"
#include "platform/random.h"

namespace tavrel::api {
namespace {

/// So much of a body that no route wants is read, to keep the connection; more closes it.
constexpr std::size_t kMaxUnwantedBody = std::size_t{64} << 10;

/// Headers that the HTTP library adds to every request.
bool isLibraryHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

bool isHeaderName(const std::string& name) {
  static constexpr std::string_view kOther = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kOther.find(static_cast<char>(c)) != std::string_view::npos;
  });
}

bool isHeaderValue(const std::string& value) {
  return std::none_of(value.begin(), value.end(),
                      [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; });
}

Request buildRequest(const Exchange& exchange, const httplib::Request& from) {
  Request request;
  request.method = from.method;
  request.path = exchange.path;
  request.remote_address = exchange.connection->remoteAddress();
  for (const auto& [name, value] : from.headers) {
    if (!isLibraryHeader(name)) request.headers[name] = value;
  }
  if (!exchange.content_type.empty()) request.headers["Content-Type"] = exchange.content_type;
  for (const auto& [name, value] : from.params) request.query[name] = value;
  const std::size_t mark = request.path.find('?');  // sent percent-encoded
  if (request.query.empty() && mark != std::string::npos) {
    request.query = parseQueryParams(request.path.substr(mark + 1));
  }
  return request;
}

/// Hands a request through the middlewares to the handler. Small enough to be captured by value.
struct Chain {
  const std::vector<Middleware>& server;
  const Route& route;

  Response run(std::size_t step, Context& context, const Request& request) const {
    const std::size_t own = step - std::min(step, server.size());
    if (step >= server.size() && own >= route.middlewares.size()) {
      return route.handler(context, request);
    }
    const Middleware& middleware = step < server.size() ? server[step] : route.middlewares[own];
    return middleware(context, request,
                      [this, step](Context& next_context, const Request& next_request) {
                        return run(step + 1, next_context, next_request);
                      });
  }
};

/// Sends a streamed answer piece by piece, at once.
class ChunkWriter final : public StreamWriter {
 public:
  ChunkWriter(const httplib::DataSink& sink, Connection& connection, const ConnectionEngine& engine)
      : sink_(sink), connection_(connection), engine_(engine) {}

  bool write(std::string_view bytes) override {
    if (engine_.stopping()) return false;
    if (bytes.empty()) return true;  // an empty chunk would end the body
    return sink_.write(bytes.data(), bytes.size()) && connection_.flush();
  }

 private:
  const httplib::DataSink& sink_;
  Connection& connection_;
  const ConnectionEngine& engine_;
};

}  // namespace

struct HttpServer::Impl {
  ServerConfig config;
  RouteTable table;
  std::vector<Middleware> middlewares;
  StreamGuard stream_guard;
  std::function<void()> on_grace_over;
  std::atomic<bool> running{false};
  std::atomic<std::int32_t> port{0};
  // The bridge outlives the engine, whose threads call into it.
  std::unique_ptr<HttplibBridge> bridge;
  std::unique_ptr<ConnectionEngine> engine;

  ConnectionEngine::Settings engineSettings() const;
  void dispatch(Exchange& exchange, const httplib::Request& from,
                const HttplibBridge::BodyReader* body, httplib::Response& to);
  int readBody(Exchange& exchange, const HttplibBridge::BodyReader& reader, std::size_t max_bytes,
               std::string& body) const;
  void serveRoute(const Route& route, Context& context, const Request& request, Exchange& exchange,
                  httplib::Response& to);
  void answer(Response response, const Context& context, Exchange& exchange, httplib::Response& to);
  void startStream(StreamBody body, const std::string& content_type, Exchange& exchange,
                   httplib::Response& to);
  std::string allowedOrigin() const {
    return config.cors_origins.empty() ? "*" : config.cors_origins.front();
  }
  void addCorsHeaders(httplib::Response& to) const;
  void answerPreflight(httplib::Response& to) const;
};

ConnectionEngine::Settings HttpServer::Impl::engineSettings() const {
  ConnectionEngine::Settings settings{};
  settings.head = {config.max_header_bytes, config.max_header_fields, config.max_body_bytes};
  settings.timeouts = {std::chrono::seconds(config.read_timeout_seconds),
                       std::chrono::seconds(config.write_timeout_seconds)};
  settings.idle_timeout = config.idle_timeout;
  settings.max_connections = config.max_connections;
  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  settings.pool.minimum = processors;
  settings.pool.wanted = 2 * processors;
  settings.pool.maximum = std::max(config.max_threads, settings.pool.wanted);
  return settings;
}

void HttpServer::Impl::addCorsHeaders(httplib::Response& to) const {
  to.set_header("Access-Control-Allow-Origin", allowedOrigin());
  to.set_header("Access-Control-Allow-Methods", config.cors_methods);
  to.set_header("Access-Control-Allow-Headers", config.cors_headers);
}

void HttpServer::Impl::answerPreflight(httplib::Response& to) const {
  to.status = 204;
  addCorsHeaders(to);
  to.set_header("Access-Control-Max-Age", "86400");
}

void HttpServer::Impl::dispatch(Exchange& exchange, const httplib::Request& from,
                                const HttplibBridge::BodyReader* body, httplib::Response& to) {
  RouteTable::Params params;
  // HEAD is served by the GET routes; the library leaves the body out.
  const std::string& method = from.method == "HEAD" ? "GET" : from.method;
  const Route* route = table.find(method, exchange.path, params);
  if (route == nullptr) {
    if (method == "OPTIONS" && config.cors_enabled) {
      answerPreflight(to);
    } else {
      to.status = 404;
      std::string unwanted;
      if (body != nullptr && readBody(exchange, *body, kMaxUnwantedBody, unwanted) != 0) {
        to.set_header("Connection", "close");
      }
    }
    return;
  }

  Context context;
  context.start_time = platform::steadyNow();
  context.request_id = generateRequestId();
  context.client = exchange.connection;
  context.route = route->pattern;
  Request request = buildRequest(exchange, from);
  request.path_params = std::move(params);
  if (body != nullptr) {
    const int failure = readBody(exchange, *body, config.max_body_bytes, request.body);
    if (failure != 0) {
      to.status = failure;
      to.set_header("Connection", "close");
      return;
    }
  }
  serveRoute(*route, context, request, exchange, to);
}

/// Reads the body; 0, or the status that says why that failed.
int HttpServer::Impl::readBody(Exchange& exchange, const HttplibBridge::BodyReader& reader,
                               std::size_t max_bytes, std::string& body) const {
  bool too_large = false;
  const bool complete = reader([&](const char* bytes, std::size_t size) {
    // Also counts what a compressed body unfolds to.
    too_large = body.size() + size > max_bytes;
    if (!too_large) body.append(bytes, size);
    return !too_large;
  });
  if (complete) return 0;
  exchange.keep_connection = false;
  if (too_large) return 413;
  return exchange.connection->bodyFailure();
}

void HttpServer::Impl::serveRoute(const Route& route, Context& context, const Request& request,
                                  Exchange& exchange, httplib::Response& to) {
  if (route.stream_handler) {
    if (stream_guard) {
      if (std::optional<Response> refusal = stream_guard(context, request)) {
        return answer(std::move(*refusal), context, exchange, to);
      }
    }
    to.set_header("Cache-Control", "no-cache");
    to.set_header("Connection", "keep-alive");
    if (config.cors_enabled) to.set_header("Access-Control-Allow-Origin", allowedOrigin());
    to.status = 200;
    // The body runs after this function: it takes the request along.
    auto state = std::make_shared<std::pair<Context, Request>>(std::move(context), request);
    startStream(
        [state, &route](StreamWriter& writer) {
          route.stream_handler(state->first, state->second, writer);
        },
        "text/event-stream", exchange, to);
    return;
  }

  answer(Chain{middlewares, route}.run(0, context, request), context, exchange, to);
}

void HttpServer::Impl::answer(Response response, const Context& context, Exchange& exchange,
                              httplib::Response& to) {
  to.status = response.status;
  for (const auto& [name, value] : response.headers) {
    if (isHeaderName(name) && isHeaderValue(value)) to.set_header(name, value);
  }
  if (config.cors_enabled) addCorsHeaders(to);
  to.set_header("X-Request-ID", context.request_id);
  if (response.stream) {
    startStream(std::move(response.stream), response.content_type, exchange, to);
  } else {
    to.headers.erase("Content-Type");
    to.set_header("Content-Type", response.content_type);
    to.body = std::move(response.body);
  }
}

void HttpServer::Impl::startStream(StreamBody body, const std::string& content_type,
                                   Exchange& exchange, httplib::Response& to) {
  if (!engine->openStream()) {
    const Response refusal = Response::error(503, "Too many open streams");
    to.status = refusal.status;
    to.body = refusal.body;
    to.set_header("Content-Type", refusal.content_type);
    return;
  }
  Connection* connection = exchange.connection;
  connection->setStreaming(true);
  // A stop that came before the mark has not seen this stream.
  if (engine->stopping()) connection->interrupt(/*all=*/true);
  to.set_chunked_content_provider(
      content_type,
      [this, connection, body = std::move(body)](std::size_t, httplib::DataSink& sink) {
        ChunkWriter writer(sink, *connection, *engine);
        body(writer);
        sink.done();
        return true;
      },
      [this, connection](bool) {
        connection->setStreaming(false);
        engine->closeStream();
      });
}

HttpServer::HttpServer() : impl_(std::make_unique<Impl>()) {}
HttpServer::~HttpServer() {
  stop();
}

void HttpServer::configure(const ServerConfig& config) {
  impl_->config = config;
}
void HttpServer::use(Middleware middleware) {
  impl_->middlewares.push_back(std::move(middleware));
}
void HttpServer::guardStreams(StreamGuard guard) {
  impl_->stream_guard = std::move(guard);
}
void HttpServer::onGraceOver(std::function<void()> action) {
  impl_->on_grace_over = std::move(action);
}

void HttpServer::get(const std::string& pattern, Handler handler,
                     std::vector<Middleware> middlewares) {
  addRoute({"GET", pattern, std::move(handler), nullptr, std::move(middlewares)});
}
void HttpServer::post(const std::string& pattern, Handler handler,
                      std::vector<Middleware> middlewares) {
  addRoute({"POST", pattern, std::move(handler), nullptr, std::move(middlewares)});
}
void HttpServer::put(const std::string& pattern, Handler handler,
                     std::vector<Middleware> middlewares) {
  addRoute({"PUT", pattern, std::move(handler), nullptr, std::move(middlewares)});
}
void HttpServer::del(const std::string& pattern, Handler handler,
                     std::vector<Middleware> middlewares) {
  addRoute({"DELETE", pattern, std::move(handler), nullptr, std::move(middlewares)});
}
void HttpServer::options(const std::string& pattern, Handler handler,
                         std::vector<Middleware> middlewares) {
  addRoute({"OPTIONS", pattern, std::move(handler), nullptr, std::move(middlewares)});
}
void HttpServer::getStream(const std::string& pattern, StreamHandler handler) {
  addRoute({"GET", pattern, nullptr, std::move(handler), {}});
}
void HttpServer::postStream(const std::string& pattern, StreamHandler handler) {
  addRoute({"POST", pattern, nullptr, std::move(handler), {}});
}
void HttpServer::addRoute(Route route) {
  impl_->table.add(std::move(route));
}
void HttpServer::addRoutes(const RouteBook& book) {
  for (const Route& route : book.routes()) addRoute(route);
}
const std::vector<Route>& HttpServer::routes() const {
  return impl_->table.routes();
}

bool HttpServer::start() {
  Impl& impl = *impl_;
  if (impl.running.exchange(true)) return false;
  platform::printLine("[Controller] Server starting on " + impl.config.host + ':' +
                      std::to_string(impl.config.port));
  impl.bridge = std::make_unique<HttplibBridge>(
      [this](Exchange& exchange, const httplib::Request& from,
             const HttplibBridge::BodyReader* body,
             httplib::Response& to) { impl_->dispatch(exchange, from, body, to); });
  impl.bridge->announceIdleTimeout(impl.config.idle_timeout);
  impl.engine = std::make_unique<ConnectionEngine>(
      impl.engineSettings(),
      [this](Connection& connection) { return impl_->bridge->serve(connection); });

  int socket = -1;
  impl.port = impl.bridge->bind(impl.config.host, impl.config.port, socket);
  if (impl.port < 0 || !impl.engine->start(socket)) {
    impl.port = 0;
    impl.running = false;
    impl.engine.reset();
    impl.bridge.reset();
    return false;
  }
  return true;
}

void HttpServer::stop() {
  Impl& impl = *impl_;
  if (!impl.running.exchange(false)) return;
  impl.bridge->markStopping();
  impl.engine->stop(impl.config.stop_grace, impl.on_grace_over);
  platform::printLine("[Controller] Server stopped");
}

bool HttpServer::isRunning() const {
  return impl_->running;
}
std::string HttpServer::getAddress() const {
  return impl_->config.host;
}
std::int32_t HttpServer::getPort() const {
  const std::int32_t bound = impl_->port;
  return bound > 0 ? bound : impl_->config.port;
}

std::string generateRequestId() {
  return "req-" + platform::randomHex(16);
}

}  // namespace tavrel::api
