#include "controller/start_up.h"

#include <malloc.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <thread>

#include "controller/account_start_up.h"
#include "controller/banner.h"
#include "controller/command_line.h"
#include "controller/process_state.h"
#include "controller/request_observers.h"
#include "controller/routes/catalogue.h"
#include "controller/services.h"
#include "controller/signal_waiter.h"
#include "platform/console.h"
#include "platform/files.h"

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

/// Large buffers go back to the system as soon as they are freed. By itself the C library learns
/// from large ones to keep the next in its arenas, for good: gigabytes after one storm of requests.
void returnLargeBuffers() {
  ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
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

/// Ends what requests wait for: other nodes and programs.
void cancelWork(Services& services) {
  services.http.cancelAll();
  services.smtp.cancelAll();
  services.programs.request_stop();
  if (services.cluster != nullptr) services.cluster->cancelWork();
}

void configureServer(Services& services, const Options& options) {
  services.server.configure(serverConfig(options));
  g_server = &services.server;
  // Calls to other nodes can outlast the time that a stop leaves running requests.
  services.server.onGraceOver([&services] { cancelWork(services); });
}

/// The key as the console may show it.
std::string shown(const std::string& key) {
  return key.substr(0, 8) + "...";
}

std::string adminKey(const Options& options) {
  if (!options.api_key.empty()) return options.api_key;
  const char* key = std::getenv("TAVREL_API_KEY");
  if (key == nullptr || *key == '\0') return "";
  printLine("[Controller] API key loaded from TAVREL_API_KEY environment variable");
  return key;
}

void reportFullMode(api::AuthMiddleware& auth, const std::string& key) {
  const char* home = std::getenv("HOME");
  const std::string directory =
      home == nullptr || *home == '\0' ? "/etc/tavrel" : platform::userConfigDirectory("");
  const std::string file = directory + "/api_keys.json";
  if (auth.loadApiKeys(file)) {
    printLine("[Controller] Auth mode: FULL (RBAC) - loaded " +
              std::to_string(auth.listApiKeys().size()) + " API keys from " + file);
  } else {
    printLine("[Controller] Auth mode: FULL (RBAC) - no saved API keys found");
  }
  if (key.empty()) {
    printLine("[Controller] WARNING: --auth-mode full requires --api-key for initial admin access");
  } else {
    printLine("[Controller] Admin key: " + shown(key));
  }
}

void reportAuthMode(api::AuthMiddleware& auth, const std::string& mode, const std::string& key) {
  if (mode == "full") {
    reportFullMode(auth, key);
  } else if (mode == "admin" && !key.empty()) {
    printLine("[Controller] Auth mode: ADMIN (single key: " + shown(key) + ")");
  } else if (mode == "admin") {
    printLine("[Controller] Auth mode: ADMIN - WARNING: no API key provided!");
    printLine("[Controller] Set --api-key or TAVREL_API_KEY environment variable.");
  } else {
    printLine("[Controller] Auth mode: NONE (no authentication required)");
  }
}

/// The gate in front of every route. False when the key file cannot be used: rather no controller
/// than one with other keys than its operator thinks.
bool startAuthentication(Services& services, const Options& options) {
  printLine("[Controller] Initializing API authentication...");
  api::AuthConfig config;
  config.require_auth = options.require_auth;
  config.admin_key = adminKey(options);
  config.public_paths = api::publicPaths();
  config.protect_inference = options.protect_inference;
  config.guest_requests_per_minute = options.guest_requests_per_minute;
  config.requests_per_minute = options.key_requests_per_minute;
  services.auth.initialize(config);
  services.server.use(services.auth.getMiddleware());
  services.server.guardStreams(services.auth.getStreamGuard());
  try {
    reportAuthMode(services.auth, options.auth_mode, config.admin_key);
  } catch (const std::exception& error) {
    printError(std::string("[Controller] Cannot use the API key file: ") + error.what());
    return false;
  }
  return true;
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

/// Joins the cluster, which waits for seeds and peers. False: the start ends here.
bool startCluster(Services& services, const Options& options) {
  if (services.cluster == nullptr) return true;
  printLine("[Controller] Initializing cluster support...");
  return services.cluster->start(tierName(options.tier));
}

/// False: the start ends here, and why is on standard error.
bool startHierarchy(Services& services, const Options& options) {
  printLine("[Controller] Initializing controller hierarchy...");
  if (options.sub_controller && options.master_url.empty()) {
    printError("[Controller] Error: --master-url is required when running as sub-controller");
    return false;
  }
  try {
    services.createHierarchy(options);
  } catch (const std::invalid_argument& error) {
    printError(std::string("[Controller] The master's URL is ") + error.what());
  }
  if (services.hierarchy == nullptr || !services.hierarchy->hierarchy.initialize()) {
    printError("[Controller] Failed to initialize controller hierarchy");
    return false;
  }
  if (!services.hierarchy->hierarchy.start()) {
    if (g_shutdown_requested) return true;
    printError("[Controller] Failed to start controller hierarchy");
    return false;
  }
  printLine("[Controller] Controller hierarchy initialized as " +
            controllerRoleToString(services.hierarchy->hierarchy.role()));
  return true;
}

void registerRoutes(Services& services) {
  api::RouteBook book;
  printLine("[Controller] Registering orchestrator API routes...");
  addAllRoutes(book, services);
  printLine("[Controller] Orchestrator API routes registered");
  registerCatalogue(services.server, book);
  services.server.use(requestLogger());
  services.server.use(requestMetrics(services.collector));
}

/// What SIGINT and SIGTERM do, on the thread that waits for them. Until the server has `started`
/// the main thread owns everything: it only gets to know.
void beginShutdown(Services& services, int signal, const std::atomic<bool>& started) {
  printLine("");
  printLine("[Controller] Received signal " + std::to_string(signal) + ", shutting down...");
  g_shutdown_requested = true;
  if (!started) {
    if (services.cluster != nullptr) services.cluster->hurry();
    services.http.cancelAll();  // a master that is slow to answer
    return;
  }
  services.server.stop();
  if (services.cluster != nullptr) services.cluster->stop();
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
  const int port = services.server.getPort();
  if (options.port == 0) printLine("[Controller] Listening on " + address + std::to_string(port));
  if (services.cluster != nullptr) services.cluster->listensAt(port);
  services.hierarchy->startCalls(port);
  return true;
}

void finish(Services& services) {
  cancelWork(services);
  if (services.cluster != nullptr) services.cluster->stop();
  if (services.hierarchy != nullptr) services.hierarchy->stop();
  services.loops.stop();
  services.pull_jobs.stop();
  services.events.stop();
  g_server = nullptr;
}

}  // namespace

int runController(const std::vector<std::string>& arguments) {
  printBanner();
  const CommandLine command_line = parseCommandLine(arguments);
  if (command_line.exit_status) {
    *command_line.exit_status == 0 ? platform::printText(command_line.text)
                                   : printError(command_line.text);
    return *command_line.exit_status;
  }
  const Options& options = command_line.options;

  // Before any thread exists, so that all of them leave the signals to the waiter.
  SignalWaiter signals;
  raiseDescriptorLimit();
  returnLargeBuffers();
  Services services(options);
  configureServer(services, options);
  if (!startAuthentication(services, options)) return 1;
  startAccounts(services, options);
  startObservability(services, options);
  std::atomic<bool> started = false;
  signals.start([&](int signal) { beginShutdown(services, signal, started); });
  bool good = startCluster(services, options);
  if (good && !g_shutdown_requested) good = startHierarchy(services, options);
  if (good && !g_shutdown_requested) {
    registerRoutes(services);
    good = startServer(services, options);
  }
  if (!good) {
    signals.stop();
    finish(services);
    return 1;
  }
  started = true;
  if (g_shutdown_requested) services.server.stop();
  while (services.server.isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  signals.stop();
  finish(services);
  printLine("[Controller] Server stopped");
  return 0;
}

}  // namespace tavrel::controller
