#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

// Sums and products of sizes that others wrote down: what does not fit is the largest number.
namespace tavrel::pipeline {

inline std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

inline std::uint64_t saturatingMultiply(std::uint64_t a, std::uint64_t b) {
  std::uint64_t product = 0;
  return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::uint64_t>::max()
                                                : product;
}

inline std::int32_t saturatingInt32(std::uint64_t value) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::min(value, kMost));
}

/// The whole part of a number of bytes that was computed in floating point. `bytes` is not
/// negative.
inline std::uint64_t saturatingBytes(double bytes) {
  constexpr double kTooMany = 18'446'744'073'709'551'616.0;  // 2^64
  return bytes < kTooMany ? static_cast<std::uint64_t>(bytes)
                          : std::numeric_limits<std::uint64_t>::max();
}

}  // namespace tavrel::pipeline
