#include "platform/sha256.h"

#include <openssl/sha.h>

#include <array>

namespace tavrel::platform {

std::string sha256Hex(std::string_view bytes) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest;
  ::SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest.data());
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : digest) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 15U];
  }
  return text;
}

}  // namespace tavrel::platform
