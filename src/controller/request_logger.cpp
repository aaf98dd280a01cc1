#include "controller/request_logger.h"

#include <charconv>
#include <string>
#include <utility>

#include "platform/clock.h"
#include "platform/console.h"

namespace tavrel::controller {
namespace {

/// The path as sent may hold line ends or escape sequences: nothing of that may reach the console.
std::string printable(const std::string& path) {
  std::string text = path;
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  return text;
}

void logRequest(const std::string& id, const std::string& method, const std::string& path,
                int status, platform::SteadyTime start) {
  char elapsed[32];
  const auto end = std::to_chars(elapsed, elapsed + sizeof elapsed,
                                 platform::millisecondsSince(start), std::chars_format::general, 6);
  std::string line;
  line.reserve(id.size() + path.size() + 48);
  line.append("[").append(id).append("] ").append(method).append(" ").append(printable(path));
  line.append(" -> ").append(std::to_string(status)).append(" (");
  line.append(elapsed, end.ptr).append("ms)");
  platform::printLine(line);
}

}  // namespace

api::Middleware requestLogger() {
  return [](api::Context& context, const api::Request& request, const api::Handler& next) {
    api::Response response = next(context, request);
    if (!response.stream) {
      logRequest(context.request_id, request.method, request.path, response.status,
                 context.start_time);
      return response;
    }
    response.stream = [body = std::move(response.stream), id = context.request_id,
                       method = request.method, path = request.path, status = response.status,
                       start = context.start_time](api::StreamWriter& writer) {
      body(writer);
      logRequest(id, method, path, status, start);
    };
    return response;
  };
}

}  // namespace tavrel::controller
