#include <string>
#include <vector>

#include "controller/start_up.h"

int main(int argc, char** argv) {
  return tavrel::controller::runController(std::vector<std::string>(argv + 1, argv + argc));
}
