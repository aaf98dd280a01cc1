#pragma once

#include <string>
#include <string_view>

#include "load_generator/socket.h"
#include "net/http_response_parser.h"

namespace tavrel::load {

struct Answer {
  int status = 0;
  std::string body;
};

/// One request on a blocking connection and its whole answer. Throws std::runtime_error when the
/// peer hangs up, stalls for kIoSeconds or does not speak HTTP.
Answer exchange(int fd, std::string_view request);

}  // namespace tavrel::load
