#pragma once

#include "api/route_book.h"

namespace tavrel::controller {

/// Middleware: prints one line per request when it is done (for a streamed answer: when its last
/// piece went out), "[<request id>] <method> <path> -> <status> (<milliseconds>ms)".
api::Middleware requestLogger();

}  // namespace tavrel::controller
