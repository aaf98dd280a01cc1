#include "controller/start_up.h"

#include <sys/resource.h>

#include <thread>

#include "controller/banner.h"
#include "controller/command_line.h"
#include "controller/process_state.h"
#include "controller/request_observers.h"
#include "controller/routes/catalogue.h"
#include "controller/services.h"
#include "controller/signal_waiter.h"
#include "platform/console.h"

namespace tavrel::controller {
namespace {

using platform::printError;
using platform::printLine;

constexpr std::size_t kEventHistory = 500;
constexpr std::size_t kLogHistory = 1000;
constexpr int kMetricsRetentionMinutes = 60;
constexpr int kMetricsIntervalSeconds = 10;

/// As many open files as the system allows this process: each client and each worker takes one.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

api::ServerConfig serverConfig(const Options& options) {
  api::ServerConfig config;
  config.host = options.bind_address;
  config.port = options.port;
  if (options.max_threads > 0) config.max_threads = static_cast<std::size_t>(options.max_threads);
  if (options.max_connections > 0) {
    config.max_connections = static_cast<std::size_t>(options.max_connections);
  }
  if (options.max_body_mb > 0) {
    config.max_body_bytes = static_cast<std::size_t>(options.max_body_mb) << 20;
  }
  return config;
}

void configureServer(Services& services, const Options& options) {
  services.server.configure(serverConfig(options));
  g_server = &services.server;
  // Calls to other nodes can outlast the time that a stop leaves running requests.
  services.server.onGraceOver([&services] { services.http.cancelAll(); });
}

void startObservability(Services& services, const Options& options) {
  printLine("[Controller] Initializing event stream service...");
  services.events.initialize(kLogHistory, kEventHistory);
  services.events.start();
  services.events.logInfo("controller", "controller", "Controller starting",
                          {{"port", options.port}});
  printLine("[Controller] Initializing metrics history service...");
  services.history.initialize(kMetricsRetentionMinutes, kMetricsIntervalSeconds);
}

void registerRoutes(Services& services) {
  api::RouteBook book;
  addAllRoutes(book, services);
  registerCatalogue(services.server, book);
  services.server.use(requestLogger());
  services.server.use(requestMetrics(services.collector));
}

/// What SIGINT and SIGTERM do, on the thread that waits for them.
void beginShutdown(Services& services, int signal) {
  printLine("");
  printLine("[Controller] Received signal " + std::to_string(signal) + ", shutting down...");
  g_shutdown_requested = true;
  services.server.stop();
}

bool startServer(Services& services, const Options& options) {
  const std::string address = options.bind_address + ':';
  printLine("[Controller] Starting server on " + address + std::to_string(options.port));
  printLine("[Controller] Press Ctrl+C to stop");
  printLine("");
  services.loops.start();
  if (!services.server.start()) {
    printError("[Controller] Failed to start server");
    g_shutdown_requested = true;
    return false;
  }
  if (options.port == 0) {
    printLine("[Controller] Listening on " + address + std::to_string(services.server.getPort()));
  }
  return true;
}

void finish(Services& services) {
  services.loops.stop();
  services.events.stop();
  g_server = nullptr;
}

}  // namespace

int runController(const std::vector<std::string>& arguments) {
  printBanner();
  const CommandLine command_line = parseCommandLine(arguments);
  if (command_line.exit_status) {
    const std::string text = command_line.text.substr(0, command_line.text.size() - 1);
    *command_line.exit_status == 0 ? printLine(text) : printError(text);
    return *command_line.exit_status;
  }
  const Options& options = command_line.options;

  // Before any thread exists, so that all of them leave the signals to the waiter.
  SignalWaiter signals;
  raiseDescriptorLimit();
  Services services(options);
  configureServer(services, options);
  startObservability(services, options);
  registerRoutes(services);
  signals.start([&services](int signal) { beginShutdown(services, signal); });
  if (!startServer(services, options)) {
    signals.stop();
    finish(services);
    return 1;
  }
  while (services.server.isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  signals.stop();
  finish(services);
  printLine("[Controller] Server stopped");
  return 0;
}

}  // namespace tavrel::controller
