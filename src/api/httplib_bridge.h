#pragma once

#include <httplib.h>

#include <functional>
#include <string>

#include "api/connection.h"

namespace tavrel::api {

/// What is being served on the current thread: the link between the HTTP library's callbacks, which
/// know only its own request type, and the connection.
struct Exchange {
  Connection* connection = nullptr;
  std::string path;          ///< the decoded path; the library itself is given "/" to match
  std::string content_type;  ///< as sent
  bool head_parsed = false;
  bool keep_connection = true;
};

/// The HTTP library as parser and writer: it binds the port, and turns the bytes of one request
/// into a call of `dispatch` and the answer into bytes. Accepting, waiting and limits are the
/// engine's.
class HttplibBridge final : public httplib::Server {
 public:
  /// Called with an open body for methods that have one, with null otherwise.
  using BodyReader = httplib::ContentReader;
  using Dispatch = std::function<void(Exchange&, const httplib::Request&, const BodyReader*,
                                      httplib::Response&)>;

  explicit HttplibBridge(Dispatch dispatch);

  /// Binds the port (0: any) and returns it; -1 when it cannot be had. The socket is then in
  /// `socket`.
  int bind(const std::string& host, int port, int& socket);

  /// The server is stopping: streamed answers end.
  void markStopping() { svr_sock_ = INVALID_SOCKET; }

  /// What the "Keep-Alive" header tells clients.
  void announceIdleTimeout(std::chrono::seconds timeout);

  /// Serves the one request at the front of the connection's input.
  bool serve(Connection& connection);

 private:
  const Dispatch dispatch_;
};

}  // namespace tavrel::api
