#include "api/http_server.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <utility>

#include "api/answer_writer.h"
#include "api/connection_engine.h"
#include "api/httplib_bridge.h"
#include "api/plain_request.h"
#include "api/route_table.h"
#include "platform/console.h"
#include "platform/random.h"
#include "platform/text.h"

namespace tavrel::api {
namespace {

/// So much of a body that no route wants is read, to keep the connection; more closes it.
constexpr std::size_t kMaxUnwantedBody = std::size_t{64} << 10;

/// Says on standard error why a request was answered with 500. Called while the exception is being
/// handled.
void reportFailure(const Request& request) {
  std::string reason = "unknown exception";
  try {
    throw;
  } catch (const std::exception& known) {
    reason = known.what();
  } catch (...) {
  }
  platform::printError("[Controller] " + request.method + ' ' + request.path +
                       " failed: " + reason);
}

/// Reads the body of a plain request. Memory grows with what arrives, not with what was announced.
int readPlainBody(Exchange& exchange, std::size_t max_bytes, std::string& body) {
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  Connection& connection = *exchange.connection;
  const std::uint64_t size = connection.head().content_length;
  if (size > max_bytes) {
    exchange.terms.keep_connection = false;
    return 413;
  }
  while (body.size() < size) {
    const std::size_t have = body.size();
    const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(size - have, kPiece));
    body.resize(have + piece);
    const std::ptrdiff_t read = connection.read(body.data() + have, piece);
    body.resize(have + static_cast<std::size_t>(std::max<std::ptrdiff_t>(read, 0)));
    if (read > 0) continue;
    exchange.terms.keep_connection = false;
    return connection.bodyFailure();
  }
  return 0;
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

/// Ends a stream when the server stops.
class StoppableWriter final : public StreamWriter {
 public:
  StoppableWriter(AnswerWriter& writer, const ConnectionEngine& engine)
      : writer_(writer), engine_(engine) {}

  bool write(std::string_view bytes) override {
    return !engine_.stopping() && writer_.write(bytes);
  }

 private:
  AnswerWriter& writer_;
  const ConnectionEngine& engine_;
};

/// Marks a connection as streaming for as long as it lives.
class StreamMark {
 public:
  StreamMark(ConnectionEngine& engine, Connection& connection)
      : engine_(engine), connection_(connection) {
    connection_.setStreaming(true);
    // A stop that came before the mark has not seen this stream.
    if (engine_.stopping()) connection_.interrupt(/*all=*/true);
  }
  ~StreamMark() {
    connection_.setStreaming(false);
    engine_.closeStream();
  }
  StreamMark(const StreamMark&) = delete;
  StreamMark& operator=(const StreamMark&) = delete;

 private:
  ConnectionEngine& engine_;
  Connection& connection_;
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
  std::string cors_lines;  ///< the header lines that every answer carries
  std::unique_ptr<ConnectionEngine> engine;

