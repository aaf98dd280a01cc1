#include "load_generator/exchange.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <stdexcept>

namespace tavrel::load {

Answer exchange(int fd, std::string_view request) {
  using State = net::HttpResponseParser::State;
  if (!sendWhole(fd, request)) throw std::runtime_error("the server hung up on a request");
  net::HttpResponseParser parser;
  Answer answer;
  std::array<char, 16384> bytes;
  while (parser.state() == State::kHead || parser.state() == State::kBody) {
    const ssize_t count = recv(fd, bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::runtime_error("the server did not answer in time");
    if (count == 0) {
      parser.finish();
    } else {
      parser.consume({bytes.data(), static_cast<std::size_t>(count)}, answer.body);
    }
  }
  if (parser.state() != State::kDone) throw std::runtime_error("the answer is not HTTP");
  answer.status = parser.head().status;
  return answer;
}

}  // namespace tavrel::load
