#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "api/auth_identity.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::api {

/// One API key as it is stored and listed. A plain value; `key` is a secret.
struct ApiKeyEntry {
  std::string key;
  std::string name;             ///< becomes the identity's id
  std::string type = "client";  ///< chooses the prefix of a generated key
  std::vector<std::string> roles;
  std::vector<std::string> permissions;  ///< "*" stands for all
  /// When not empty: the only client addresses the key is accepted from; "*" stands for any.
  std::vector<std::string> allowed_ips;
  std::string label;
  platform::WallTime created_at{};
  platform::WallTime expires_at{};  ///< the epoch: never
  bool revoked = false;
  std::int64_t request_count = 0;  ///< authenticated uses
  platform::WallTime last_used{};
};

/// A key of the table as requests use it: what never changes, and what requests and revocation
/// change without a lock.
class ApiKey {
 public:
  explicit ApiKey(ApiKeyEntry entry);

  const std::string& key() const { return entry_.key; }
  const AuthIdentity& identity() const { return identity_; }

  /// Whether a request from this address may use the key now.
  bool isUsable(const std::string& client_ip, platform::WallTime now) const;
  void countUse(platform::WallTime now);
  void revoke() { revoked_.store(true); }

  /// A copy with the current counters.
  ApiKeyEntry entry() const;

 private:
  const ApiKeyEntry entry_;
  const AuthIdentity identity_;
  std::atomic<bool> revoked_;
  std::atomic<std::int64_t> request_count_;
  std::atomic<platform::WallTime> last_used_;
};
using ApiKeyPtr = std::shared_ptr<ApiKey>;

/// The API keys the controller accepts, by key text.
///
/// Threads: any thread may call any method. Look-ups share the lock and hash the secret, so they
/// neither queue nor tell by their time how much of a guess was right.
/// Failure: an unknown key gives null or false, never an exception.
class ApiKeyTable {
 public:
  /// Inserts the key or replaces the one with the same text.
  void add(ApiKeyEntry entry) TV_EXCLUDES(mu_);
  ApiKeyPtr find(const std::string& key) const TV_EXCLUDES(mu_);
  /// Marks the key; it stays listed.
  bool revoke(const std::string& key) TV_EXCLUDES(mu_);
  bool remove(const std::string& key) TV_EXCLUDES(mu_);
  /// Copies, in key order.
  std::vector<ApiKeyEntry> list() const TV_EXCLUDES(mu_);
  std::size_t size() const TV_EXCLUDES(mu_);

 private:
  mutable platform::SharedMutex mu_;
  std::unordered_map<std::string, ApiKeyPtr> keys_ TV_GUARDED_BY(mu_);
};

/// `length` letters and digits from the system's cryptographic generator.
std::string generateSecureToken(std::size_t length);

/// A new key text: a prefix that tells the type, and 32 random characters.
std::string generateApiKeyText(const std::string& type);

/// The keys of a key file, as created at the epoch and never used; entries without a key are left
/// out. Nothing when the file cannot be opened. Throws std::runtime_error, whose text names the
/// file and shows nothing of its content, when it is not the JSON of a key file.
std::optional<std::vector<ApiKeyEntry>> readApiKeyFile(const std::string& path);

/// Replaces the key file (mode 0600, the old or the new one after a crash). False when it cannot.
bool writeApiKeyFile(const std::string& path, const std::vector<ApiKeyEntry>& keys);

}  // namespace tavrel::api