  ConnectionEngine::Settings engineSettings() const;
  bool serve(Connection& connection);
  bool servePlain(Exchange& exchange);
  void dispatch(Exchange& exchange, Request request, const BodyReader& read_body);
  void route(Exchange& exchange, Request& request, const BodyReader& read_body);
  void answerUnknown(Exchange& exchange, const std::string& method, const BodyReader& read_body);
  void serveRoute(const Route& route, Context& context, const Request& request, Exchange& exchange);
  void answer(Response response, const Context& context, Exchange& exchange);
  void answerWithout(int status, Exchange& exchange) const;
  void runStream(AnswerWriter& answer, int status, const std::string& content_type,
                 const StreamBody& body, Exchange& exchange);
  std::string allowedOrigin() const {
    return config.cors_origins.empty() ? "*" : config.cors_origins.front();
  }
  std::string corsLines() const;
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

std::string HttpServer::Impl::corsLines() const {
  return "Access-Control-Allow-Origin: " + allowedOrigin() +
         "\r\nAccess-Control-Allow-Methods: " + config.cors_methods +
         "\r\nAccess-Control-Allow-Headers: " + config.cors_headers + "\r\n";
}

/// Serves the request at the front of the connection's input; whether another may follow.
bool HttpServer::Impl::serve(Connection& connection) {
  Exchange exchange;
  exchange.connection = &connection;
  const bool served = servePlain(exchange) || bridge->serve(exchange);
  const bool sent = connection.flush();
  connection.skipArrivedBody();
  return served && sent && exchange.complete && exchange.terms.keep_connection &&
         connection.requestConsumed();
}

/// False, with nothing done, for a request that the library has to read.
bool HttpServer::Impl::servePlain(Exchange& exchange) {
  Connection& connection = *exchange.connection;
  const RequestHead& head = connection.head();
  if (head.chunked || head.expects_continue) return false;
  Request request;
  bool asks_to_close = false;
  if (!readPlainRequest(connection.headBytes(), request, asks_to_close)) return false;
  const bool takes_body = methodTakesBody(request.method);
  if (!takes_body && head.content_length > 0) return false;
  connection.skipHead();
  exchange.terms.keep_connection = !asks_to_close;
  exchange.terms.head_only = request.method == "HEAD";
  BodyReader read_body;
  if (takes_body) {
    read_body = [&exchange](std::size_t max_bytes, std::string& body) {
      return readPlainBody(exchange, max_bytes, body);
    };
  }
  dispatch(exchange, std::move(request), read_body);
  return true;
}

void HttpServer::Impl::dispatch(Exchange& exchange, Request request, const BodyReader& read_body) {
  try {
    route(exchange, request, read_body);
  } catch (...) {
    reportFailure(request);
    exchange.complete = !exchange.answered;
    if (!exchange.answered) answerWithout(500, exchange);
  }
}

void HttpServer::Impl::route(Exchange& exchange, Request& request, const BodyReader& read_body) {
  // HEAD is served by the GET routes; the answer's body is left out.
  const std::string method = request.method == "HEAD" ? "GET" : request.method;
  const Route* found = table.find(method, request.path, request.path_params);
  if (found == nullptr) return answerUnknown(exchange, method, read_body);

  Context context;
  context.start_time = platform::steadyNow();
  context.request_id = generateRequestId();
  context.client = exchange.connection;
  context.route = found->pattern;
  request.remote_address = exchange.connection->remoteAddress();
  if (read_body) {
    const std::size_t most = std::min(config.max_body_bytes, found->max_body_bytes);
    const int failure = read_body(most, request.body);
    if (failure != 0) return answerWithout(failure, exchange);
  }
  serveRoute(*found, context, request, exchange);
}

void HttpServer::Impl::answerUnknown(Exchange& exchange, const std::string& method,
                                     const BodyReader& read_body) {
  if (method == "OPTIONS" && config.cors_enabled) {
    AnswerWriter answer(*exchange.connection, exchange.terms);
    answer.lines(cors_lines);
    answer.header("Access-Control-Max-Age", "86400");
    exchange.answered = true;
    return answer.whole(204, "", "");
  }
  std::string unwanted;
  if (read_body) read_body(kMaxUnwantedBody, unwanted);
  answerWithout(404, exchange);
}

/// A bare status.
void HttpServer::Impl::answerWithout(int status, Exchange& exchange) const {
  exchange.answered = true;
  AnswerWriter(*exchange.connection, exchange.terms).whole(status, "", "");
}

void HttpServer::Impl::serveRoute(const Route& route, Context& context, const Request& request,
                                  Exchange& exchange) {
  if (!route.stream_handler) {
    return answer(Chain{middlewares, route}.run(0, context, request), context, exchange);
  }
  if (stream_guard) {
    if (std::optional<Response> refusal = stream_guard(context, request)) {
      return answer(std::move(*refusal), context, exchange);
    }
  }
  AnswerWriter answer(*exchange.connection, exchange.terms);
  answer.header("Cache-Control", "no-cache");
  if (exchange.terms.keep_connection && !exchange.terms.http_1_0) {
    answer.header("Connection", "keep-alive");
  }
  if (config.cors_enabled) answer.header("Access-Control-Allow-Origin", allowedOrigin());
  runStream(
      answer, 200, "text/event-stream",
      [&](StreamWriter& writer) { route.stream_handler(context, request, writer); }, exchange);
}

void HttpServer::Impl::answer(Response response, const Context& context, Exchange& exchange) {
  AnswerWriter answer(*exchange.connection, exchange.terms);
  for (const auto& [name, value] : response.headers) {
    if (!platform::equalsIgnoringCase(name, "Content-Type")) answer.header(name, value);
  }
  if (config.cors_enabled) answer.lines(cors_lines);
  answer.header("X-Request-ID", context.request_id);
  if (response.stream) {
    return runStream(answer, response.status, response.content_type, response.stream, exchange);
  }
  exchange.answered = true;
  answer.whole(response.status, response.content_type, response.body);
}

void HttpServer::Impl::runStream(AnswerWriter& answer, int status, const std::string& content_type,
                                 const StreamBody& body, Exchange& exchange) {
  exchange.answered = true;
  if (!engine->openStream()) {
    const Response refusal = Response::error(503, "Too many open streams");
    return answer.whole(refusal.status, refusal.content_type, refusal.body);
  }
  const StreamMark mark(*engine, *exchange.connection);
  answer.beginStream(status, content_type);
  exchange.terms.keep_connection = !answer.closes();
  if (!answer.sendsBody()) return;
  StoppableWriter writer(answer, *engine);
  body(writer);
  answer.end();
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
      [&impl](Exchange& exchange, Request request, const BodyReader& read_body) {
        impl.dispatch(exchange, std::move(request), read_body);
      });
  impl.cors_lines = impl.corsLines();
  impl.engine = std::make_unique<ConnectionEngine>(
      impl.engineSettings(), [&impl](Connection& connection) { return impl.serve(connection); });

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
