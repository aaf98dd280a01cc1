#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "api/api_key_table.h"
#include "api/auth_middleware_rate_limiter.h"
#include "api/auth_middleware_tokens.h"
#include "api/public_paths.h"
#include "api/route_book.h"
#include "platform/clock.h"

namespace tavrel::api {

/// What the gate demands. A plain value.
struct AuthConfig {
  bool enabled = true;       ///< only reported
  bool require_auth = true;  ///< false: requests pass as guests
  std::string admin_key;     ///< empty: there is no administrator key
  std::int32_t token_ttl_seconds = 3600;
  std::int32_t worker_token_ttl_seconds = 86400;
  std::vector<std::string> public_paths = {"/health", "/api/v1/health", "/metrics"};
  bool rate_limit_enabled = true;
  std::int32_t requests_per_minute = 1000;      ///< for each API key or token
  std::int32_t guest_requests_per_minute = 60;  ///< for all guests together

  /// Takes the inference paths off the public list, and lets streamGuard refuse them too.
  bool protect_inference = false;
};

/// The token of the browser session that a request carries; nothing when it carries none that is
/// valid now.
using SessionLookup = std::function<std::optional<std::string>(const Request&)>;

/// The gate in front of every route: decides by path, credential and rate limit whether a request
/// passes, and tells handlers through Context::identity who is calling. Owns the API keys, the
/// issued bearer tokens, the rate-limit windows and the request counters.
///
/// Threads: initialize and acceptSessions before the first request; everything else from any
/// thread. Time: read from the clocks given at construction. Failure: refusals are answers (401 or
/// 429) and are counted; nothing here throws but loadApiKeys. The middlewares it hands out refer to
/// it, so it must outlive the server.
class AuthMiddleware {
 public:
  /// Where the time comes from; tests bring their own.
  struct Clocks {
    std::function<platform::WallTime()> wall = platform::wallNow;
    std::function<platform::SteadyTime()> steady = platform::steadyNow;
  };

  AuthMiddleware() : AuthMiddleware(Clocks()) {}
  explicit AuthMiddleware(Clocks clocks);

  /// Takes the settings over and enters the administrator key, if there is one.
  void initialize(const AuthConfig& config);

  /// Lets valid browser sessions pass where isSessionPath says so, when no other credential does.
  void acceptSessions(SessionLookup lookup) { session_of_ = std::move(lookup); }

  /// For HttpServer::use.
  Middleware getMiddleware();
  /// For HttpServer::guardStreams: with protect_inference a stream on an inference path needs what
  /// an ordinary request there needs. Any other stream stays open.
  StreamGuard getStreamGuard();

  /// The caller's identity when the key is known, usable now and allowed from that address. Does
  /// not count as a use.
  std::optional<AuthIdentity> validateApiKey(const std::string& key,
                                             const std::string& client_ip) const;
  /// A copy of the token when it is known, not revoked and not expired.
  std::optional<TokenEntry> validateToken(const std::string& token) const;
  /// Counts a request of the credential, or refuses it when its window is full.
  RateLimiter::Verdict checkRateLimit(const std::string& credential, bool is_guest);

  /// Makes and enters a new key that never expires; returns it.
  std::string generateApiKey(const std::string& name, const std::string& type,
                             std::vector<std::string> roles, std::vector<std::string> permissions);
  void addApiKey(ApiKeyEntry entry) { keys_.add(std::move(entry)); }
  std::optional<ApiKeyEntry> getApiKey(const std::string& key) const;
  std::vector<ApiKeyEntry> listApiKeys() const { return keys_.list(); }
  /// The key stays listed.
  bool revokeApiKey(const std::string& key) { return keys_.revoke(key); }
  bool removeApiKey(const std::string& key) { return keys_.remove(key); }

  /// Makes and enters a new token; a lifetime below one second means the configured one.
  std::string issueToken(const std::string& subject, const std::string& type, AuthIdentity identity,
                         std::int32_t ttl_seconds);
  std::string issueWorkerToken(const std::string& worker_id, std::vector<std::string> permissions);
  /// Lives for seven days.
  std::string issueSubControllerToken(const std::string& controller_id,
                                      std::vector<std::string> permissions);
  bool revokeToken(const std::string& token) { return tokens_.revoke(token); }
  /// Removes tokens that are revoked or expired; to be called now and then. Issuing many tokens
  /// does so by itself.
  void cleanupExpiredTokens() { tokens_.removeExpired(clocks_.wall()); }

  /// Enters the keys of a key file; the administrator key stays as it is. False when the file
  /// cannot be opened. Throws std::runtime_error, and enters nothing, when it is malformed.
  bool loadApiKeys(const std::string& path);
  /// Writes every key but the administrator's. Always true: a file that cannot be written is let
  /// pass.
  bool saveApiKeys(const std::string& path) const;

  bool isPublicPath(std::string_view path) const { return public_paths_.match(path); }
  /// The request counters, the table sizes and the settings that GET /api/v1/auth/stats shows.
  nlohmann::json getStats() const;
  std::int32_t workerTokenTtlSeconds() const { return config_.worker_token_ttl_seconds; }

 private:
  /// The answer that refuses the request; nothing when it passes, with its identity attached.
  std::optional<Response> judge(Context& context, const Request& request);
  std::optional<Response> judgeGuest(const Request& request);
  std::optional<Response> judgeBearer(Context& context, const Request& request);
  std::optional<Response> judgeSession(const Request& request, std::string_view refusal);
  std::optional<Response> passWithKey(Context& context, const Request& request, ApiKey& key);
  ApiKeyPtr usableKey(const std::string& key, const std::string& client_ip) const;
  Response refuse(int status, std::string_view message);
  Response refuseRate(std::string_view message, const RateLimiter::Verdict& verdict);

  const Clocks clocks_;
  AuthConfig config_;          ///< constant after initialize
  PathPatterns public_paths_;  ///< constant after initialize
  SessionLookup session_of_;   ///< constant after acceptSessions; null: no sessions
  ApiKeyTable keys_;
  TokenTable tokens_;
  RateLimiter limiter_;
  std::atomic<std::uint64_t> total_requests_{0};
  std::atomic<std::uint64_t> authenticated_requests_{0};
  std::atomic<std::uint64_t> rejected_requests_{0};
};

/// Middlewares for single routes, behind the gate.

/// 401 without an identity.
Middleware requireAuth();
/// 401 without an identity, 403 without the role. Administrators need the role as well.
Middleware requireRole(std::string role);
/// 401 without an identity, 403 without the permission or "*".
Middleware requirePermission(std::string permission);
/// The role "admin".
Middleware requireAdmin();

}  // namespace tavrel::api
