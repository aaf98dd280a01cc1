#include <string>
#include <vector>

#include "controller/command_line.h"
#include "controller/start_up.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  tavrel::controller::hideSecrets(argc, argv);
  return tavrel::controller::runController(arguments);
}
