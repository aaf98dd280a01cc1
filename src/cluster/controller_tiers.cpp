#include "cluster/controller_tiers.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "cluster/cluster_transport.h"
#include "cluster/router_registry.h"
#include "net/worker_client.h"
#include "platform/enum_text.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/side_by_side.h"
#include "worker/worker_registry.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::MutexLock;
using platform::Outcome;
using platform::readField;

namespace {

constexpr std::string_view kTierTexts[] = {"primary", "secondary", "tertiary"};
constexpr std::int32_t kPlainHttpPort = 80;
constexpr std::chrono::seconds kProbeTimeout{5};
constexpr std::chrono::seconds kJobTimeout{30};
constexpr std::chrono::seconds kRegisterTimeout{10};

/// How long children are asked for their capabilities, by the hops that the question has passed.
/// Who is asked by its parent answers before the parent gives it up, whichever of its own children
/// hang.
struct CapabilityPatience {
  std::chrono::milliseconds of_each;
  std::chrono::milliseconds begin_within;
};
constexpr CapabilityPatience kCapabilityPatience[] = {
    {std::chrono::seconds{3}, std::chrono::seconds{9}},
    {std::chrono::seconds{2}, std::chrono::milliseconds{500}}};
static_assert(std::size(kCapabilityPatience) == ControllerTiers::kMostCapabilityHops);

/// The flags of a worker's capabilities that are set.
std::vector<std::string> flagsOf(const worker::WorkerInfo& worker) {
  std::vector<std::string> flags;
  const json capabilities = worker.capabilities.toJson();
  for (const auto& [name, value] : capabilities.items()) {
    if (value.is_boolean() && value.get<bool>()) flags.push_back(name);
  }
  return flags;
}

bool contains(const std::vector<std::string>& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

std::string idOf(const std::string& address) {
  return "ctrl-" + std::to_string(std::hash<std::string>{}(address));
}

std::string urlOf(const ConnectedController& controller, const std::string& path) {
  return endpointUrl({controller.address, controller.port}, path);
}

json parsedReply(const net::HttpResult& result) {
  json reply = net::parsedJson(result.body);
  return reply.is_discarded() ? net::rawResponse(result.body) : reply;
}

}  // namespace

std::string controllerTierToString(ControllerTier tier) {
  return platform::enumText(tier, kTierTexts);
}

std::optional<ControllerTier> controllerTierFromString(std::string_view text) {
  return platform::enumFromText<ControllerTier>(text, kTierTexts);
}

json ConnectedController::toJson() const {
  return {{"id", id},
          {"hostname", hostname},
          {"address", address},
          {"port", port},
          {"tier", controllerTierToString(tier)},
          {"status", nodeStatusToString(status)},
          {"ai_mode", aiControlModeToString(ai_mode)},
          {"llm_model", llm_model},
          {"managed_workers", managed_workers},
          {"managed_routers", managed_routers},
          {"cluster_id", cluster_id},
          {"parent_id", parent_id}};
}

bool offersCapability(const worker::WorkerInfo& worker, const std::string& capability) {
  const worker::WorkerCapabilities& can = worker.capabilities;
  if (contains(can.available_backends, capability)) return true;
  if (contains(can.installed_models, capability)) return true;
  for (const auto& [name, value] : worker.labels) {
    if (capability == name || capability == name + "=" + value) return true;
  }
  const std::vector<std::string> flags = flagsOf(worker);
  return contains(flags, capability) || contains(flags, "supports_" + capability) ||
         contains(flags, "has_" + capability);
}

ControllerTiers::ControllerTiers(ThisController self, const worker::WorkerRegistry& workers,
                                 const RouterRegistry& routers, TiersEnvironment env)
    : self_(std::move(self)),
      workers_(workers),
      routers_(routers),
      env_(std::move(env)),
      parent_("parent", std::chrono::milliseconds{0}, kParentPeriod,
              [this](const std::stop_token&) {
                if (!registered_) registered_ = registerWithParent();
              }) {}

void ControllerTiers::start(std::int32_t port) {
  port_ = port;
  if (!self_.parent_url.empty()) parent_.start();
}

bool ControllerTiers::registerWithParent() {
  env_.print("[Controller] Registering with parent controller: " + self_.parent_url);
  const net::HttpResult result = post(net::joinUrl(self_.parent_url, "/api/v1/controllers/connect"),
                                      {{"address", Endpoint{self_.address, port_}.text()},
                                       {"tier", controllerTierToString(self_.tier)},
                                       {"hostname", self_.hostname},
                                       {"cluster_id", self_.cluster_id},
                                       {"managed_workers", workers_.size()},
                                       {"managed_routers", routers_.size()}},
                                      kRegisterTimeout);
  std::string reason = result.transport_error;
  std::string id;
  if (reason.empty()) {
    const json reply = net::parsedJson(result.body);
    try {
      if (result.status == 200 && reply.value("success", false)) {
        id = reply.at("controller").at("id").get<std::string>();
      } else {
        reason = reply.value("error", "HTTP " + std::to_string(result.status));
      }
    } catch (const json::exception&) {
      reason = "HTTP " + std::to_string(result.status) + " without a usable answer";
    }
  }
  if (!reason.empty()) {
    env_.print("[Controller] Failed to register with parent: " + reason);
    return false;
  }
  env_.print("[Controller] Registered with parent controller successfully");
  env_.print("[Controller] Assigned controller ID: " + id);
  return true;
}

net::HttpResult ControllerTiers::post(const std::string& url, const json& body,
                                      std::chrono::milliseconds total) {
  ControllerCall call;
  call.url = url;
  call.body = platform::dumpJson(body);
  call.timeouts = {kConnectTimeout, total};
  return env_.transport.send(call);
}

std::vector<ConnectedController> ControllerTiers::children() const {
  std::vector<ConnectedController> list;
  const MutexLock lock(mu_);
  list.reserve(controllers_.size());
  for (const auto& [id, controller] : controllers_) list.push_back(controller);
  return list;
}

std::size_t ControllerTiers::connectedCount() const {
  const MutexLock lock(mu_);
  return controllers_.size();
}

json ControllerTiers::list() const {
  json controllers = platform::jsonArray(children());
  const std::size_t count = controllers.size();
  return {{"this_controller",
           {{"id", self_.id},
            {"hostname", self_.hostname},
            {"address", self_.address},
            {"port", port_.load()},
            {"tier", controllerTierToString(self_.tier)},
            {"status", "healthy"},
            {"cluster_id", self_.cluster_id},
            {"parent", self_.parent_url},
            {"managed_workers", workers_.size()},
            {"managed_routers", routers_.size()},
            {"ai_control", env_.ai_control()}}},
          {"controllers", std::move(controllers)},
          {"count", count}};
}

Outcome ControllerTiers::connect(const json& body) {
  ConnectedController controller;
  std::string address;
  std::string tier = controllerTierToString(ControllerTier::kSecondary);
  std::string ai_mode = aiControlModeToString(AIControlMode::kNone);
  readField(body, "address", address);
  readField(body, "tier", tier);
  readField(body, "ai_mode", ai_mode);
  readField(body, "llm_model", controller.llm_model);
  readField(body, "hostname", controller.hostname);
  readField(body, "cluster_id", controller.cluster_id);
  readField(body, "managed_workers", controller.managed_workers);
  readField(body, "managed_routers", controller.managed_routers);
  if (address.empty()) return Outcome::refused(400, "address is required");
  const auto known_tier = controllerTierFromString(tier);
  if (!known_tier) return Outcome::refused(400, "Invalid tier: " + tier);
  const auto known_mode = aiControlModeFromString(ai_mode);
  if (!known_mode) {
    return Outcome::refused(400, "Invalid mode. Use: none, advisory, or autonomous");
  }
  controller.tier = *known_tier;
  controller.ai_mode = *known_mode;
  controller.id = idOf(address);
  controller.parent_id = self_.id;
  ControllerCall probe;
  try {
    const Endpoint endpoint = parseEndpoint(address, kPlainHttpPort);
    controller.address = endpoint.host;
    controller.port = endpoint.port;
    probe.url = urlOf(controller, "/api/v1/health");
    probe.timeouts = {kProbeTimeout, kProbeTimeout};
    probe.with_key = false;  // whoever may be there is not known yet
  } catch (const std::invalid_argument&) {
    probe.url.clear();
  }
  if (probe.url.empty() || !env_.transport.send(probe).transport_error.empty()) {
    return Outcome::refused(503, "Cannot connect to controller: " + address);
  }
  {
    const MutexLock lock(mu_);
    if (controllers_.size() >= kMostControllers && !controllers_.contains(controller.id)) {
      return Outcome::refused(503, "Too many controllers are connected");
    }
    controllers_[controller.id] = controller;
  }
  env_.print("[Controllers] Connected to " + tier + " controller: " + address);
  return Outcome::ok({{"success", true}, {"controller", controller.toJson()}});
}

Outcome ControllerTiers::disconnect(const std::string& id) {
  if (id.empty()) return Outcome::refused(400, "id is required");
  {
    const MutexLock lock(mu_);
    if (controllers_.erase(id) == 0) return Outcome::refused(404, "Controller not found");
  }
  env_.print("[Controllers] Disconnected controller: " + id);
  return Outcome::ok({{"success", true}});
}

std::set<std::string> ControllerTiers::ownCapabilities() const {
  std::set<std::string> all;
  for (const worker::WorkerPtr& worker : workers_.snapshot()) {
    if (worker->status != worker::WorkerStatus::kOnline) continue;
    const worker::WorkerCapabilities& can = worker->capabilities;
    all.insert(can.available_backends.begin(), can.available_backends.end());
    all.insert(can.installed_models.begin(), can.installed_models.end());
    for (std::string& flag : flagsOf(*worker)) all.insert(std::move(flag));
    for (const auto& [name, value] : worker->labels) all.insert(name);
  }
  return all;
}

json ControllerTiers::capabilities(std::int32_t hops) {
  const bool asks = hops >= 0 && hops < kMostCapabilityHops;
  const auto asked = asks ? children() : std::vector<ConnectedController>{};
  const CapabilityPatience patience =
      asks ? kCapabilityPatience[static_cast<std::size_t>(hops)] : CapabilityPatience{};
  std::vector<std::vector<std::string>> told(asked.size());
  std::vector<std::function<void()>> jobs;
  for (std::size_t i = 0; i < asked.size(); ++i) {
    jobs.emplace_back([&, i] {
      ControllerCall call;
      call.url =
          urlOf(asked[i], "/api/v1/controllers/capabilities?hops=" + std::to_string(hops + 1));
      call.timeouts = {patience.of_each, patience.of_each};
      try {
        const json reply = platform::parseForeignJson(env_.transport.send(call).body);
        readField(reply, "capabilities", told[i]);
      } catch (const std::exception&) {
        told[i].clear();  // one that does not answer offers nothing now
      }
    });
  }
  platform::runSideBySide(jobs, env_.at_once, patience.begin_within);

  std::set<std::string> all = ownCapabilities();
  json controllers = json::array();
  for (std::size_t i = 0; i < asked.size(); ++i) {
    all.insert(told[i].begin(), told[i].end());
    controllers.push_back({{"id", asked[i].id}, {"capabilities", told[i]}});
  }
  return {{"controller",
           {{"id", self_.id},
            {"hostname", self_.hostname},
            {"address", self_.address},
            {"port", port_.load()}}},
          {"tier", controllerTierToString(self_.tier)},
          {"capabilities", all},
          {"count", all.size()},
          {"controllers", std::move(controllers)}};
}

bool ControllerTiers::someWorkerOffers(const std::string& capability) const {
  const auto workers = workers_.snapshot();
  return std::any_of(workers.begin(), workers.end(), [&](const worker::WorkerPtr& worker) {
    return worker->status == worker::WorkerStatus::kOnline && offersCapability(*worker, capability);
  });
}

Outcome ControllerTiers::forward(const json& body) {
  std::string type;
  std::string capability;
  std::int32_t hops = 0;
  json payload = json::object();
  readField(body, "type", type);
  readField(body, "capability", capability);
  readField(body, "hops", hops);
  readField(body, "payload", payload);
  if (type.empty()) return Outcome::refused(400, "type is required");
  if (capability.empty() || someWorkerOffers(capability)) {
    env_.print("[Dataflow] Handling job locally: " + type);
    return Outcome::ok({{"forwarded", false}, {"handled_by", self_.id}, {"job_type", type}});
  }
  if (self_.parent_url.empty()) {
    return Outcome::refused(503, "Required capability not available and no parent controller");
  }
  if (hops >= kMostHops) return Outcome::refused(503, "Job was forwarded too often");
  env_.print("[Dataflow] Forwarding job to parent: " + self_.parent_url);
  const net::HttpResult result = post(net::joinUrl(self_.parent_url, "/api/v1/controllers/forward"),
                                      {{"type", type},
                                       {"payload", std::move(payload)},
                                       {"capability", capability},
                                       {"source_controller", self_.id},
                                       {"hops", std::max(hops, 0) + 1}},
                                      kJobTimeout);
  if (!result.transport_error.empty()) {
    return Outcome::refused(503, "Cannot reach parent controller: " + result.transport_error);
  }
  return Outcome::ok({{"forwarded", true},
                      {"forwarded_to", self_.parent_url},
                      {"reason", "capability_not_available_locally"},
                      {"parent_response", parsedReply(result)}});
}

Outcome ControllerTiers::delegate(const json& body) {
  std::string id;
  std::string type;
  json payload = json::object();
  readField(body, "controller_id", id);
  readField(body, "type", type);
  readField(body, "payload", payload);
  if (id.empty() || type.empty()) {
    return Outcome::refused(400, "controller_id and type are required");
  }
  ConnectedController child;
  {
    const MutexLock lock(mu_);
    const auto place = controllers_.find(id);
    if (place == controllers_.end()) return Outcome::refused(404, "Target controller not found");
    child = place->second;
  }
  env_.print("[Dataflow] Delegating job to child controller: " + id);
  const net::HttpResult result =
      post(urlOf(child, "/api/v1/controllers/forward"),
           {{"type", type}, {"payload", std::move(payload)}, {"source_controller", self_.id}},
           kJobTimeout);
  if (!result.transport_error.empty()) {
    return Outcome::refused(503, "Cannot reach child controller: " + result.transport_error);
  }
  return Outcome::ok({{"delegated", true},
                      {"delegated_to", id},
                      {"delegated_address", Endpoint{child.address, child.port}.text()},
                      {"job_type", type},
                      {"child_response", parsedReply(result)}});
}

json ControllerTiers::hierarchy() const {
  json below = json::array();
  std::int64_t workers_below = 0;
  std::int64_t routers_below = 0;
  for (const ConnectedController& child : children()) {
    workers_below += child.managed_workers;
    routers_below += child.managed_routers;
    below.push_back({{"id", child.id},
                     {"hostname", child.hostname},
                     {"tier", controllerTierToString(child.tier)},
                     {"address", Endpoint{child.address, child.port}.text()},
                     {"status", nodeStatusToString(child.status)},
                     {"worker_count", child.managed_workers},
                     {"router_count", child.managed_routers}});
  }
  json tree{{"id", self_.id},
            {"hostname", self_.hostname},
            {"tier", controllerTierToString(self_.tier)},
            {"address", Endpoint{self_.address, port_}.text()},
            {"status", "healthy"},
            {"summary",
             {{"total_controllers", below.size() + 1},
              {"direct_workers", workers_.size()},
              {"direct_routers", routers_.size()},
              {"child_workers", workers_below},
              {"child_routers", routers_below}}}};
  tree["children"] = std::move(below);
  if (!self_.parent_url.empty()) tree["parent"] = self_.parent_url;
  return tree;
}

}  // namespace tavrel::cluster
