#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/controller_transport.h"
#include "cluster/node_info.h"
#include "platform/console.h"
#include "platform/mutex.h"
#include "platform/outcome.h"
#include "platform/periodic_task.h"

namespace tavrel::worker {
class WorkerRegistry;
struct WorkerInfo;
}  // namespace tavrel::worker

namespace tavrel::cluster {

class RouterRegistry;

enum class ControllerTier : std::int32_t { kPrimary = 0, kSecondary = 1, kTertiary = 2 };

/// "primary", "secondary", "tertiary", or "unknown" for a value outside the enumeration.
std::string controllerTierToString(ControllerTier tier);
std::optional<ControllerTier> controllerTierFromString(std::string_view text);

/// This controller, as its linked controllers know it. Constant after start.
struct ThisController {
  std::string id;
  std::string hostname;
  std::string address;  ///< under which others reach it
  std::string cluster_id;
  ControllerTier tier = ControllerTier::kPrimary;
  std::string parent_url;  ///< empty: it has none
};

/// A controller that connected to this one. A plain copyable value.
struct ConnectedController {
  std::string id;
  std::string hostname;
  std::string address;
  std::int32_t port = 0;
  ControllerTier tier = ControllerTier::kSecondary;
  NodeStatus status = NodeStatus::kHealthy;
  AIControlMode ai_mode = AIControlMode::kNone;
  std::string llm_model;
  std::int32_t managed_workers = 0;
  std::int32_t managed_routers = 0;
  std::string cluster_id;
  std::string parent_id;

  nlohmann::json toJson() const;
};

/// Whether the worker can do what is asked for: a backend it has, a model it has installed, one of
/// its flags ("supports_vllm" or "vllm", "has_gpu" or "gpu"), or a label ("rack", or "rack=3").
bool offersCapability(const worker::WorkerInfo& worker, const std::string& capability);

/// What the tiers need from outside. Tests put in their own network and call registerWithParent.
struct TiersEnvironment {
  ControllerTransport& transport;  ///< carries the cluster's key
  std::function<nlohmann::json()> ai_control = [] { return AIControlConfig{}.toJson(); };
  std::function<void(std::string_view)> print = platform::printLine;
  std::size_t at_once = 32;  ///< calls to children that may be under way side by side
};

/// The controllers above and below this one. Jobs that no worker here is capable of climb to the
/// parent; jobs can be delegated to a child.
///
/// Threads: any may call; start, stop and the destructor belong to the owner. One thread, `parent`,
///   registers with the parent, every 30 s until it worked. mu_ is a leaf; calls to others are made
///   without it.
/// Failure: told by the Outcome; values of a wrong type throw nlohmann's exception.
class ControllerTiers {
 public:
  static constexpr std::chrono::seconds kParentPeriod{30};
  /// How often a job may be passed on.
  static constexpr std::int32_t kMostHops = 8;
  /// How far down capabilities are asked for: there are three tiers.
  static constexpr std::int32_t kMostCapabilityHops = 2;
  static constexpr std::size_t kMostControllers = 10'000;  ///< connected to this one

  /// Everything must outlive it.
  ControllerTiers(ThisController self, const worker::WorkerRegistry& workers,
                  const RouterRegistry& routers, TiersEnvironment env);

  /// Called once the server listens, with its port: the parent asks back whether this is there.
  void start(std::int32_t port);
  void stop() { parent_.stop(); }

  /// True when the parent took this controller in.
  bool registerWithParent();

  nlohmann::json list() const TV_EXCLUDES(mu_);
  std::size_t connectedCount() const TV_EXCLUDES(mu_);
  platform::Outcome connect(const nlohmann::json& body) TV_EXCLUDES(mu_);
  platform::Outcome disconnect(const std::string& id) TV_EXCLUDES(mu_);
  /// `hops`: how many controllers the question has passed.
  nlohmann::json capabilities(std::int32_t hops) TV_EXCLUDES(mu_);
  platform::Outcome forward(const nlohmann::json& body);
  platform::Outcome delegate(const nlohmann::json& body) TV_EXCLUDES(mu_);
  nlohmann::json hierarchy() const TV_EXCLUDES(mu_);

 private:
  std::vector<ConnectedController> children() const TV_EXCLUDES(mu_);
  std::set<std::string> ownCapabilities() const;
  bool someWorkerOffers(const std::string& capability) const;
  net::HttpResult post(const std::string& url, const nlohmann::json& body,
                       std::chrono::milliseconds total);

  const ThisController self_;
  const worker::WorkerRegistry& workers_;
  const RouterRegistry& routers_;
  const TiersEnvironment env_;
  std::atomic<std::int32_t> port_{0};
  std::atomic<bool> registered_{false};

  mutable platform::Mutex mu_;
  std::map<std::string, ConnectedController> controllers_ TV_GUARDED_BY(mu_);

  platform::PeriodicTask parent_;  // last: its thread uses all of the above
};

}  // namespace tavrel::cluster
