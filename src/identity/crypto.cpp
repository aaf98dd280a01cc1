#include "identity/crypto.h"

#include <openssl/crypto.h>

#include <chrono>
#include <ctime>

#include "platform/random.h"
#include "platform/sha256.h"

namespace tavrel::identity::crypto {

std::string hashPassword(const std::string& password, const std::string& salt) {
  return platform::sha256Hex(salt + password);
}

bool verifyPassword(const std::string& password, const std::string& salt, const std::string& hash) {
  const std::string computed = hashPassword(password, salt);
  return computed.size() == hash.size() &&
         CRYPTO_memcmp(computed.data(), hash.data(), hash.size()) == 0;
}

std::string generateRandomHex(std::size_t bytes) {
  return platform::secureRandomText(2 * bytes, "0123456789abcdef");
}

std::string generateUserId() {
  return "usr_" + generateRandomHex(6);
}

std::string generateOrganizationId() {
  return "org_" + generateRandomHex(6);
}

std::string generateConversationId() {
  return "conv_" + generateRandomHex(6);
}

std::string generateCredentialId() {
  return "cred_" + generateRandomHex(6);
}

std::string generateSessionToken() {
  return "ts_" + generateRandomHex(32);
}

std::string generateApiKey() {
  return "tk_" + generateRandomHex(24);
}

std::string generateToken() {
  return generateRandomHex(32);
}

std::string generateSalt() {
  return generateRandomHex(16);
}

std::string nowISO8601() {
  return platform::toUtcText(platform::wallNow());
}

std::string futureISO8601(std::int64_t seconds) {
  return platform::toUtcText(platform::wallNow() + std::chrono::seconds(seconds));
}

bool isExpired(const std::string& stamp, platform::WallTime now) {
  std::tm parts{};
  if (::strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%S", &parts) == nullptr) return true;
  return ::timegm(&parts) < platform::toEpochSeconds(now);
}

}  // namespace tavrel::identity::crypto
