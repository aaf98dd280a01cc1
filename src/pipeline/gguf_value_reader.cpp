#include "pipeline/gguf_value_reader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <limits>

#include "pipeline/saturating.h"
#include "platform/text.h"

namespace tavrel::pipeline {
namespace {

/// Bytes of a value by the number of its type. Texts and arrays have no size of their own.
constexpr std::array<std::uint64_t, 13> kScalarBytes = {1, 1, 2, 2, 4, 4, 4, 1, 0, 0, 8, 8, 8};
constexpr std::uint64_t kLengthBytes = 8;
constexpr std::uint64_t kArrayHeadBytes = 12;

std::uint64_t scalarBytes(GGUFValueType type) {
  return kScalarBytes[static_cast<std::size_t>(type)];
}

/// The least that a value takes in the file.
std::uint64_t leastBytes(GGUFValueType type) {
  if (type == GGUFValueType::kString) return kLengthBytes;
  if (type == GGUFValueType::kArray) return kArrayHeadBytes;
  return scalarBytes(type);
}

std::int32_t countOf(std::uint64_t value) {
  return saturatingInt32(value);
}

std::int32_t countOf(std::int64_t value) {
  return countOf(static_cast<std::uint64_t>(std::max<std::int64_t>(value, 0)));
}

std::int32_t countOf(double value) {
  constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
  if (!(value > 0)) return 0;  // not a number, too
  return value >= kMost ? kMost : static_cast<std::int32_t>(value);
}

template <class Signed, class Unsigned>
std::int64_t asSigned(Unsigned value) {
  return static_cast<Signed>(value);
}

}  // namespace

GGUFValueType GGUFValueReader::readType() {
  const auto number = bytes_.number<std::uint32_t>();
  if (number >= kScalarBytes.size()) {
    throw FileError("there is no value type " + std::to_string(number));
  }
  return static_cast<GGUFValueType>(number);
}

std::optional<std::int32_t> GGUFValueReader::readInt(GGUFValueType type) {
  switch (type) {
    case GGUFValueType::kUint8:
    case GGUFValueType::kBool:
      return countOf(std::uint64_t{bytes_.number<std::uint8_t>()});
    case GGUFValueType::kInt8:
      return countOf(asSigned<std::int8_t>(bytes_.number<std::uint8_t>()));
    case GGUFValueType::kUint16:
      return countOf(std::uint64_t{bytes_.number<std::uint16_t>()});
    case GGUFValueType::kInt16:
      return countOf(asSigned<std::int16_t>(bytes_.number<std::uint16_t>()));
    case GGUFValueType::kUint32:
      return countOf(std::uint64_t{bytes_.number<std::uint32_t>()});
    case GGUFValueType::kInt32:
      return countOf(asSigned<std::int32_t>(bytes_.number<std::uint32_t>()));
    case GGUFValueType::kUint64:
      return countOf(bytes_.number<std::uint64_t>());
    case GGUFValueType::kInt64:
      return countOf(asSigned<std::int64_t>(bytes_.number<std::uint64_t>()));
    case GGUFValueType::kFloat32:
      return countOf(double{std::bit_cast<float>(bytes_.number<std::uint32_t>())});
    case GGUFValueType::kFloat64:
      return countOf(std::bit_cast<double>(bytes_.number<std::uint64_t>()));
    case GGUFValueType::kString:
    case GGUFValueType::kArray:
      break;
  }
  skipTypedValue(type);
  return {};
}

std::optional<std::string> GGUFValueReader::readText(GGUFValueType type) {
  if (type == GGUFValueType::kString) {
    const auto text = readString();
    if (!text) return {};
    return platform::replaceInvalidUtf8(*text);
  }
  if (type == GGUFValueType::kUint32) return std::to_string(bytes_.number<std::uint32_t>());
  if (type == GGUFValueType::kInt32) {
    return std::to_string(asSigned<std::int32_t>(bytes_.number<std::uint32_t>()));
  }
  skipTypedValue(type);
  return {};
}

std::optional<std::string_view> GGUFValueReader::readString() {
  static_assert(kMaxTextBytes <= ByteReader::kMaxViewBytes);
  const auto length = bytes_.number<std::uint64_t>();
  if (length <= kMaxTextBytes) return bytes_.view(static_cast<std::size_t>(length));
  bytes_.skip(length);
  return {};
}

GGUFValueReader::Array GGUFValueReader::readArray() {
  const GGUFValueType type = readType();
  const auto count = bytes_.number<std::uint64_t>();
  // A division, for the product may not fit 64 bits.
  if (count > bytes_.remaining() / leastBytes(type)) {
    throw FileError("an array has more elements than the rest of the file");
  }
  return {type, count};
}

void GGUFValueReader::skipElements(Array array) {
  std::array<Array, kMaxArrayNesting> open;  // outermost first; `count` is what is left of it
  std::size_t depth = 0;
  for (;;) {
    if (array.type == GGUFValueType::kArray) {
      countWalked(array.count);
      if (depth == open.size()) throw FileError("arrays are nested too deeply");
      open[depth++] = array;
    } else if (array.type == GGUFValueType::kString) {
      skipStrings(array.count);
    } else {
      bytes_.skip(array.count * scalarBytes(array.type));
    }
    while (depth > 0 && open[depth - 1].count == 0) --depth;
    if (depth == 0) return;
    --open[depth - 1].count;
    array = readArray();
  }
}

void GGUFValueReader::skipTypedValue(GGUFValueType type) {
  if (type == GGUFValueType::kString) {
    skipStrings(1);
  } else if (type == GGUFValueType::kArray) {
    skipElements(readArray());
  } else {
    bytes_.skip(scalarBytes(type));
  }
}

void GGUFValueReader::skipStrings(std::uint64_t count) {
  countWalked(count);
  for (; count > 0; --count) bytes_.skip(bytes_.number<std::uint64_t>());
}

void GGUFValueReader::countWalked(std::uint64_t elements) {
  if (elements > may_walk_) throw FileError("the arrays have too many elements");
  may_walk_ -= elements;
}

}  // namespace tavrel::pipeline
