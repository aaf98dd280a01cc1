#include "api/httplib_bridge.h"

#include <exception>
#include <string_view>
#include <utility>

#include "platform/console.h"

namespace tavrel::api {
namespace {

thread_local Exchange* current_exchange = nullptr;

void reportFailure(const std::string& method, const std::exception_ptr& error) {
  std::string reason = "unknown exception";
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& known) {
    reason = known.what();
  } catch (...) {
  }
  platform::printError("[Controller] " + method + ' ' + current_exchange->path +
                       " failed: " + reason);
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
void prepare(Exchange& exchange, httplib::Request& request) {
  exchange.head_parsed = true;
  // Routes are found by the server's own table: the library matches "/", at no cost.
  exchange.path = std::move(request.path);
  request.path = "/";
  exchange.terms.head_only = request.method == "HEAD";
  exchange.terms.http_1_0 = request.version == "HTTP/1.0";
  // JSON is answered whole and as it is: no ranges of it, and no compression at the highest level.
  request.ranges.clear();
  request.headers.erase("Accept-Encoding");
  // Bodies arrive as they were sent: the library would take forms apart.
  const auto type = request.headers.find("Content-Type");
  if (type != request.headers.end()) {
    exchange.content_type = std::move(type->second);
    type->second = "application/octet-stream";
  }
}

}  // namespace

HttplibBridge::HttplibBridge(Dispatch dispatch) : dispatch_(std::move(dispatch)) {
  set_socket_options(onlyReuseAddress);
  set_exception_handler(
      [](const httplib::Request& request, httplib::Response& response, std::exception_ptr error) {
        reportFailure(request.method, error);
        response.headers.clear();
        response.body.clear();
        response.status = 500;
        current_exchange->complete = !current_exchange->answered;
      });
  set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
    const std::string& method = request.method;
    if (method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE") {
      return HandlerResponse::Unhandled;  // continues below, with the body
    }
    dispatch_(*current_exchange, request, nullptr);
    return HandlerResponse::Handled;
  });
  const auto with_body = [this](const httplib::Request& request, httplib::Response&,
                                const httplib::ContentReader& body) {
    dispatch_(*current_exchange, request, &body);
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

bool HttplibBridge::serve(Connection& connection) {
  Exchange exchange;
  exchange.connection = &connection;
  current_exchange = &exchange;
  BufferedStream stream(connection, exchange);
  bool asked_to_close = false;
  const bool answered = process_request(stream, /*close_connection=*/false, asked_to_close,
                                        [&](httplib::Request& request) {
                                          exchange.terms.keep_connection = !asked_to_close;
                                          prepare(exchange, request);
                                        });
  current_exchange = nullptr;
  const bool sent = connection.flush();
  connection.skipArrivedBody();
  return answered && sent && exchange.head_parsed && exchange.complete &&
         exchange.terms.keep_connection && connection.requestConsumed();
}

}  // namespace tavrel::api
