#include "controller/process_state.h"

namespace tavrel::controller {

std::atomic<api::HttpServer*> g_server{nullptr};
std::atomic<bool> g_shutdown_requested{false};

}  // namespace tavrel::controller
