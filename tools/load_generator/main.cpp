#include <csignal>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "load_generator/loads.h"
#include "platform/console.h"

using namespace tavrel;

namespace {

constexpr const char* kUsage =
    "Usage: tavrel-load-generator <load> [--option value ...]\n"
    "Drives a server on 127.0.0.1 and prints one line of JSON.\n"
    "\n"
    "  stream      --port N [--path P] [--model M] [--streams N] [--events N] [--rate N]\n"
    "              [--limit SECONDS]\n"
    "  leave       --port N --backend-port N [--path P] [--model M] [--stream 0|1] [--count N]\n"
    "              [--stay MILLISECONDS]\n"
    "  heartbeats  --port N --backend-ports N,N,... [--workers N] [--with-model N] [--model M]\n"
    "              [--rounds N] [--connections N] [--register 0|1]\n"
    "  idle        --port N [--path P] [--connections N] [--hold SECONDS]\n";

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, std::function<nlohmann::json(load::Options&)>> loads = {
      {"stream", load::runStream},
      {"leave", load::runLeave},
      {"heartbeats", load::runHeartbeats},
      {"idle", load::runIdle}};
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0) {
    platform::printText(kUsage);
    return argc < 2 ? 2 : 0;
  }
  try {
    const auto chosen = loads.find(argv[1]);
    if (chosen == loads.end()) throw std::invalid_argument("unknown load: " + std::string(argv[1]));
    load::Options options(argc, argv, 2);
    platform::printLine(chosen->second(options).dump());
    return 0;
  } catch (const std::exception& error) {
    platform::printError(std::string("tavrel-load-generator: ") + error.what());
    return 1;
  }
}
