#include "api/httplib_bridge.h"

#include <utility>

#include "api/plain_request.h"

namespace tavrel::api {
namespace {

/// What the library is parsing on this thread: the link between its callbacks, which know only its
/// own request type, and the connection. Read before the handler runs and not after: a handler that
/// waits may go on on another thread, while another request is parsed on this one.
struct Parsing {
  Exchange& exchange;
  std::string path{};          ///< the decoded path; the library itself is given "/" to match
  std::string content_type{};  ///< as sent
  bool head_parsed = false;
};
thread_local Parsing* current = nullptr;

/// Headers that the library adds to every request.
bool isLibraryHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

Request requestFrom(const httplib::Request& from) {
  Request request;
  request.method = from.method;
  request.path = std::move(current->path);
  for (const auto& [name, value] : from.headers) {
    if (!isLibraryHeader(name)) request.headers[name] = value;
  }
  if (!current->content_type.empty()) request.headers["Content-Type"] = current->content_type;
  for (const auto& [name, value] : from.params) request.query[name] = value;
  const std::size_t mark = request.path.find('?');  // sent percent-encoded
  if (request.query.empty() && mark != std::string::npos) {
    request.query = parseQueryParams(request.path.substr(mark + 1));
  }
  return request;
}

/// Reads a body through the library, which decodes chunks and compression.
int readThrough(const httplib::ContentReader& content, Exchange& exchange, std::size_t max_bytes,
                std::string& body) {
  bool too_large = false;
  const bool complete = content([&](const char* bytes, std::size_t size) {
    // Also counts what a compressed body unfolds to.
    too_large = body.size() + size > max_bytes;
    if (!too_large) body.append(bytes, size);
    return !too_large;
  });
  if (complete) return 0;
  exchange.terms.keep_connection = false;
  return too_large ? 413 : exchange.connection->bodyFailure();
}

/// Gives the library the connection's buffers in place of a socket. What it has to say after the
/// answer was written is dropped.
class BufferedStream final : public httplib::Stream {
 public:
  BufferedStream(Connection& connection, const Exchange& exchange)
      : connection_(connection), exchange_(exchange) {}

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* to, size_t size) override { return connection_.read(to, size); }
  ssize_t write(const char* from, size_t size) override {
    return exchange_.answered || connection_.write({from, size}) ? static_cast<ssize_t>(size) : -1;
  }
  void get_remote_ip_and_port(std::string& ip, int&) const override {
    ip = connection_.remoteAddress();
  }
  void get_local_ip_and_port(std::string&, int&) const override {}
  /// The library refuses descriptors beyond what select() can take; it never uses this one.
  socket_t socket() const override { return 0; }

 private:
  Connection& connection_;
  const Exchange& exchange_;
};

void onlyReuseAddress(socket_t socket) {
  // Not SO_REUSEPORT: a second server on the same port must fail to start.
  const int on = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

/// Takes out of the parsed head what the library would act on by itself.
void prepare(Parsing& parsing, httplib::Request& request) {
  parsing.head_parsed = true;
  // Routes are found by the server's own table: the library matches "/", at no cost.
  parsing.path = std::move(request.path);
  request.path = "/";
  AnswerWriter::Terms& terms = parsing.exchange.terms;
  terms.head_only = request.method == "HEAD";
  terms.http_1_0 = request.version == "HTTP/1.0";
  // JSON is answered whole and as it is: no ranges of it, and no compression at the highest level.
  request.ranges.clear();
  request.headers.erase("Accept-Encoding");
  // Bodies arrive as they were sent: the library would take forms apart.
  const auto type = request.headers.find("Content-Type");
  if (type != request.headers.end()) {
    parsing.content_type = std::move(type->second);
    type->second = "application/octet-stream";
  }
}

}  // namespace

HttplibBridge::HttplibBridge(Dispatch dispatch) : dispatch_(std::move(dispatch)) {
  set_socket_options(onlyReuseAddress);
  set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
    if (methodTakesBody(request.method)) return HandlerResponse::Unhandled;  // below, with the body
    dispatch_(current->exchange, requestFrom(request), {});
    return HandlerResponse::Handled;
  });
  const auto with_body = [this](const httplib::Request& request, httplib::Response&,
                                const httplib::ContentReader& content) {
    Exchange& exchange = current->exchange;
    dispatch_(exchange, requestFrom(request), [&](std::size_t max_bytes, std::string& body) {
      return readThrough(content, exchange, max_bytes, body);
    });
  };
  Post("/", with_body);
  Put("/", with_body);
  Patch("/", with_body);
  Delete("/", with_body);
}

int HttplibBridge::bind(const std::string& host, int port, int& socket) {
  if (port > 65535) return -1;  // the resolver would cut it down to another port
  const int bound = port == 0 ? bind_to_any_port(host) : (bind_to_port(host, port) ? port : -1);
  socket = svr_sock_;
  return bound;
}

bool HttplibBridge::serve(Exchange& exchange) {
  Parsing parsing{exchange};
  current = &parsing;
  BufferedStream stream(*exchange.connection, exchange);
  bool asked_to_close = false;
  const bool answered = process_request(stream, /*close_connection=*/false, asked_to_close,
                                        [&](httplib::Request& request) {
                                          exchange.terms.keep_connection = !asked_to_close;
                                          prepare(parsing, request);
                                        });
  current = nullptr;
  return answered && parsing.head_parsed;
}

}  // namespace tavrel::api
