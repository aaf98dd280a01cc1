#pragma once

#include "api/route_book.h"
#include "dev_worker/client_watch.h"
#include "dev_worker/faults.h"

namespace tavrel::dev_worker {

/// Plays one fault on the request's connection; `next` gives the answer that would have been sent.
/// What it returns is for the server to send, unless the connection has been shut down already.
///
/// This is the one place that writes to a client's socket behind the server's back: misbehaving on
/// the wire is what it is for, and the server keeps every answer well-formed.
api::Response playFault(FaultKind kind, ClientWatch watch, api::Context& context,
                        const api::Request& request, const api::Handler& next);

}  // namespace tavrel::dev_worker
