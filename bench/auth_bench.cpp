#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>

#include "api/auth_middleware.h"

// What the gate adds to every request.
namespace {

using namespace tavrel::api;

AuthMiddleware& gate() {
  static AuthMiddleware auth;
  static const bool initialized = [] {
    AuthConfig config;
    config.admin_key = "the-administrators-key";
    config.public_paths = publicPaths();
    config.requests_per_minute = 2'000'000'000;
    auth.initialize(config);
    for (int i = 0; i < 1000; ++i) auth.generateApiKey("k", "client", {"viewer"}, {"inference"});
    return true;
  }();
  benchmark::DoNotOptimize(initialized);
  return auth;
}

void pass(benchmark::State& state, const char* path, const std::string& header,
          const std::string& credential) {
  const Middleware middleware = gate().getMiddleware();
  Request request;
  request.path = path;
  request.headers = {{"Accept", "*/*"}, {"Host", "controller"}, {header, credential}};
  const Handler next = [](Context&, const Request&) { return Response(); };
  for (auto _ : state) {
    Context context;
    const Response response = middleware(context, request, next);
    if (response.status != 200) state.SkipWithError("refused");
  }
}

void publicPath(benchmark::State& state) {
  pass(state, "/api/v1/chat/completions", "User-Agent", "bench");
}
void publicPathOfAWildcard(benchmark::State& state) {
  pass(state, "/api/v1/workers/worker-123/heartbeat", "User-Agent", "bench");
}
void apiKey(benchmark::State& state) {
  static const std::string key = gate().generateApiKey("one", "client", {"viewer"}, {"inference"});
  pass(state, "/api/v1/cluster/nodes", "X-API-Key", key);
}
void bearerToken(benchmark::State& state) {
  static const std::string token = gate().issueWorkerToken("w1", {"inference", "heartbeat"});
  pass(state, "/api/v1/cluster/nodes", "Authorization", "Bearer " + token);
}

/// The public test alone, beside a scan of the list.
void compiledPatterns(benchmark::State& state) {
  const PathPatterns patterns(publicPaths());
  const std::string path = "/api/v1/cluster/nodes";
  for (auto _ : state) benchmark::DoNotOptimize(patterns.match(path));
}
void scannedPatterns(benchmark::State& state) {
  const std::string path = "/api/v1/cluster/nodes";
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        std::any_of(publicPaths().begin(), publicPaths().end(),
                    [&](const std::string& pattern) { return matchPath(pattern, path); }));
  }
}

BENCHMARK(publicPath);
BENCHMARK(publicPathOfAWildcard);
BENCHMARK(apiKey)->Threads(1)->Threads(2);
BENCHMARK(bearerToken);
BENCHMARK(compiledPatterns);
BENCHMARK(scannedPatterns);

}  // namespace
