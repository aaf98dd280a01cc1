// A development inference worker: registers with a controller, answers or passes on requests, and
// fails on purpose when asked to.

#include <csignal>
#include <string>
#include <vector>

#include "dev_worker/dev_worker.h"
#include "dev_worker/options.h"
#include "platform/console.h"

namespace {

using tavrel::platform::printError;
using tavrel::platform::printLine;

constexpr int kUsageError = 2;

int serve(const tavrel::dev_worker::Options& options) {
  // Blocked before the first thread starts, so that only the wait below takes them.
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  tavrel::dev_worker::DevWorker worker(options);
  if (const std::string problem = worker.start(); !problem.empty()) {
    printError("[DevWorker] " + problem);
    return 1;
  }
  printLine("[DevWorker] Listening on " + options.host + ":" + std::to_string(worker.port()));
  int taken = 0;
  ::sigwait(&signals, &taken);
  worker.stop();
  printLine("[DevWorker] Stopped");
  return 0;
}

}  // namespace

int main(int count, char** values) {
  const auto parsed =
      tavrel::dev_worker::parseOptions(std::vector<std::string>(values + 1, values + count));
  if (parsed.help) {
    tavrel::platform::printText(tavrel::dev_worker::helpText());
    return 0;
  }
  if (!parsed.error.empty()) {
    printError("[DevWorker] " + parsed.error);
    printError("Try --help.");
    return kUsageError;
  }
  return serve(parsed.options);
}
