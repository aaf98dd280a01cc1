#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pipeline/byte_reader.h"
#include "pipeline/gguf_limits.h"

namespace tavrel::pipeline {

/// The types of metadata values, by their numbers in the file.
enum class GGUFValueType : std::uint32_t {
  kUint8,
  kInt8,
  kUint16,
  kInt16,
  kUint32,
  kInt32,
  kFloat32,
  kBool,
  kString,
  kArray,
  kUint64,
  kInt64,
  kFloat64,
};

/// Reads and skips the metadata values of a model file. Every length and count is checked against
/// what is left of the file before anything is done with it.
/// Threads: one at a time. Owns nothing; the byte reader must outlive it. Failure: FileError.
class GGUFValueReader {
 public:
  struct Array {
    GGUFValueType type = GGUFValueType::kUint8;  ///< of the elements
    std::uint64_t count = 0;
  };

  explicit GGUFValueReader(ByteReader& bytes) : bytes_(bytes) {}

  /// The number of a type; one that does not exist is an error.
  GGUFValueType readType();

  /// A value as a count: fractions are cut off, and what is outside [0, INT32_MAX] becomes the
  /// nearest number inside. Nothing for texts and arrays, which are skipped.
  std::optional<std::int32_t> readInt(GGUFValueType type);

  /// A text of at most kMaxTextBytes, bytes that are not UTF-8 replaced; a 32-bit integer as its
  /// decimal digits. Nothing for longer texts and other types, which are skipped.
  std::optional<std::string> readText(GGUFValueType type);

  /// The head of an array, whose elements come next.
  Array readArray();
  void skipElements(Array array);

  void skipTypedValue(GGUFValueType type);

  /// A length and as many bytes. Nothing, and they are skipped, when there are more than
  /// kMaxTextBytes. Valid until the next call.
  std::optional<std::string_view> readString();

 private:
  void skipStrings(std::uint64_t count);
  void countWalked(std::uint64_t elements);

  ByteReader& bytes_;
  std::uint64_t may_walk_ = kMaxWalkedElements;
};

}  // namespace tavrel::pipeline
