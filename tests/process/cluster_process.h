#pragma once

#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "process/controller_process.h"

// Controllers of a cluster that demands its key, and what they say of each other.
namespace tavrel::test {

inline const std::string kClusterKey = "key-of-the-cluster";

inline std::unique_ptr<Controller> startMember(const std::string& id, int port,
                                               std::vector<std::string> more) {
  more.insert(more.end(), {"--node-id", id, "--api-key", kClusterKey, "--require-auth"});
  return std::make_unique<Controller>(
      std::move(more), Process::Environment{{"TAVREL_CLUSTER_KEY", kClusterKey}}, port);
}

/// What a list in the answer of a route says: the status of each entry but `self`, by its id.
inline std::map<std::string, int> statusesIn(const Controller& controller, const std::string& path,
                                             const char* list, const std::string& self) {
  const std::string answer = controller.get(path, "X-API-Key: " + kClusterKey + "\r\n");
  const std::size_t body = answer.find("\r\n\r\n");
  std::map<std::string, int> found;
  if (body == std::string::npos) return found;
  const auto object = nlohmann::json::parse(answer.substr(body + 4), nullptr, false);
  if (!object.is_object() || !object.contains(list)) return found;
  for (const auto& entry : object[list]) {
    if (entry["id"] != self) found[entry["id"]] = entry["status"];
  }
  return found;
}

/// The other nodes a controller knows.
inline std::map<std::string, int> othersOf(const Controller& controller, const std::string& self) {
  return statusesIn(controller, "/api/v1/cluster/stats", "nodes", self);
}

/// The controllers that it exchanges gossip with.
inline std::map<std::string, int> peersOf(const Controller& controller) {
  return statusesIn(controller, "/api/v1/cluster/gossip/peers", "peers", "");
}

inline void kill(Controller& controller) {
  controller.process().signal(SIGKILL);
  controller.process().waitForExit(std::chrono::seconds(5));
}

}  // namespace tavrel::test
