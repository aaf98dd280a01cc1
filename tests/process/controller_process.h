#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/messages.h"
#include "support/process.h"
#include "support/raw_client.h"

namespace tavrel::test {

inline const std::string kController = TAVREL_BUILD_DIR "/tavrel-controller";
inline const std::string kDevWorker = TAVREL_BUILD_DIR "/tavrel-dev-worker";

/// The JSON body of an answer; discarded when it has none.
inline nlohmann::json jsonOf(const std::string& answer) {
  return nlohmann::json::parse(bodyOf(answer), nullptr, false);
}

/// A controller on a port of the loopback interface (0: whichever is free), asked over HTTP.
class Controller {
 public:
  explicit Controller(std::vector<std::string> arguments = {},
                      Process::Environment environment = {}, int port = 0)
      : process_(kController, with(std::move(arguments), port), std::move(environment)) {
    if (port != 0) {
      port_ = port;
      waitUntilItAccepts();
      return;
    }
    const auto line =
        process_.waitForLine("[Controller] Listening on 127.0.0.1:", std::chrono::seconds(20));
    if (line) port_ = std::stoi(line->substr(line->rfind(':') + 1));
  }

  int port() const { return port_; }
  Process& process() { return process_; }

  /// The whole answer, head included.
  std::string request(const std::string& method, const std::string& path,
                      const std::string& body = "", const std::string& headers = "") const {
    const RawClient client(port_);
    client.send(method + ' ' + path + " HTTP/1.1\r\nHost: c\r\nConnection: close\r\n" + headers +
                "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                "\r\n\r\n" + body);
    return client.readAll();
  }
  std::string get(const std::string& path, const std::string& headers = "") const {
    return request("GET", path, "", headers);
  }
  /// Asks until the answer contains the text; the last answer.
  std::string getUntil(const std::string& path, const std::string& text) const {
    std::string answer;
    for (int i = 0; i < 1000; ++i) {
      answer = get(path);
      if (answer.find(text) != std::string::npos) break;
      process_.waitForLine("never printed", std::chrono::milliseconds(20));
    }
    return answer;
  }

 private:
  static std::vector<std::string> with(std::vector<std::string> arguments, int port) {
    // Of an option that is given twice the last counts.
    arguments.insert(arguments.begin(), {"--bind", "127.0.0.1", "--port", std::to_string(port)});
    return arguments;
  }

  void waitUntilItAccepts() {
    for (int i = 0; i < 1000; ++i) {
      try {
        const RawClient probe(port_);
        return;
      } catch (const std::runtime_error&) {
        process_.waitForLine("never printed", std::chrono::milliseconds(20));
      }
    }
  }

  mutable Process process_;
  int port_ = 0;
};

}  // namespace tavrel::test
