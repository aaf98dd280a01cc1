#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "load_generator/exchange.h"
#include "load_generator/loads.h"
#include "platform/console.h"

namespace tavrel::load {
namespace {

bool stillOpen(const Descriptor& connection) {
  char byte = 0;
  return recv(connection.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0;
}

}  // namespace

nlohmann::json runIdle(Options& options) {
  const int port = options.port("--port");
  const std::string path = options.text("--path", "/api/v1/health");
  const int count = options.number("--connections", 5'000, 1, 15'000);
  const std::chrono::seconds hold(options.number("--hold", 10, 1, 600));
  options.refuseUnread();

  const std::string request = httpGet(port, path);
  std::vector<Descriptor> connections;
  for (int i = 0; i < count; ++i) {
    connections.push_back(connectToLoopback(port));
    // One answered request each: this is how idle connections come about.
    if (exchange(connections.back().get(), request).status != 200) {
      throw std::runtime_error("the request before the idling was refused");
    }
  }
  platform::printLine(nlohmann::json{{"ready", count}}.dump());
  pollfd input{STDIN_FILENO, POLLIN, 0};
  poll(&input, 1, static_cast<int>(std::chrono::milliseconds(hold).count()));
  return {{"connections", count},
          {"still_open", std::count_if(connections.begin(), connections.end(), stillOpen)}};
}

}  // namespace tavrel::load
