#pragma once

#include <atomic>

#include "api/http_server.h"

// What the whole process shares. Used in controller/ only: libraries take what they need as
// parameters.
namespace tavrel::controller {

/// The one server; set as soon as it is constructed, null before and after its life.
extern std::atomic<api::HttpServer*> g_server;

/// True once the process is to end.
extern std::atomic<bool> g_shutdown_requested;

}  // namespace tavrel::controller
