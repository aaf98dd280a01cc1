#pragma once

#include <httplib.h>

#include <functional>
#include <stdexcept>

#include "api/http_server.h"

namespace tavrel::test {

/// A real HttpServer on an ephemeral port of 127.0.0.1, stopped at the end of the scope.
class TestServer {
 public:
  using Setup = std::function<void(api::HttpServer&)>;

  explicit TestServer(const Setup& setup) : TestServer(setup, api::ServerConfig{}) {}
  TestServer(const Setup& setup, api::ServerConfig config) {
    config.host = "127.0.0.1";
    config.port = 0;
    server_.configure(config);
    setup(server_);
    if (!server_.start()) throw std::runtime_error("the test server does not start");
  }
  /// A server with the routes that `offer` puts into a book.
  explicit TestServer(const std::function<void(api::RouteBook&)>& offer)
      : TestServer([&] {
          api::RouteBook book;
          offer(book);
          return book;
        }()) {}
  /// A server with the routes of one book.
  explicit TestServer(const api::RouteBook& book)
      : TestServer([&](api::HttpServer& server) { server.addRoutes(book); }) {}

  api::HttpServer& server() { return server_; }
  int port() const { return server_.getPort(); }

  /// A client with a connection of its own.
  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port());
    client.set_keep_alive(true);
    client.set_tcp_nodelay(true);  // or each POST waits for a delayed acknowledgement
    client.set_read_timeout(20);
    return client;
  }

 private:
  api::HttpServer server_;
};

}  // namespace tavrel::test
