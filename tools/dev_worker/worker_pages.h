#pragma once

#include "api/http_server.h"
#include "dev_worker/model_store.h"
#include "dev_worker/options.h"
#include "dev_worker/stats.h"

namespace tavrel::dev_worker {

/// What people and probes ask a worker for: `/api/v1/health`, `/dashboard` and `/dev/stats`. The
/// referenced objects outlive the server's handlers.
void addWorkerPages(api::HttpServer& server, const Options& options, const ModelStore& models,
                    const Stats& stats);

}  // namespace tavrel::dev_worker
