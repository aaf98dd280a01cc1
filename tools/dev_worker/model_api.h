#pragma once

#include "api/http_server.h"
#include "dev_worker/model_store.h"
#include "dev_worker/options.h"
#include "net/http_client.h"

namespace tavrel::dev_worker {

/// What controllers ask a worker for to bring models to it, to fetch them from it and to spread
/// them over several workers: `/api/v1/models/…` and `/api/v1/pipeline/…`. It serves a model's
/// entry, file and shape as well, so that it can stand for a data worker with storage.
/// With an upstream the models are that server's: those that would add one answer 400. The
/// referenced objects outlive the server's handlers.
void addModelApi(api::HttpServer& server, const Options& options, ModelStore& store,
                 net::HttpClient& client);

}  // namespace tavrel::dev_worker
