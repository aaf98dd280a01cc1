#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tavrel::pipeline {

/// A file cannot be read, or is not what it should be; what() says why.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads little-endian numbers and bytes from the start of a regular file, through a buffer of
/// fixed size. The file is not mapped: one that is cut short meanwhile ends the reading, not the
/// process. Threads: one at a time. Owns the descriptor. Failure: FileError, also when the file
/// ends.
class ByteReader {
 public:
  /// The longest run of bytes that view() gives.
  static constexpr std::size_t kMaxViewBytes = std::size_t{1} << 20;

  /// Opens the file without waiting for anybody (a FIFO is refused, not waited for). No more than
  /// `max_bytes_read` are read from it; what is skipped does not count.
  ByteReader(const std::string& path, std::uint64_t max_bytes_read);
  ~ByteReader();
  ByteReader(const ByteReader&) = delete;
  ByteReader& operator=(const ByteReader&) = delete;

  /// As it was when the file was opened.
  std::uint64_t size() const { return size_; }
  std::uint64_t position() const { return buffer_offset_ + at_; }
  std::uint64_t remaining() const { return size_ - position(); }

  template <std::unsigned_integral Number>
  Number number() {
    if (filled_ - at_ < sizeof(Number)) fill(sizeof(Number));
    unsigned char* const start = buffer_.get() + at_;
    if constexpr (std::endian::native == std::endian::big) {
      std::reverse(start, start + sizeof(Number));
    }
    Number value = 0;
    std::memcpy(&value, start, sizeof(Number));
    at_ += sizeof(Number);
    return value;
  }

  /// The next bytes, at most kMaxViewBytes. Valid until the next call of a method.
  std::string_view view(std::size_t length);

  void skip(std::uint64_t length) {
    if (length <= filled_ - at_) {
      at_ += static_cast<std::size_t>(length);
    } else {
      skipBeyondBuffer(length);
    }
  }

 private:
  void fill(std::size_t wanted);
  void skipBeyondBuffer(std::uint64_t length);

  int descriptor_ = -1;
  std::uint64_t size_ = 0;
  std::uint64_t may_read_;  ///< bytes
  std::unique_ptr<unsigned char[]> buffer_;
  std::uint64_t buffer_offset_ = 0;  ///< where in the file the buffer begins
  std::size_t at_ = 0;               ///< the next byte in the buffer
  std::size_t filled_ = 0;           ///< bytes in the buffer
};

}  // namespace tavrel::pipeline
