#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "inference/local_model_server.h"
#include "net/http_client.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {

/// Another node whose models are listed beside the workers' own.
struct RemoteCatalogue {
  std::string url;       ///< of its model list, e.g. "http://10.0.0.7:8881/api/v1/models?scope=own"
  std::string owned_by;  ///< what its models are marked with, e.g. "cluster"
  std::string source;    ///< the same, e.g. "router"
  bool after_local = false;  ///< listed after the models of the local model server
};

/// The models that the cluster offers.
///
/// Threads: any; no lock is held while others are asked. Time: other nodes are asked side by side
/// and get two seconds each, and no new one is asked after kAskingTime. Failure: a node that does
/// not answer, or makes no sense, has no models; nothing throws.
class ModelCatalogue {
 public:
  static constexpr std::size_t kMaxCallsAtOnce = 16;
  static constexpr std::chrono::milliseconds kAskingTime{3000};
  static constexpr std::chrono::milliseconds kConnectTimeout{1000};
  static constexpr std::chrono::milliseconds kCallTimeout{2000};

  /// The other nodes as they are known at the moment of the call.
  using Remotes = std::function<std::vector<RemoteCatalogue>()>;

  /// The references must outlive this.
  ModelCatalogue(const worker::WorkerRegistry& workers, LocalModelServer& local,
                 net::HttpClient& http, Remotes remotes);

  /// {"object": "list", "data": [...]} in sorted order: the models on online workers, or those of
  /// the local model server when there are none.
  nlohmann::json openAiList() const;

  /// {"models", "object", "count"}: the workers' models, then those of other nodes and of the
  /// local model server; the first entry of a name stands. With `own_only` no other node is
  /// asked (so that two controllers that list each other do not ask in circles).
  nlohmann::json detailedList(bool own_only) const;

 private:
  struct Foreign {
    std::string name;
    std::optional<std::uint64_t> size_bytes;
  };
  std::vector<Foreign> ask(const RemoteCatalogue& remote) const;
  static std::vector<Foreign> readRemoteList(const std::string& body);

  const worker::WorkerRegistry& workers_;
  LocalModelServer& local_;
  net::HttpClient& http_;
  const Remotes remotes_;
};

}  // namespace tavrel::inference
