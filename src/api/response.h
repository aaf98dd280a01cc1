#pragma once

#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace tavrel::api {

/// Where a streamed answer is written to. Belongs to the thread that runs the stream body.
class StreamWriter {
 public:
  virtual ~StreamWriter() = default;

  /// Sends the bytes at once, waiting while the client is slow to take them (at most the server's
  /// write timeout without progress). False once the client has left or the server stops; the
  /// stream body then returns.
  virtual bool write(std::string_view bytes) = 0;
};

/// Produces a streamed body: writes it piece by piece and returns at its end. Runs on the thread of
/// the request, after the handler returned.
using StreamBody = std::function<void(StreamWriter&)>;

/// What a handler answers. A plain value.
struct Response {
  int status = 200;
  std::map<std::string, std::string> headers;
  std::string body;
  std::string content_type = "application/json";
  StreamBody stream;  ///< when set, `body` is ignored and the answer is sent in chunks

  /// JSON answers, compact. Text in them that is not UTF-8 raises the JSON library's error.
  static Response ok(const nlohmann::json& value);
  static Response created(const nlohmann::json& value);
  static Response json(const nlohmann::json& value, int status = 200);

  /// The one error shape of the API: {"code": status, "error": message}. Bytes of the message that
  /// are not UTF-8 are replaced.
  static Response error(int status, std::string_view message);

  /// 200 with a text that is not JSON.
  static Response text(std::string body, std::string content_type);
};

}  // namespace tavrel::api
