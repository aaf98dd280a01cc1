#pragma once

#include "api/route_book.h"
#include "metrics/metrics_collector.h"

namespace tavrel::controller {

/// Middleware: prints one line per request when it is done (for a streamed answer: when its last
/// piece went out), "[<request id>] <method> <path> -> <status> (<milliseconds>ms)".
api::Middleware requestLogger();

/// Middleware: counts every request and its duration under its route's pattern. Health checks and
/// scrapes are left out.
api::Middleware requestMetrics(metrics::MetricsCollector& collector);

}  // namespace tavrel::controller
