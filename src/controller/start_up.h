#pragma once

#include <string>
#include <vector>

namespace tavrel::controller {

/// The whole program: reads the arguments, starts every service in order, serves until a signal
/// comes, shuts down. Returns the exit status.
int runController(const std::vector<std::string>& arguments);

}  // namespace tavrel::controller
