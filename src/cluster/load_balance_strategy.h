#pragma once

#include <cstdint>

namespace tavrel::cluster {

/// How a node is chosen among several that could do the work. Travels as its number; a number
/// outside the enumeration behaves as kLeastLoad.
enum class LoadBalanceStrategy : std::int32_t {
  kRoundRobin = 0,
  kLeastConnections = 1,
  kLeastLoad = 2,
  kRandom = 3,
  kWeighted = 4,
};

}  // namespace tavrel::cluster
