#include "controller/request_observers.h"

#include <array>
#include <charconv>
#include <string>
#include <utility>

#include "platform/clock.h"
#include "platform/console.h"

namespace tavrel::controller {
namespace {

constexpr std::array<std::string_view, 5> kUncounted = {"/", "/health", "/api/v1/health",
                                                        "/metrics", "/api/v1/metrics"};

/// Calls `done` with the status once the answer is complete: now, or after its stream has run.
template <class Done>
void whenDone(api::Response& response, Done done) {
  if (!response.stream) {
    done(response.status);
    return;
  }
  response.stream = [body = std::move(response.stream), status = response.status,
                     done = std::move(done)](api::StreamWriter& writer) {
    body(writer);
    done(status);
  };
}

void logRequest(const std::string& intro, platform::SteadyTime start, int status) {
  std::array<char, 32> elapsed{};
  const auto end = std::to_chars(elapsed.data(), elapsed.data() + elapsed.size(),
                                 platform::millisecondsSince(start), std::chars_format::fixed, 3);
  std::string line;
  line.reserve(intro.size() + 40);
  line.append(intro).append(" -> ").append(std::to_string(status)).append(" (");
  line.append(elapsed.data(), end.ptr).append("ms)");
  platform::printLine(line);
}

}  // namespace

api::Middleware requestLogger() {
  return [](api::Context& context, const api::Request& request, const api::Handler& next) {
    api::Response response = next(context, request);
    std::string intro = '[' + context.request_id + "] " + request.method + ' ' + request.path;
    whenDone(response, [intro = std::move(intro), start = context.start_time](int status) {
      logRequest(intro, start, status);
    });
    return response;
  };
}

api::Middleware requestMetrics(metrics::MetricsCollector& collector) {
  return
      [&collector](api::Context& context, const api::Request& request, const api::Handler& next) {
        api::Response response = next(context, request);
        for (const std::string_view uncounted : kUncounted) {
          if (context.route == uncounted) return response;
        }
        whenDone(response, [&collector, method = request.method, route = context.route,
                            start = context.start_time](int status) {
          collector.recordHttpRequest(method, route, status,
                                      platform::millisecondsSince(start) / 1000.0);
        });
        return response;
      };
}

}  // namespace tavrel::controller
