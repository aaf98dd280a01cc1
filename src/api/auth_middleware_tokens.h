#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>

#include "api/auth_identity.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::api {

/// One issued bearer token. A plain value; `token` is a secret.
struct TokenEntry {
  std::string token;
  std::string subject;    ///< worker id or sub-controller id
  std::string type;       ///< "worker", "sub-controller" or what the issuer chose
  AuthIdentity identity;  ///< what requests with this token are
  platform::WallTime issued_at{};
  platform::WallTime expires_at{};
  bool revoked = false;
};

/// The bearer tokens the controller has issued, by token text.
///
/// Threads: any thread may call any method; look-ups share the lock.
/// Time: callers pass `now`. Expired tokens are refused whether or not they were removed.
/// Failure: an unknown token gives nothing or false, never an exception.
class TokenTable {
 public:
  /// Inserts the token. Whenever the table has doubled since it was last cleaned, expired and
  /// revoked tokens are removed first, so it is bounded by the tokens alive at a time.
  void add(TokenEntry entry, platform::WallTime now) TV_EXCLUDES(mu_);
  /// A copy of the token when it is known, not revoked and not expired.
  std::optional<TokenEntry> findValid(const std::string& token, platform::WallTime now) const
      TV_EXCLUDES(mu_);
  bool revoke(const std::string& token) TV_EXCLUDES(mu_);
  void removeExpired(platform::WallTime now) TV_EXCLUDES(mu_);
  std::size_t size() const TV_EXCLUDES(mu_);

  /// No cleaning below so many tokens.
  static constexpr std::size_t kMinCleanSize = 1024;

 private:
  void removeExpiredLocked(platform::WallTime now) TV_REQUIRES(mu_);

  mutable platform::SharedMutex mu_;
  std::unordered_map<std::string, TokenEntry> tokens_ TV_GUARDED_BY(mu_);
  std::size_t clean_at_ TV_GUARDED_BY(mu_) = kMinCleanSize;
};

}  // namespace tavrel::api
