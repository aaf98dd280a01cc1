#include "api/auth_middleware_tokens.h"

#include <algorithm>
#include <utility>

namespace tavrel::api {

void TokenTable::add(TokenEntry entry, platform::WallTime now) {
  const platform::WriterLock lock(mu_);
  if (tokens_.size() >= clean_at_) {
    removeExpiredLocked(now);
    clean_at_ = std::max(kMinCleanSize, 2 * tokens_.size());
  }
  std::string token = entry.token;
  tokens_.insert_or_assign(std::move(token), std::move(entry));
}

std::optional<TokenEntry> TokenTable::findValid(const std::string& token,
                                                platform::WallTime now) const {
  const platform::ReaderLock lock(mu_);
  const auto found = tokens_.find(token);
  if (found == tokens_.end() || found->second.revoked || now >= found->second.expires_at) {
    return std::nullopt;
  }
  return found->second;
}

bool TokenTable::revoke(const std::string& token) {
  const platform::WriterLock lock(mu_);
  const auto found = tokens_.find(token);
  if (found == tokens_.end()) return false;
  found->second.revoked = true;
  return true;
}

void TokenTable::removeExpired(platform::WallTime now) {
  const platform::WriterLock lock(mu_);
  removeExpiredLocked(now);
}

void TokenTable::removeExpiredLocked(platform::WallTime now) {
  std::erase_if(tokens_, [now](const auto& item) {
    return item.second.revoked || item.second.expires_at <= now;
  });
}

std::size_t TokenTable::size() const {
  const platform::ReaderLock lock(mu_);
  return tokens_.size();
}

}  // namespace tavrel::api
