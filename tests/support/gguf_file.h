#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::test {

/// Writes a model file's header piece by piece, right or wrong: nothing is checked.
class GgufFile {
 public:
  enum Type : std::uint32_t {
    kUint8 = 0,
    kInt8 = 1,
    kUint16 = 2,
    kInt16 = 3,
    kUint32 = 4,
    kInt32 = 5,
    kFloat32 = 6,
    kBool = 7,
    kString = 8,
    kArray = 9,
    kUint64 = 10,
    kInt64 = 11,
    kFloat64 = 12,
  };

  std::uint32_t version = 3;

  /// The lowest `size` bytes of a number, as the file has them.
  static std::string little(std::uint64_t value, std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xff);
    return bytes;
  }
  static std::string u32(std::uint64_t value) { return little(value, 4); }
  static std::string u64(std::uint64_t value) { return little(value, 8); }
  static std::string string(std::string_view text) { return u64(text.size()) + std::string(text); }
  /// The head of an array; its elements are the caller's.
  static std::string arrayHead(std::uint32_t type, std::uint64_t count) {
    return u32(type) + u64(count);
  }

  GgufFile& key(std::string_view name, std::uint32_t type, std::string_view value) {
    keys_ += string(name) + u32(type);
    keys_ += value;
    ++key_count_;
    return *this;
  }
  GgufFile& number(std::string_view name, std::uint64_t value) {
    return key(name, kUint32, u32(value));
  }
  GgufFile& text(std::string_view name, std::string_view value) {
    return key(name, kString, string(value));
  }
  GgufFile& texts(std::string_view name, std::size_t count, std::string_view each) {
    std::string value = arrayHead(kString, count);
    for (std::size_t i = 0; i < count; ++i) value += string(each);
    return key(name, kArray, value);
  }
  GgufFile& tensor(std::string_view name, const std::vector<std::uint64_t>& dims,
                   std::uint32_t type, std::uint64_t offset) {
    tensors_ += string(name) + u32(dims.size());
    for (const std::uint64_t length : dims) tensors_ += u64(length);
    tensors_ += u32(type) + u64(offset);
    ++tensor_count_;
    return *this;
  }

  std::string bytes() const { return bytes(tensor_count_, key_count_); }
  /// With counts that need not be true.
  std::string bytes(std::uint64_t tensors, std::uint64_t keys) const {
    return "GGUF" + u32(version) + u64(tensors) + u64(keys) + keys_ + tensors_;
  }
  void write(const std::string& path) const { std::ofstream(path, std::ios::binary) << bytes(); }

 private:
  std::string keys_;
  std::string tensors_;
  std::uint64_t key_count_ = 0;
  std::uint64_t tensor_count_ = 0;
};

}  // namespace tavrel::test
