#include "pipeline/byte_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace tavrel::pipeline {
namespace {

/// How much is asked of the system at a time: small enough to stay in the processor's cache.
constexpr std::size_t kReadBytes = std::size_t{128} << 10;
constexpr std::size_t kBufferBytes = ByteReader::kMaxViewBytes + kReadBytes;

std::string errorText(int error) {
  return std::generic_category().message(error);
}

[[noreturn]] void throwFileEnds() {
  throw FileError("the file ends too early");
}

}  // namespace

ByteReader::ByteReader(const std::string& path, std::uint64_t max_bytes_read)
    : may_read_(max_bytes_read),
      buffer_(std::make_unique_for_overwrite<unsigned char[]>(kBufferBytes)) {
  if (path.find('\0') != std::string::npos) throw FileError("the path contains a zero byte");
  descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor_ < 0) throw FileError("cannot open the file: " + errorText(errno));
  struct stat status {};
  const bool known = ::fstat(descriptor_, &status) == 0;
  if (!known || !S_ISREG(status.st_mode)) {
    ::close(descriptor_);
    throw FileError("not a regular file");
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
}

ByteReader::~ByteReader() {
  ::close(descriptor_);
}

std::string_view ByteReader::view(std::size_t length) {
  if (length > kMaxViewBytes) throw FileError("a text is too long");
  if (filled_ - at_ < length) fill(length);
  const char* const start = reinterpret_cast<const char*>(buffer_.get()) + at_;
  at_ += length;
  return {start, length};
}

void ByteReader::fill(std::size_t wanted) {
  if (wanted > remaining()) throwFileEnds();
  filled_ -= at_;
  std::memmove(buffer_.get(), buffer_.get() + at_, filled_);
  buffer_offset_ += at_;
  at_ = 0;
  while (filled_ < wanted) {
    const std::uint64_t offset = buffer_offset_ + filled_;
    const std::uint64_t ahead = std::max(wanted - filled_, kReadBytes);
    const std::uint64_t count = std::min({ahead, size_ - offset, may_read_});
    if (count == 0) throw FileError("the header is too large");
    const ssize_t got = ::pread(descriptor_, buffer_.get() + filled_,
                                static_cast<std::size_t>(count), static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw FileError("cannot read the file: " + errorText(errno));
    if (got == 0) throwFileEnds();  // it has been cut short since it was opened
    filled_ += static_cast<std::size_t>(got);
    may_read_ -= static_cast<std::uint64_t>(got);
  }
}

void ByteReader::skipBeyondBuffer(std::uint64_t length) {
  if (length > remaining()) throwFileEnds();
  buffer_offset_ += at_ + length;
  at_ = filled_ = 0;
}

}  // namespace tavrel::pipeline
