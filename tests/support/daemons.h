#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>

#include "platform/clock.h"
#include "worker/typed_worker_registry.h"

namespace tavrel::test {

/// Registers a specialised daemon at `url` that was last heard of `silent` ago; `details` are the
/// members of its kind.
inline void addDaemon(worker::TypedWorkerRegistries& typed, worker::WorkerKind kind,
                      const std::string& id, const std::string& url, nlohmann::json details,
                      std::chrono::seconds silent = std::chrono::seconds(0)) {
  details["id"] = id;
  details["url"] = url;
  auto read = worker::typedWorkerFromRegistration(worker::typedWorkerKind(kind), details,
                                                  "127.0.0.1", platform::wallNow() - silent);
  typed.of(kind).registerWorker(std::get<worker::TypedWorkerInfo>(std::move(read)));
}

}  // namespace tavrel::test
