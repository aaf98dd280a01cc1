#pragma once

#include <chrono>

namespace tavrel::net {

/// No default: every call site names its deadlines.
struct Timeouts {
  std::chrono::milliseconds connect;
  std::chrono::milliseconds total;
};

}  // namespace tavrel::net
