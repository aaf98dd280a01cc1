#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "dev_worker/faults.h"

namespace tavrel::dev_worker {

/// What the command line asked for. A plain value.
struct Options {
  std::string id;                  ///< empty: "dev-worker-<port>", known once it listens
  std::string name;                ///< empty: the id
  std::string host = "127.0.0.1";  ///< advertised to the controller
  int port = 8090;                 ///< 0: any
  std::string controller;          ///< base URL; empty: registers nowhere
  std::string api_key;
  std::chrono::milliseconds heartbeat{5000};
  std::vector<std::string> models;
  std::map<std::string, std::string> labels;

  std::string upstream;      ///< base URL of a server that answers instead; empty: answers itself
  std::string upstream_key;  ///< sent to it as a bearer token
  std::string answer;        ///< fixed text of every answer; empty: echoes
  int tokens = 0;            ///< per answer; 0: as many as the text has
  double tokens_per_second = 0;            ///< 0: as fast as possible
  std::chrono::milliseconds latency{0};    ///< before the first token
  std::chrono::milliseconds pull_time{0};  ///< how long pulling a model takes
  std::vector<FaultRule> faults;

  /// A worker that advertises a loopback address is reachable there only.
  std::string bindAddress() const;
};

struct ParsedOptions {
  Options options;
  std::string error;  ///< empty: `options` holds
  bool help = false;
};

/// `arguments` without the program's name.
ParsedOptions parseOptions(const std::vector<std::string>& arguments);

/// What `--help` prints.
std::string helpText();

}  // namespace tavrel::dev_worker
