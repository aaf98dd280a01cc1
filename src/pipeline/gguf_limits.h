#pragma once

#include <cstddef>
#include <cstdint>

// What a model file may ask of its reader. A file beyond a limit is refused, except where a line
// says otherwise. Real files stay far below: some 60 keys, a few thousand tensors, 20 MB of header.
namespace tavrel::pipeline {

/// Bytes that are read to take in a header. What is skipped in one step does not count: arrays of
/// numbers, and strings longer than the buffer.
inline constexpr std::uint64_t kMaxHeaderBytesRead = std::uint64_t{128} << 20;
inline constexpr std::uint64_t kMaxKeys = 65'536;
inline constexpr std::uint64_t kMaxTensors = 131'072;
/// Names of all keys and tensors together: they are searched, and those of tensors are kept.
inline constexpr std::uint64_t kMaxNameBytes = std::uint64_t{16} << 20;
inline constexpr std::uint32_t kMaxTensorDimensions = 16;
/// Strings and inner arrays in all arrays of a file together. Numbers are skipped at once and are
/// limited by the file's size alone.
inline constexpr std::uint64_t kMaxWalkedElements = std::uint64_t{16} << 20;
/// Arrays within arrays.
inline constexpr std::size_t kMaxArrayNesting = 16;
/// A longer key, name or text is skipped, as if the file did not have it.
inline constexpr std::uint64_t kMaxTextBytes = 1'048'576;

}  // namespace tavrel::pipeline
