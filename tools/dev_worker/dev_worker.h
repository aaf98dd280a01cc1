#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "api/http_server.h"
#include "dev_worker/inference_api.h"
#include "dev_worker/model_store.h"
#include "dev_worker/options.h"
#include "dev_worker/registration.h"
#include "dev_worker/stats.h"
#include "dev_worker/upstream.h"
#include "net/http_client.h"
#include "platform/periodic_task.h"

namespace tavrel::dev_worker {

/// A worker for development: serves the inference interface and keeps a controller informed.
/// Threads: start and stop belong to the owner. Failure: start returns what went wrong.
class DevWorker {
 public:
  explicit DevWorker(Options options);
  ~DevWorker();
  DevWorker(const DevWorker&) = delete;
  DevWorker& operator=(const DevWorker&) = delete;

  /// Empty when the worker listens (or, asked to refuse everybody, holds its port without
  /// listening); else why not.
  std::string start();
  void stop();

  int port() const { return port_; }

 private:
  std::string listen();
  std::string holdPort();
  void startHeartbeats();

  const Options options_;
  const std::optional<Upstream> upstream_;
  std::atomic<bool> stopping_{false};
  Stats stats_;
  ModelStore models_;
  net::HttpClient client_;
  api::HttpServer server_;
  std::unique_ptr<InferenceApi> inference_;
  std::unique_ptr<Registration> registration_;
  std::unique_ptr<platform::PeriodicTask> heartbeats_;
  int held_socket_ = -1;
  int port_ = 0;
};

}  // namespace tavrel::dev_worker
