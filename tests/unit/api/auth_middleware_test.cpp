#include "api/auth_middleware.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <thread>

#include "support/process.h"

namespace tavrel::api {
namespace {

using std::chrono::hours;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char kGuardedPath[] = "/api/v1/logs";
constexpr char kAdminKey[] = "the-administrators-key";

/// A gate whose time stands still until a test moves it.
struct GuardedRoutes {
  explicit GuardedRoutes(const AuthConfig& config = AuthConfig()) { auth.initialize(config); }

  void pass(nanoseconds time) {
    wall += std::chrono::duration_cast<platform::WallTime::duration>(time);
    steady += time;
  }

  /// Sends a request through; the answer behind the gate is 200 with the caller's id and "-".
  Response ask(const std::string& path, const std::map<std::string, std::string>& headers = {},
               const std::string& address = "10.0.0.5") {
    Request request;
    request.path = path;
    request.headers.insert(headers.begin(), headers.end());
    request.remote_address = address;
    Context context;
    return middleware(context, request, [](Context& passed, const Request&) {
      return Response::text(passed.identity ? passed.identity->id + "-" : "-", "text/plain");
    });
  }
  Response askWithKey(const std::string& key, const std::string& address = "10.0.0.5") {
    return ask(kGuardedPath, {{"X-API-Key", key}}, address);
  }

