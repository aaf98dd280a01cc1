#pragma once

#include <httplib.h>

#include <functional>
#include <string>

#include "api/answer_writer.h"
#include "api/connection.h"
#include "api/request.h"

namespace tavrel::api {

/// What is being served on the current thread.
struct Exchange {
  Connection* connection = nullptr;
  AnswerWriter::Terms terms;
  bool answered = false;  ///< the head of the answer is on its way: nothing else may be sent
  bool complete = true;   ///< request and answer came to their ends
};

/// Reads the body of a request, of at most `max_bytes`; 0, or the status that says why that failed.
using BodyReader = std::function<int(std::size_t max_bytes, std::string& body)>;

/// The HTTP library as parser, for the requests that are not plain: it binds the port, and turns
/// the bytes of one request into a call of `dispatch`, which writes the answer. It answers itself
/// what it cannot parse. Accepting, waiting and limits are the engine's.
class HttplibBridge final : public httplib::Server {
 public:
  /// Answers the request; `read_body` is empty for methods whose body is not read. Does not throw.
  using Dispatch = std::function<void(Exchange&, Request request, const BodyReader& read_body)>;

  explicit HttplibBridge(Dispatch dispatch);

  /// Binds the port (0: any) and returns it; -1 when it cannot be had. The socket is then in
  /// `socket`.
  int bind(const std::string& host, int port, int& socket);

  /// Serves the one request at the front of the connection's input. False when it was no request.
  bool serve(Exchange& exchange);

 private:
  const Dispatch dispatch_;
};

}  // namespace tavrel::api
