#include "api/auth_middleware.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::api {
namespace {

constexpr char kAdminName[] = "Admin Key";
constexpr char kAdminType[] = "admin";
const std::string kGuests = "_guest_";
const std::string kKeyHeader = "X-API-Key";
const std::string kBearerHeader = "Authorization";
constexpr std::string_view kBearer = "Bearer ";
constexpr std::size_t kTokenCharacters = 48;
constexpr std::int32_t kSubControllerTtlSeconds = 7 * 86400;

/// The header's value, or an empty text; not a copy, which would cost every request.
const std::string& headerOf(const Request& request, const std::string& name) {
  static const std::string kNone;
  const auto found = request.headers.find(name);
  return found == request.headers.end() ? kNone : found->second;
}

/// Calls between cluster nodes, which no rate limit covers: two peers alone would empty the bucket
/// that guests share, and a dozen that of the key which all of them send.
bool isClusterPath(std::string_view path) {
  return path == "/gossip" || path == "/cluster/join" || path == "/cluster/announce";
}

bool contains(const std::vector<std::string>& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

AuthMiddleware::AuthMiddleware(Clocks clocks) : clocks_(std::move(clocks)) {}

void AuthMiddleware::initialize(const AuthConfig& config) {
  config_ = config;
  std::vector<std::string> open = config.public_paths;
  if (config.protect_inference) std::erase_if(open, isInferencePath);
  public_paths_ = PathPatterns(open);
  if (config.admin_key.empty()) return;
  ApiKeyEntry admin;
  admin.key = config.admin_key;
  admin.name = kAdminName;
  admin.type = kAdminType;
  admin.roles = {"admin", "operator", "viewer"};
  admin.permissions = {"*"};
  admin.created_at = clocks_.wall();
  keys_.add(std::move(admin));
}

Middleware AuthMiddleware::getMiddleware() {
  return [this](Context& context, const Request& request, const Handler& next) {
    std::optional<Response> refusal = judge(context, request);
    return refusal ? std::move(*refusal) : next(context, request);
  };
}

StreamGuard AuthMiddleware::getStreamGuard() {
  return [this](Context& context, const Request& request) -> std::optional<Response> {
    if (!config_.protect_inference || !isInferencePath(request.path)) return std::nullopt;
    return judge(context, request);
  };
}

std::optional<Response> AuthMiddleware::judge(Context& context, const Request& request) {
  total_requests_.fetch_add(1, std::memory_order_relaxed);
  const std::string& key = headerOf(request, kKeyHeader);
  if (isPublicPath(request.path)) {
    if (!key.empty()) {
      // A wrong key on a public path is as good as none.
      if (auto identity = validateApiKey(key, request.remote_address)) {
        context.identity = std::move(identity);
      }
    }
    return std::nullopt;
  }
  if (!config_.require_auth) return judgeGuest(request);
  if (key.empty()) return judgeBearer(context, request);
  const ApiKeyPtr known = usableKey(key, request.remote_address);
  if (known == nullptr) return refuse(401, "Invalid API key");
  return passWithKey(context, request, *known);
}

/// Guests get no identity, not even with a valid key.
std::optional<Response> AuthMiddleware::judgeGuest(const Request& request) {
  if (isClusterPath(request.path)) return std::nullopt;
  const RateLimiter::Verdict verdict = checkRateLimit(kGuests, /*is_guest=*/true);
  if (!verdict) return refuseRate("Rate limit exceeded", verdict);
  return std::nullopt;
}

std::optional<Response> AuthMiddleware::judgeBearer(Context& context, const Request& request) {
  const std::string& authorization = headerOf(request, kBearerHeader);
  if (authorization.size() <= kBearer.size() || !authorization.starts_with(kBearer)) {
    return judgeSession(request,
                        "Authentication required. Provide X-API-Key header or Bearer token.");
  }
  const std::string value = authorization.substr(kBearer.size());
  std::optional<TokenEntry> token = validateToken(value);
  if (!token) {
    // Many client libraries can send their key as a bearer token only.
    if (const ApiKeyPtr key = usableKey(value, request.remote_address)) {
      return passWithKey(context, request, *key);
    }
    return judgeSession(request, "Invalid or expired token");
  }
  const RateLimiter::Verdict verdict = checkRateLimit(value, /*is_guest=*/false);
  if (!verdict) return refuseRate("Rate limit exceeded", verdict);
  context.identity = std::move(token->identity);
  authenticated_requests_.fetch_add(1, std::memory_order_relaxed);
  return std::nullopt;
}

/// Whoever comes with a session gets no identity here: the route looks at the session itself.
std::optional<Response> AuthMiddleware::judgeSession(const Request& request,
                                                     std::string_view refusal) {
  std::optional<std::string> token;
  if (session_of_ && isSessionPath(request.path)) token = session_of_(request);
  if (!token) return refuse(401, refusal);
  const RateLimiter::Verdict verdict = checkRateLimit(*token, /*is_guest=*/false);
  if (!verdict) return refuseRate("Rate limit exceeded", verdict);
  authenticated_requests_.fetch_add(1, std::memory_order_relaxed);
  return std::nullopt;
}

std::optional<Response> AuthMiddleware::passWithKey(Context& context, const Request& request,
                                                    ApiKey& key) {
  if (!isClusterPath(request.path)) {
    const RateLimiter::Verdict verdict = checkRateLimit(key.key(), /*is_guest=*/false);
    if (!verdict) return refuseRate("Rate limit exceeded for API key", verdict);
  }
  context.identity = key.identity();
  authenticated_requests_.fetch_add(1, std::memory_order_relaxed);
  key.countUse(clocks_.wall());
  return std::nullopt;
}

Response AuthMiddleware::refuse(int status, std::string_view message) {
  rejected_requests_.fetch_add(1, std::memory_order_relaxed);
  return Response::error(status, message);
}

Response AuthMiddleware::refuseRate(std::string_view message, const RateLimiter::Verdict& verdict) {
  Response response = refuse(429, message);
  response.headers["Retry-After"] = std::to_string(verdict.retry_after.count());
  return response;
}

ApiKeyPtr AuthMiddleware::usableKey(const std::string& key, const std::string& client_ip) const {
  ApiKeyPtr known = keys_.find(key);
  return known != nullptr && known->isUsable(client_ip, clocks_.wall()) ? known : nullptr;
}

std::optional<AuthIdentity> AuthMiddleware::validateApiKey(const std::string& key,
                                                           const std::string& client_ip) const {
  const ApiKeyPtr known = usableKey(key, client_ip);
  if (known == nullptr) return std::nullopt;
  return known->identity();
}

std::optional<TokenEntry> AuthMiddleware::validateToken(const std::string& token) const {
  return tokens_.findValid(token, clocks_.wall());
}

RateLimiter::Verdict AuthMiddleware::checkRateLimit(const std::string& credential, bool is_guest) {
  if (!config_.rate_limit_enabled) return {};
  const std::int32_t limit =
      is_guest ? config_.guest_requests_per_minute : config_.requests_per_minute;
  return limiter_.take(credential, limit, clocks_.steady());
}

std::string AuthMiddleware::generateApiKey(const std::string& name, const std::string& type,
                                           std::vector<std::string> roles,
                                           std::vector<std::string> permissions) {
  ApiKeyEntry entry;
  entry.key = generateApiKeyText(type);
  entry.name = name;
  entry.type = type;
  entry.roles = std::move(roles);
  entry.permissions = std::move(permissions);
  entry.created_at = clocks_.wall();
  std::string key = entry.key;
  keys_.add(std::move(entry));
  return key;
}

std::optional<ApiKeyEntry> AuthMiddleware::getApiKey(const std::string& key) const {
  const ApiKeyPtr known = keys_.find(key);
  if (known == nullptr) return std::nullopt;
  return known->entry();
}

std::string AuthMiddleware::issueToken(const std::string& subject, const std::string& type,
                                       AuthIdentity identity, std::int32_t ttl_seconds) {
  const platform::WallTime now = clocks_.wall();
  const std::chrono::seconds ttl(ttl_seconds >= 1 ? ttl_seconds : config_.token_ttl_seconds);
  std::string token = generateSecureToken(kTokenCharacters);
  tokens_.add({token, subject, type, std::move(identity), now, now + ttl, false}, now);
  return token;
}

std::string AuthMiddleware::issueWorkerToken(const std::string& worker_id,
                                             std::vector<std::string> permissions) {
  return issueToken(worker_id, "worker",
                    {worker_id, "worker", {"worker"}, std::move(permissions), {}},
                    config_.worker_token_ttl_seconds);
}

std::string AuthMiddleware::issueSubControllerToken(const std::string& controller_id,
                                                    std::vector<std::string> permissions) {
  return issueToken(
      controller_id, "sub-controller",
      {controller_id, "sub-controller", {"sub-controller"}, std::move(permissions), {}},
      kSubControllerTtlSeconds);
}

bool AuthMiddleware::loadApiKeys(const std::string& path) {
  std::optional<std::vector<ApiKeyEntry>> entries = readApiKeyFile(path);
  if (!entries) return false;
  for (ApiKeyEntry& entry : *entries) {
    // The command line is the way back in: the file can neither revoke nor weaken its key.
    if (entry.key != config_.admin_key) keys_.add(std::move(entry));
  }
  return true;
}

bool AuthMiddleware::saveApiKeys(const std::string& path) const {
  std::vector<ApiKeyEntry> entries = keys_.list();
  std::erase_if(entries, [](const ApiKeyEntry& entry) {
    return entry.type == kAdminType && entry.name == kAdminName;
  });
  writeApiKeyFile(path, entries);
  return true;
}

nlohmann::json AuthMiddleware::getStats() const {
  return {{"total_requests", total_requests_.load(std::memory_order_relaxed)},
          {"authenticated_requests", authenticated_requests_.load(std::memory_order_relaxed)},
          {"rejected_requests", rejected_requests_.load(std::memory_order_relaxed)},
          {"api_keys_count", keys_.size()},
          {"active_tokens_count", tokens_.size()},
          {"auth_enabled", config_.enabled},
          {"require_auth", config_.require_auth}};
}

namespace {

/// Lets callers pass whose identity `allows`; the others get 403 with the message.
Middleware requireIdentity(std::function<bool(const AuthIdentity&)> allows, std::string message) {
  return [allows = std::move(allows), message = std::move(message)](
             Context& context, const Request& request, const Handler& next) {
    if (!context.identity) return Response::error(401, "Authentication required");
    if (!allows(*context.identity)) return Response::error(403, message);
    return next(context, request);
  };
}

}  // namespace

Middleware requireAuth() {
  return requireIdentity([](const AuthIdentity&) { return true; }, "");
}

Middleware requireRole(std::string role) {
  std::string message = "Required role: " + role;
  return requireIdentity(
      [role = std::move(role)](const AuthIdentity& caller) { return contains(caller.roles, role); },
      std::move(message));
}

Middleware requirePermission(std::string permission) {
  std::string message = "Required permission: " + permission;
  return requireIdentity(
      [permission = std::move(permission)](const AuthIdentity& caller) {
        return contains(caller.permissions, "*") || contains(caller.permissions, permission);
      },
      std::move(message));
}

Middleware requireAdmin() {
  return requireRole("admin");
}

}  // namespace tavrel::api
