#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/clock.h"

/// What the accounts need of secrets, identifiers and time stamps. No state; any thread. The
/// random ones throw std::system_error when the system has no randomness.
namespace tavrel::identity::crypto {

/// SHA-256 of the salt followed by the password, as 64 lower-case hexadecimal digits.
std::string hashPassword(const std::string& password, const std::string& salt);
/// Takes the same time wherever the hashes differ.
bool verifyPassword(const std::string& password, const std::string& salt, const std::string& hash);

/// `bytes` random bytes as lower-case hexadecimal digits, two each.
std::string generateRandomHex(std::size_t bytes);
std::string generateUserId();          ///< "usr_" and 12 digits
std::string generateOrganizationId();  ///< "org_" and 12 digits
std::string generateConversationId();  ///< "conv_" and 12 digits
std::string generateCredentialId();    ///< "cred_" and 12 digits
std::string generateSessionToken();    ///< "ts_" and 64 digits
std::string generateApiKey();          ///< "tk_" and 48 digits
std::string generateToken();           ///< 64 digits
std::string generateSalt();            ///< 32 digits

/// Time stamps are UTC, e.g. "2026-01-31T12:00:00Z": of fixed width, so that they compare as text.
std::string nowISO8601();
/// So many seconds from now (before now when negative); at most a hundred years either way.
std::string futureISO8601(std::int64_t seconds);
/// True when the stamp lies before `now`, and when it is none.
bool isExpired(const std::string& stamp, platform::WallTime now = platform::wallNow());

}  // namespace tavrel::identity::crypto
