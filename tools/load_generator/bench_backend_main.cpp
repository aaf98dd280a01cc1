#include <sys/signalfd.h>

#include <csignal>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>

#include "load_generator/bench_backend.h"
#include "load_generator/options.h"
#include "platform/console.h"

using namespace tavrel;

namespace {

/// Readable once the process has been asked to end.
load::Descriptor stopSignal() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  return load::Descriptor(signalfd(-1, &ending, SFD_CLOEXEC));
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kMostPorts = 64;
  try {
    load::Options options(argc, argv, 1);
    const int ports = options.number("--ports", 1, 1, kMostPorts);
    options.refuseUnread();
    const load::Descriptor stop = stopSignal();
    load::BenchBackend backend(ports, stop.get());
    platform::printLine(nlohmann::json{{"ports", backend.ports()}}.dump());
    backend.run();
    return 0;
  } catch (const std::exception& error) {
    platform::printError(std::string("tavrel-bench-backend: ") + error.what());
    return 1;
  }
}
