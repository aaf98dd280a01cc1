#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cluster/agent_registry.h"
#include "cluster/cluster_manager.h"
#include "cluster/cluster_transport.h"
#include "cluster/gossip_protocol.h"
#include "cluster/llm_pool.h"
#include "cluster/load_balancer.h"
#include "cluster/node_registry.h"
#include "cluster/worker_pool.h"
#include "net/http_client.h"
#include "platform/clock.h"

namespace tavrel::controller {

struct ControllerIdentity;
struct Options;

/// What calls to other controllers carry: the option, else the environment's; empty: nothing.
std::string clusterKey(const Options& options);

/// What exists only while cluster mode is on, in order of creation. Constructing it starts nothing.
///
/// Threads: start and listensAt belong to start-up; stop may be called by several, and returns to
/// each when everything has stopped; hurry and refreshNode by any.
struct ClusterServices {
  ClusterServices(const Options& options, const ControllerIdentity& self);
  ~ClusterServices();
  ClusterServices(const ClusterServices&) = delete;
  ClusterServices& operator=(const ClusterServices&) = delete;

  /// Joins the seeds and introduces itself to the peers. False, with the reason on standard error,
  /// when one of them is malformed.
  bool start(const std::string& tier_name);
  /// The server listens, at this port. When that was left to the system (`--port 0`), the others
  /// are told now, on a thread of its own.
  void listensAt(int port);
  /// Says good-bye to the peers and leaves.
  void stop();
  /// Makes the calls of start fail at once, for a program that is to end while it still starts.
  void hurry() { membership_http.cancelAll(); }

  /// Makes work that other nodes do for this one end at once, and later work fail.
  void cancelWork() { work_http.cancelAll(); }

  /// A node has shown that it lives; an unknown one is ignored.
  void refreshNode(const std::string& id, platform::SteadyTime now);

  /// Not the program's client: cancelling other calls at shutdown must not swallow the good-bye.
  net::HttpClient membership_http;
  cluster::HttpClusterTransport membership_transport;
  net::HttpClient work_http;
  cluster::HttpClusterTransport work_transport;
  cluster::NodeRegistry nodes;
  cluster::LoadBalancer balancer;
  cluster::ClusterManager manager;
  cluster::LLMPool llm_pool;
  cluster::WorkerPool worker_pool;
  cluster::AgentRegistry agents;
  std::unique_ptr<cluster::GossipProtocol> gossip;  ///< only of a controller that was given peers

 private:
  void startGossip(const std::vector<cluster::Endpoint>& peers);

  const std::vector<std::string> peers_;
  std::once_flag stopped_;
  std::jthread late_introduction_;  // last: uses all of the above
};

}  // namespace tavrel::controller
