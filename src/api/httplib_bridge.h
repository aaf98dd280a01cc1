#pragma once

#include <httplib.h>

#include <functional>
#include <string>

#include "api/answer_writer.h"
#include "api/connection.h"

namespace tavrel::api {

/// What is being served on the current thread: the link between the HTTP library's callbacks, which
/// know only its own request type, and the connection.
struct Exchange {
  Connection* connection = nullptr;
  std::string path;          ///< the decoded path; the library itself is given "/" to match
  std::string content_type;  ///< as sent
  AnswerWriter::Terms terms;
  bool head_parsed = false;
  bool answered = false;  ///< the head of the answer is on its way: nothing else may be sent
  bool complete = true;   ///< request and answer came to their ends
};

/// The HTTP library as parser: it binds the port, and turns the bytes of one request into a call of
/// `dispatch`, which writes the answer. It answers itself what it cannot parse, and a request whose
/// handler raised something. Accepting, waiting and limits are the engine's.
class HttplibBridge final : public httplib::Server {
 public:
  /// Called with an open body for methods that have one, with null otherwise.
  using BodyReader = httplib::ContentReader;
  using Dispatch = std::function<void(Exchange&, const httplib::Request&, const BodyReader*)>;

  explicit HttplibBridge(Dispatch dispatch);

  /// Binds the port (0: any) and returns it; -1 when it cannot be had. The socket is then in
  /// `socket`.
  int bind(const std::string& host, int port, int& socket);

  /// Serves the one request at the front of the connection's input.
  bool serve(Connection& connection);

 private:
  const Dispatch dispatch_;
};

}  // namespace tavrel::api
