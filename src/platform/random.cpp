#include "platform/random.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <random>
#include <system_error>

namespace tavrel::platform {
namespace {

std::mt19937_64& threadGenerator() {
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  return generator;
}

unsigned char secureByte() {
  thread_local std::array<unsigned char, 256> pool;
  thread_local std::size_t used = pool.size();
  if (used == pool.size()) {
    // Requests of up to 256 bytes are never cut short by the kernel.
    while (getrandom(pool.data(), pool.size(), 0) < 0) {
      if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    used = 0;
  }
  return pool[used++];
}

}  // namespace

std::string randomHex(std::size_t digits) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(digits, '0');
  std::uint64_t bits = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (i % 16 == 0) bits = threadGenerator()();
    text[i] = kDigits[bits & 0xf];
    bits >>= 4;
  }
  return text;
}

std::string secureRandomText(std::size_t length, const std::string& alphabet) {
  // Bytes at or above the largest multiple of the alphabet's size are drawn again, so that every
  // character is equally likely.
  const std::size_t limit = 256 - 256 % alphabet.size();
  std::string text;
  text.reserve(length);
  while (text.size() < length) {
    const unsigned char byte = secureByte();
    if (byte < limit) text.push_back(alphabet[byte % alphabet.size()]);
  }
  return text;
}

std::string generateUUID() {
  std::string hex = secureRandomText(32, "0123456789abcdef");
  hex[12] = '4';
  hex[16] = "89ab"[static_cast<unsigned char>(hex[16]) & 3];
  return hex.substr(0, 8) + '-' + hex.substr(8, 4) + '-' + hex.substr(12, 4) + '-' +
         hex.substr(16, 4) + '-' + hex.substr(20);
}

}  // namespace tavrel::platform