  platform::WallTime wall{hours(480'000)};
  platform::SteadyTime steady{hours(7)};
  AuthMiddleware auth{{[this] { return wall; }, [this] { return steady; }}};
  Middleware middleware = auth.getMiddleware();
};

AuthConfig withAdmin() {
  AuthConfig config;
  config.admin_key = kAdminKey;
  return config;
}

AuthConfig forGuests() {
  AuthConfig config;
  config.require_auth = false;
  return config;
}

/// "status text": the body of a 200, the message of an error.
std::string outcome(const Response& response) {
  const std::string text =
      response.status == 200 ? response.body
                             : nlohmann::json::parse(response.body).at("error").get<std::string>();
  return std::to_string(response.status) + ' ' + text;
}

std::vector<std::string> repeat(int times, const std::function<Response()>& ask) {
  std::vector<std::string> others;
  for (int i = 0; i < times; ++i) {
    const std::string got = outcome(ask());
    if (got.rfind("200", 0) != 0) others.push_back(got);
  }
  return others;
}

std::string bearer(const std::string& token) {
  return "Bearer " + token;
}

TEST(PathPatterns, CoverTheSamePathsAsThePlainDefinition) {
  std::mt19937 random(20240611);
  const auto upTo = [&random](std::size_t limit) { return random() % (limit + 1); };
  const auto text = [&](const char* alphabet, std::size_t length) {
    std::string made;
    while (length-- > 0) made.push_back(alphabet[random() % std::strlen(alphabet)]);
    return made;
  };
  int matches = 0;
  for (int round = 0; round < 3000; ++round) {
    // Few letters, so that prefixes nest, overlap with suffixes, and match by chance.
    std::vector<std::string> patterns = publicPaths();
    if (round % 4 != 0) {
      patterns.resize(upTo(12));
      for (std::string& pattern : patterns) pattern = text("ab/*", upTo(5));
    }
    const PathPatterns compiled(patterns);
    for (int i = 0; i < 20; ++i) {
      std::string path = text("ab/*", upTo(9));
      if (i % 2 == 0 && !patterns.empty()) {
        path = patterns[random() % patterns.size()];
        const std::size_t star = path.find('*');
        if (star != std::string::npos) path.replace(star, 1, text("a/", upTo(3)));
        if (upTo(3) == 0) path.insert(upTo(path.size()), text("ab/", 1));
      }
      const bool expected =
          std::any_of(patterns.begin(), patterns.end(),
                      [&](const std::string& pattern) { return matchPath(pattern, path); });
      EXPECT_EQ(compiled.match(path), expected) << path;
      matches += expected ? 1 : 0;
    }
  }
  EXPECT_GT(matches, 10000);
}

TEST(PublicPaths, APatternIsItsPrefixAndSuffixWithoutOverlap) {
  EXPECT_TRUE(matchPath("/api/v1/workers/*/heartbeat", "/api/v1/workers/w1/heartbeat"));
  EXPECT_TRUE(matchPath("/api/v1/workers/*/heartbeat", "/api/v1/workers//heartbeat"));
  EXPECT_FALSE(matchPath("/api/v1/workers/*/heartbeat", "/api/v1/workers/heartbeat"));
  EXPECT_TRUE(matchPath("/dashboard/*", "/dashboard/"));
  EXPECT_FALSE(matchPath("/dashboard/*", "/dashboard"));
  EXPECT_TRUE(matchPath("/a*b*c", "/axb*c"));
  EXPECT_FALSE(matchPath("/a*b*c", "/axbxc"));

  EXPECT_EQ(publicPaths().size(), 130U);
  const PathPatterns open(publicPaths());
  EXPECT_TRUE(open.match("/api/v1/workers"));
  EXPECT_FALSE(open.match("/api/v1/workers/abc"));
  EXPECT_FALSE(open.match("/api/v1/auth/keys"));
}

TEST(AuthMiddleware, CredentialsDecideOnGuardedPathsOnly) {
  GuardedRoutes gate(withAdmin());
  const std::string token = gate.auth.issueWorkerToken("w7", {"inference"});
  constexpr char kNone[] = "401 Authentication required. Provide X-API-Key header or Bearer token.";
  const struct {
    const char* path;
    std::map<std::string, std::string> headers;
    std::string expected;
  } cases[] = {
      {"/health", {}, "200 -"},
      {"/health", {{"X-API-Key", "wrong"}}, "200 -"},
      {"/health", {{"x-api-key", kAdminKey}}, "200 Admin Key-"},
      {"/health", {{"Authorization", bearer(token)}}, "200 -"},
      {kGuardedPath, {}, kNone},
      {kGuardedPath, {{"Authorization", "Bearer "}}, kNone},
      {kGuardedPath, {{"Authorization", "bearer " + token}}, kNone},
      {kGuardedPath, {{"Authorization", bearer("x")}}, "401 Invalid or expired token"},
      {kGuardedPath, {{"Authorization", bearer(token)}}, "200 w7-"},
      {kGuardedPath, {{"Authorization", bearer(kAdminKey)}}, "200 Admin Key-"},
      {kGuardedPath, {{"X-API-Key", kAdminKey}}, "200 Admin Key-"},
      {kGuardedPath,
       {{"X-API-Key", "wrong"}, {"Authorization", bearer(token)}},
       "401 Invalid API key"},
      {kGuardedPath, {{"X-API-Key", token}}, "401 Invalid API key"},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(outcome(gate.ask(row.path, row.headers)), row.expected);
  }
  EXPECT_EQ(gate.auth.getStats(), nlohmann::json::parse(R"({"total_requests": 13,
      "authenticated_requests": 3, "rejected_requests": 6, "api_keys_count": 1,
      "active_tokens_count": 1, "auth_enabled": true, "require_auth": true})"));
  // Uses are counted for the key, sent either way, but not on public paths.
  EXPECT_EQ(gate.auth.getApiKey(kAdminKey)->request_count, 2);
  EXPECT_EQ(gate.auth.getApiKey(kAdminKey)->last_used, gate.wall);
}

TEST(AuthMiddleware, ASessionPassesWhereItsRoutesJudgeItAndNowhereElse) {
  AuthConfig config = withAdmin();
  config.requests_per_minute = 8;
  GuardedRoutes gate(config);
  const std::map<std::string, std::string> signed_in = {{"X-Session-Token", "ts_1"}};
  EXPECT_EQ(outcome(gate.ask("/api/v1/credentials", signed_in)),
            "401 Authentication required. Provide X-API-Key header or Bearer token.");
  gate.auth.acceptSessions([](const Request& request) -> std::optional<std::string> {
    if (request.getHeader("X-Session-Token") != "ts_1") return std::nullopt;
    return "ts_1";
  });
  for (const char* path : {"/api/v1/credentials", "/api/v1/credentials/cred_1",
                           "/api/v1/quotas/usr_1", "/api/v1/admin/dashboard"}) {
    EXPECT_EQ(outcome(gate.ask(path, signed_in)), "200 -") << path;
    EXPECT_EQ(gate.ask(path, {{"X-Session-Token", "ts_2"}}).status, 401) << path;
  }
  for (const char* path : {kGuardedPath, "/api/v1/auth/keys", "/api/v1/quotas"}) {
    EXPECT_EQ(gate.ask(path, signed_in).status, 401) << path;
  }
  const std::string path = "/api/v1/credentials";
  EXPECT_EQ(outcome(gate.ask(path, {{"X-Session-Token", "ts_1"}, {"X-API-Key", "wrong"}})),
            "401 Invalid API key");
  // Who has a key as well is known by it, and the request counts for the key.
  for (const auto& [name, value] :
       {std::pair<std::string, std::string>("X-API-Key", kAdminKey),
        std::pair<std::string, std::string>("Authorization", bearer(kAdminKey))}) {
    EXPECT_EQ(outcome(gate.ask(path, {{"X-Session-Token", "ts_1"}, {name, value}})),
              "200 Admin Key-");
  }
  EXPECT_EQ(repeat(5, [&] { return gate.ask(path, signed_in); }),
            std::vector<std::string>{"429 Rate limit exceeded"});
}

TEST(AuthMiddleware, GuestsShareOneBucketThatClusterCallsLeaveAlone) {
  AuthConfig config = forGuests();
  config.admin_key = kAdminKey;
  GuardedRoutes gate(config);
  for (const char* path : {"/gossip", "/cluster/join", "/cluster/announce"}) {
    EXPECT_THAT(repeat(100, [&] { return gate.ask(path); }), ElementsAre());
  }
  // No identity, not even with a valid key.
  EXPECT_EQ(outcome(gate.askWithKey(kAdminKey)), "200 -");
  gate.pass(seconds(30));
  int caller = 0;
  EXPECT_THAT(repeat(59, [&] { return gate.ask(kGuardedPath, {}, std::to_string(++caller)); }),
              ElementsAre());
  const Response refused = gate.askWithKey(kAdminKey);
  EXPECT_EQ(outcome(refused), "429 Rate limit exceeded");
  EXPECT_EQ(refused.headers.at("Retry-After"), "30");
  EXPECT_THAT(repeat(100, [&] { return gate.ask("/health"); }), ElementsAre());

  gate.pass(seconds(30) - nanoseconds(1));
  EXPECT_EQ(gate.ask(kGuardedPath).headers.at("Retry-After"), "1");
  gate.pass(nanoseconds(1));
  EXPECT_EQ(gate.ask(kGuardedPath).status, 200);
}

TEST(AuthMiddleware, EveryKeyAndTokenHasItsOwnWindow) {
  GuardedRoutes gate(withAdmin());
  const std::string key = gate.auth.generateApiKey("ci", "service", {}, {});
  const std::string token = gate.auth.issueWorkerToken("w", {});
  EXPECT_THAT(repeat(1001, [&] { return gate.askWithKey(key); }),
              ElementsAre("429 Rate limit exceeded for API key"));
  EXPECT_EQ(gate.ask(kGuardedPath, {{"Authorization", bearer(key)}}).status, 429);
  EXPECT_THAT(repeat(1001,
                     [&] {
                       return gate.ask(kGuardedPath, {{"Authorization", bearer(token)}});
                     }),
              ElementsAre("429 Rate limit exceeded"));
  EXPECT_EQ(gate.askWithKey(kAdminKey).status, 200);
  // Of many nodes that share a key none may take another for dead because of it.
  EXPECT_THAT(repeat(2000,
                     [&] {
                       return gate.ask("/gossip", {{"X-API-Key", key}});
                     }),
              ElementsAre());

  AuthConfig config = withAdmin();
  config.rate_limit_enabled = false;
  GuardedRoutes unlimited(config);
  EXPECT_THAT(repeat(2000, [&] { return unlimited.askWithKey(kAdminKey); }), ElementsAre());
}

TEST(AuthMiddleware, KeysEndByRevocationExpiryAndAddress) {
  GuardedRoutes gate;
  ApiKeyEntry entry;
  entry.key = "tk_bound";
  entry.name = "bound";
  entry.allowed_ips = {"10.0.0.5"};
  entry.expires_at = gate.wall + seconds(10);
  gate.auth.addApiKey(entry);
  entry.key = "tk_anywhere";
  entry.allowed_ips = {"10.0.0.5", "*"};
  gate.auth.addApiKey(entry);

  EXPECT_EQ(gate.askWithKey("tk_bound", "10.0.0.50").status, 401);
  EXPECT_EQ(gate.askWithKey("tk_anywhere", "::1").status, 200);
  gate.pass(seconds(10) - nanoseconds(1));
  EXPECT_EQ(gate.askWithKey("tk_bound").status, 200);
  gate.pass(nanoseconds(1));
  EXPECT_EQ(gate.askWithKey("tk_bound").status, 401);

  const std::string key = gate.auth.generateApiKey("n", "", {}, {});
  EXPECT_EQ(gate.askWithKey(key).status, 200);
  EXPECT_TRUE(gate.auth.revokeApiKey(key));
  EXPECT_EQ(gate.askWithKey(key).status, 401);
  EXPECT_TRUE(gate.auth.getApiKey(key)->revoked);
  EXPECT_FALSE(gate.auth.revokeApiKey("unknown"));
  EXPECT_TRUE(gate.auth.removeApiKey(key));
  EXPECT_EQ(gate.auth.listApiKeys().size(), 2U);
  EXPECT_EQ(gate.auth.listApiKeys().front().key, "tk_anywhere");
}

TEST(AuthMiddleware, GeneratedKeysTellTheirType) {
  GuardedRoutes gate;
  for (const auto& [type, prefix] :
       std::map<std::string, std::string>{{"admin", "tk_admin_"},
                                          {"service", "tk_svc_"},
                                          {"sub-controller", "tk_sub_"},
                                          {"client", "tk_"},
                                          {"robot", "tk_"}}) {
    const std::string key = gate.auth.generateApiKey("k", type, {}, {});
    EXPECT_THAT(key, testing::MatchesRegex(prefix + "[0-9A-Za-z]{32}"));
  }
  EXPECT_EQ(gate.auth.listApiKeys().size(), 5U);
}

TEST(AuthMiddleware, TokensLiveAsLongAsTheirKindSays) {
  GuardedRoutes gate;
  const std::string worker = gate.auth.issueWorkerToken("w", {});
  const std::string sub = gate.auth.issueSubControllerToken("s", {"sync"});
  const std::string plain = gate.auth.issueToken("x", "tool", {}, 0);
  const std::string brief = gate.auth.issueToken("x", "tool", {}, 1);
  const auto alive = [&gate](const std::string& t) {
    return gate.auth.validateToken(t).has_value();
  };
  EXPECT_EQ(worker.size(), 48U);
  gate.pass(seconds(1) - nanoseconds(1));
  EXPECT_TRUE(alive(brief));
  gate.pass(nanoseconds(1));
  EXPECT_FALSE(alive(brief));
  EXPECT_TRUE(alive(plain));
  gate.pass(seconds(3599));
  EXPECT_FALSE(alive(plain));
  EXPECT_TRUE(alive(worker));
  gate.pass(hours(23));
  EXPECT_FALSE(alive(worker));
  EXPECT_EQ(gate.auth.validateToken(sub)->identity.roles,
            std::vector<std::string>{"sub-controller"});
  gate.auth.cleanupExpiredTokens();
  EXPECT_EQ(gate.auth.getStats().at("active_tokens_count"), 1);
  EXPECT_TRUE(gate.auth.revokeToken(sub));
  EXPECT_FALSE(alive(sub));
  EXPECT_FALSE(gate.auth.revokeToken(plain));
}

TEST(AuthMiddleware, TablesForgetWhatIsOver) {
  GuardedRoutes gate;
  for (std::size_t i = 0; i < TokenTable::kMinCleanSize; ++i)
    gate.auth.issueToken("x", "t", {}, 60);
  gate.pass(seconds(60));
  const std::string kept = gate.auth.issueToken("x", "t", {}, 60);
  EXPECT_EQ(gate.auth.getStats().at("active_tokens_count"), 1);
  EXPECT_TRUE(gate.auth.validateToken(kept).has_value());

  RateLimiter limiter;
  const platform::SteadyTime start{hours(1)};
  for (std::size_t i = 0; i < RateLimiter::kMinSweepSize; ++i) {
    limiter.take(std::to_string(i), 1, start);
  }
  EXPECT_TRUE(limiter.take("full", 1, start + seconds(59)));
  EXPECT_EQ(limiter.size(), RateLimiter::kMinSweepSize + 1);
  for (std::size_t i = 0; i < 2 * RateLimiter::kMinSweepSize; ++i) {
    limiter.take('n' + std::to_string(i), 1, start + seconds(60));
  }
  EXPECT_LE(limiter.size(), 2 * RateLimiter::kMinSweepSize + 1);
  EXPECT_FALSE(limiter.take("full", 1, start + seconds(60)));
}

TEST(AuthMiddleware, ProtectedInferenceIsNotPublicAndItsStreamAsks) {
  AuthConfig config = withAdmin();
  config.public_paths = publicPaths();
  const auto refusal = [](GuardedRoutes& gate, const char* path) {
    Request request;
    request.path = path;
    Context context;
    return gate.auth.getStreamGuard()(context, request).has_value();
  };
  GuardedRoutes open(config);
  EXPECT_EQ(open.ask("/v1/models").status, 200);
  EXPECT_FALSE(refusal(open, "/api/v1/chat/completions/stream"));
  EXPECT_EQ(open.auth.getStats().at("total_requests"), 1);

  config.protect_inference = true;
  GuardedRoutes guarded(config);
  for (const char* path : {"/v1/models", "/v1/chat/completions", "/v1/completions",
                           "/v1/embeddings", "/api/v1/models", "/api/v1/chat/completions"}) {
    EXPECT_EQ(guarded.ask(path).status, 401) << path;
    EXPECT_EQ(guarded.ask(path, {{"Authorization", bearer(kAdminKey)}}).status, 200) << path;
  }
  EXPECT_EQ(guarded.ask("/api/v1/workers").status, 200);
  EXPECT_FALSE(refusal(guarded, "/api/v1/events/stream"));
}

TEST(AuthMiddleware, RequirementsOfSingleRoutes) {
  const auto ask = [](const Middleware& middleware, const std::optional<AuthIdentity>& caller) {
    Context context;
    context.identity = caller;
    return outcome(middleware(context, Request(), [](Context&, const Request&) {
      return Response::text("in", "text/plain");
    }));
  };
  const AuthIdentity viewer{"v", "client", {"viewer"}, {"read"}, {}};
  const AuthIdentity root{"r", "admin", {"admin"}, {"*"}, {}};
  for (const Middleware& m : {requireAuth(), requireAdmin(), requirePermission("read")}) {
    EXPECT_EQ(ask(m, std::nullopt), "401 Authentication required");
    EXPECT_EQ(ask(m, root), "200 in");
  }
  EXPECT_EQ(ask(requireAuth(), viewer), "200 in");
  EXPECT_EQ(ask(requireAdmin(), viewer), "403 Required role: admin");
  EXPECT_EQ(ask(requireRole("viewer"), viewer), "200 in");
  EXPECT_EQ(ask(requireRole("viewer"), root), "403 Required role: viewer");
  EXPECT_EQ(ask(requirePermission("read"), viewer), "200 in");
  EXPECT_EQ(ask(requirePermission("write"), viewer), "403 Required permission: write");
}

TEST(AuthMiddleware, ConcurrentRequestsAreCountedExactly) {
  AuthConfig config;
  config.requests_per_minute = 3000;
  AuthMiddleware auth;
  auth.initialize(config);
  const std::string key = auth.generateApiKey("shared", "client", {}, {});
  const Middleware middleware = auth.getMiddleware();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      Request request;
      request.path = kGuardedPath;
      request.headers["X-API-Key"] = key;
      for (int i = 0; i < 1000; ++i) {
        Context context;
        middleware(context, request, [](Context&, const Request&) { return Response(); });
        if (i % 10 == 0) auth.revokeApiKey(auth.generateApiKey("other", "client", {}, {}));
        if (i % 10 == 1) auth.revokeToken(auth.issueWorkerToken(std::to_string(t), {}));
        if (i % 100 == 2) auth.listApiKeys();
        if (i % 100 == 3) auth.cleanupExpiredTokens();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(auth.getApiKey(key)->request_count, 3000);
  EXPECT_EQ(auth.getStats().at("authenticated_requests"), 3000);
  EXPECT_EQ(auth.getStats().at("rejected_requests"), 1000);
  EXPECT_EQ(auth.getStats().at("api_keys_count"), 401);
}

class KeyFile : public testing::Test {
 protected:
  void write(const std::string& text) const { std::ofstream(path_) << text; }

  test::TempDirectory directory_;
  const std::string path_ = directory_.file("api_keys.json");
};

TEST_F(KeyFile, KeysComeBackWithoutTheAdministrators) {
  GuardedRoutes gate(withAdmin());
  ApiKeyEntry entry;
  entry.key = "tk_ci";
  entry.name = "ci";
  entry.type = "service";
  entry.roles = {"viewer"};
  entry.permissions = {"read"};
  entry.allowed_ips = {"10.0.0.5"};
  entry.revoked = true;
  entry.request_count = 9;
  gate.auth.addApiKey(entry);
  EXPECT_TRUE(gate.auth.saveApiKeys(path_));
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);

  GuardedRoutes later;
  EXPECT_TRUE(later.auth.loadApiKeys(path_));
  ASSERT_EQ(later.auth.listApiKeys().size(), 1U);
  const ApiKeyEntry loaded = later.auth.listApiKeys().front();
  EXPECT_EQ(loaded.key + loaded.name + loaded.type, "tk_ciciservice");
  EXPECT_THAT(loaded.roles, ElementsAre("viewer"));
  EXPECT_THAT(loaded.permissions, ElementsAre("read"));
  EXPECT_THAT(loaded.allowed_ips, ElementsAre("10.0.0.5"));
  EXPECT_TRUE(loaded.revoked);
  EXPECT_EQ(loaded.request_count, 0);
}

TEST_F(KeyFile, TheAdministratorsKeyOfTheCommandLineWins) {
  GuardedRoutes gate(withAdmin());
  write(std::string(R"({"api_keys": [{"name": "no key"}, {"key": "tk_a", "roles": "viewer"},
                      {"key": ")") +
        kAdminKey + R"(", "name": "impostor", "revoked": true}]})");
  EXPECT_TRUE(gate.auth.loadApiKeys(path_));
  EXPECT_EQ(gate.auth.listApiKeys().size(), 2U);
  EXPECT_EQ(gate.auth.getApiKey("tk_a")->type, "client");
  EXPECT_EQ(outcome(gate.askWithKey(kAdminKey)), "200 Admin Key-");
}

TEST_F(KeyFile, AMalformedFileIsReportedWithoutItsContent) {
  GuardedRoutes gate;
  EXPECT_FALSE(gate.auth.loadApiKeys(path_));
  write("{}");
  EXPECT_TRUE(gate.auth.loadApiKeys(path_));
  for (const char* text :
       {"", "[]", R"({"api_keys": [{"key": "tk_secret"}, {"key": "tk_secret" oops}]})",
        R"({"api_keys": {"key": "tk_secret"}})", R"({"api_keys": [{"key": "tk_secret"}, "text"]})",
        R"({"api_keys": [{"key": "tk_secret"}, {"key": "tk_secret2", "revoked": "tk_secret"}]})",
        R"({"api_keys": [{"key": "tk_secret", "roles": ["a", 1]}]})"}) {
    write(text);
    try {
      gate.auth.loadApiKeys(path_);
      ADD_FAILURE() << text;
    } catch (const std::runtime_error& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(path_));
      EXPECT_THAT(failure.what(), Not(HasSubstr("tk_secret")));
    }
    EXPECT_TRUE(gate.auth.listApiKeys().empty()) << text;
  }
}

}  // namespace
}  // namespace tavrel::api
