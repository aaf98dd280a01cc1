#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "process/controller_process.h"
#include "support/process.h"

namespace tavrel::test {

/// A development worker on a free port of the loopback interface.
class DevWorker {
 public:
  explicit DevWorker(std::vector<std::string> arguments)
      : process_(kDevWorker, withPort(std::move(arguments))) {
    const auto line =
        process_.waitForLine("[DevWorker] Listening on 127.0.0.1:", std::chrono::seconds(10));
    if (line) port_ = std::stoi(line->substr(line->rfind(':') + 1));
  }

  int port() const { return port_; }
  Process& process() { return process_; }

 private:
  static std::vector<std::string> withPort(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--port", "0"});
    return arguments;
  }

  Process process_;
  int port_ = 0;
};

}  // namespace tavrel::test
