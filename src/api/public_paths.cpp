#include "api/public_paths.h"

#include <algorithm>
#include <map>

namespace tavrel::api {

const std::vector<std::string>& publicPaths() {
  static const std::vector<std::string> kPaths = {
      "/",
      "/health",
      "/api/v1/health",
      "/metrics",
      "/api/v1/metrics",
      "/dashboard",
      "/dashboard/*",
      "/downloads/*",
      "/api/v1/auth/info",
      "/api/v1/auth/mode",
      "/api/v1/auth/setup-status",
      "/api/v1/auth/login",
      "/api/v1/auth/register",
      "/api/v1/auth/forgot-password",
      "/api/v1/auth/reset-password",
      "/api/v1/auth/verify-email",
      "/api/v1/auth/session",
      "/api/v1/auth/me",
      "/api/v1/auth/logout",
      "/api/v1/auth/change-password",
      "/api/v1/workers/register",
      "/api/v1/workers/*/heartbeat",
      "/api/v1/data-workers/register",
      "/api/v1/data-workers/*/heartbeat",
      "/api/v1/media-workers/register",
      "/api/v1/media-workers/*/heartbeat",
      "/api/v1/comm-workers/register",
      "/api/v1/comm-workers/*/heartbeat",
      "/api/v1/science-workers/register",
      "/api/v1/science-workers/*/heartbeat",
      "/api/v1/training-workers/register",
      "/api/v1/training-workers/*/heartbeat",
      "/api/v1/inference-workers/register",
      "/api/v1/inference-workers/*/heartbeat",
      "/api/v1/agent-workers/register",
      "/api/v1/agent-workers/*/heartbeat",
      "/api/v1/swarm-controllers/register",
      "/api/v1/swarm-controllers/*/heartbeat",
      "/api/v1/controllers/register",
      "/api/v1/controllers/*/heartbeat",
      "/api/v1/routers/add",
      "/api/v1/routers/*/heartbeat",
      "/api/v1/workers",
      "/api/v1/models",
      "/api/v1/routers",
      "/api/v1/controllers",
      "/api/v1/data-workers",
      "/api/v1/tenants",
      "/api/v1/cluster/resources",
      "/api/v1/cluster/storage-summary",
      "/api/v1/cluster/storage-config",
      "/api/v1/agents",
      "/api/v1/components",
      "/api/v1/training-workers",
      "/api/v1/inference-workers",
      "/api/v1/training/jobs",
      "/api/v1/model-registry",
      "/api/v1/plugins",
      "/api/v1/tools",
      "/api/v1/tools/execute",
      "/api/v1/media-workers",
      "/api/v1/comm-workers",
      "/api/v1/comm/accounts",
      "/api/v1/comm/accounts/*",
      "/api/v1/comm/messages",
      "/api/v1/comm/messages/*",
      "/api/v1/comm/search",
      "/api/v1/comm/conversations",
      "/api/v1/agent-workers",
      "/api/v1/science-workers",
      "/api/v1/swarm-controllers",
      "/api/v1/edges",
      "/api/v1/edges/register",
      "/api/v1/edges/*/heartbeat",
      "/api/v1/users",
      "/api/v1/users/*",
      "/api/v1/orgs",
      "/api/v1/orgs/*",
      "/api/v1/auth/pending",
      "/api/v1/auth/approve/*",
      "/api/v1/auth/reject/*",
      "/api/v1/ops/exec",
      "/api/v1/ops/script",
      "/api/v1/ops/logs",
      "/api/v1/ops/restart",
      "/api/v1/ops/status",
      "/api/v1/user/settings",
      "/api/v1/user/conversations",
      "/api/v1/user/conversations/*",
      "/api/v1/settings/smtp",
      "/api/v1/settings/smtp/test",
      "/api/v1/tts/catalog",
      "/api/v1/tts/voices",
      "/api/v1/tts/voices/install",
      "/api/v1/tts/voices/delete",
      "/api/v1/tts/voices/distribute",
      "/api/v1/goals",
      "/api/v1/goals/*",
      "/api/v1/swarms",
      "/api/v1/swarms/*",
      "/api/v1/status",
      "/api/v1/agent-workers/refresh",
      "/api/v1/agent-workers/chat",
      "/api/v1/agent-workers/*/chat",
      "/api/v1/agents/install",
      "/api/v1/agents/catalog/sync",
      "/api/v1/mcp-servers",
      "/api/v1/mcp-servers/*",
      "/api/v1/data/connections",
      "/api/v1/data/connections/*",
      "/api/v1/data/sources",
      "/api/v1/data/sources/*",
      "/api/v1/data/query",
      "/api/v1/workers/discover",
      "/api/v1/workers/install",
      "/api/v1/events/stream",
      "/api/v1/events/stats",
      "/api/v1/metrics/history",
      "/api/v1/metrics/history/*",
      "/api/v1/moe/config",
      "/api/v1/moe/route",
      "/api/v1/moe/experts",
      "/api/v1/moe/experts/*",
      "/api/v1/scan/port",
      "/v1/models",
      "/v1/chat/completions",
      "/api/v1/chat/completions",
      "/api/v1/chat/completions/stream",
      // Additions: as open as the chat completions beside them.
      "/v1/completions",
      "/v1/embeddings",
  };
  return kPaths;
}

bool isInferencePath(std::string_view path) {
  static constexpr std::string_view kPaths[] = {
      "/v1/models",
      "/v1/chat/completions",
      "/v1/completions",
      "/v1/embeddings",
      "/api/v1/models",
      "/api/v1/chat/completions",
      "/api/v1/chat/completions/stream",
  };
  return std::find(std::begin(kPaths), std::end(kPaths), path) != std::end(kPaths);
}

bool isSessionPath(std::string_view path) {
  static constexpr std::string_view kPaths[] = {
      "/api/v1/admin/dashboard",
      "/api/v1/credentials",
      "/api/v1/credentials/*",
      "/api/v1/quotas/*",
  };
  return std::any_of(std::begin(kPaths), std::end(kPaths),
                     [path](std::string_view pattern) { return matchPath(pattern, path); });
}

bool matchPath(std::string_view pattern, std::string_view path) {
  if (pattern == path) return true;
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return false;
  const std::string_view prefix = pattern.substr(0, star);
  const std::string_view suffix = pattern.substr(star + 1);
  return prefix.size() + suffix.size() <= path.size() && path.starts_with(prefix) &&
         path.ends_with(suffix);
}

PathPatterns::PathPatterns(const std::vector<std::string>& patterns) {
  std::map<std::string, std::vector<std::string>> by_prefix;
  for (const std::string& pattern : patterns) {
    const std::size_t star = pattern.find('*');
    if (star == std::string::npos) {
      exact_.insert(pattern);
    } else {
      by_prefix[pattern.substr(0, star)].push_back(pattern.substr(star + 1));
    }
  }
  for (auto& [text, suffixes] : by_prefix) {
    // In ascending order, what begins this text is the entry before it or begins that one.
    std::size_t shorter = prefixes_.empty() ? kNone : prefixes_.size() - 1;
    while (shorter != kNone && !text.starts_with(prefixes_[shorter].text)) {
      shorter = prefixes_[shorter].shorter;
    }
    prefixes_.push_back({text, std::move(suffixes), shorter});
  }
}

bool PathPatterns::match(std::string_view path) const {
  if (exact_.find(path) != exact_.end()) return true;
  // Everything between a text that begins the path and the path itself begins with that text: all
  // candidates are the last entry not after the path and those that begin it.
  const auto after = std::upper_bound(
      prefixes_.begin(), prefixes_.end(), path,
      [](std::string_view value, const Prefix& prefix) { return value < prefix.text; });
  std::size_t at =
      after == prefixes_.begin() ? kNone : static_cast<std::size_t>(after - prefixes_.begin()) - 1;
  for (; at != kNone; at = prefixes_[at].shorter) {
    const Prefix& prefix = prefixes_[at];
    if (!path.starts_with(prefix.text)) continue;
    const std::string_view rest = path.substr(prefix.text.size());
    for (const std::string& suffix : prefix.suffixes) {
      if (rest.ends_with(suffix)) return true;
    }
  }
  return false;
}

}  // namespace tavrel::api
