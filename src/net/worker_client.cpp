#include "net/worker_client.h"

#include <exception>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::net {
namespace {

using std::chrono::seconds;

constexpr std::size_t kMiB = std::size_t{1} << 20;

constexpr CallLimits limits(seconds connect, seconds total, std::size_t max_answer_bytes) {
  return {{connect, total}, max_answer_bytes};
}

}  // namespace

const CallLimits& limitsOf(CallKind kind) {
  static constexpr CallLimits kLimits[] = {
      limits(seconds(10), seconds(1800), 8 * kMiB),  // kPullInBackground
      limits(seconds(5), seconds(660), 8 * kMiB),    // kPull
      limits(seconds(5), seconds(1860), 8 * kMiB),   // kInstall
      limits(seconds(5), seconds(30), 8 * kMiB),     // kDescribeModel
      limits(seconds(5), seconds(30), 16 * kMiB),    // kModelServer
      limits(seconds(5), seconds(30), 64 * kMiB),    // kModelRegistry
      limits(seconds(5), seconds(300), 8 * kMiB),    // kModelUpload
      limits(seconds(5), seconds(60), 8 * kMiB),     // kSubmitTraining
      limits(seconds(3), seconds(15), 32 * kMiB),    // kTrainingJobs
      limits(seconds(5), seconds(60), kMiB),         // kLoadShard
      limits(seconds(5), seconds(30), kMiB),         // kUnloadShard
      limits(seconds(5), seconds(30), 8 * kMiB),     // kPipelineMetadata
      limits(seconds(3), seconds(15), 32 * kMiB),    // kTenants
  };
  static_assert(std::size(kLimits) == static_cast<std::size_t>(CallKind::kTenants) + 1);
  return kLimits[static_cast<std::size_t>(kind)];
}

HttpResult WorkerClient::get(CallKind kind, const std::string& url) {
  return send(kind, "GET", url, {});
}

HttpResult WorkerClient::post(CallKind kind, const std::string& url, const nlohmann::json& body) {
  return send(kind, "POST", url, platform::dumpJson(body));
}

HttpResult WorkerClient::post(CallKind kind, const std::string& url, std::string json_text) {
  return send(kind, "POST", url, std::move(json_text));
}

HttpResult WorkerClient::put(CallKind kind, const std::string& url, std::string json_text) {
  return send(kind, "PUT", url, std::move(json_text));
}

HttpResult WorkerClient::del(CallKind kind, const std::string& url) {
  return send(kind, "DELETE", url, {});
}

HttpResult WorkerClient::send(CallKind kind, const char* method, const std::string& url,
                              std::string body) {
  const CallLimits& limits = limitsOf(kind);
  HttpCall call;
  call.method = method;
  call.url = url;
  call.max_answer_bytes = limits.max_answer_bytes;
  if (call.method == "POST" || call.method == "PUT")
    call.headers = {{"Content-Type", "application/json"}};
  call.body = std::move(body);
  return http_.send(call, limits.timeouts);
}

nlohmann::json parsedJson(const std::string& text) {
  try {
    return platform::parseForeignJson(text);
  } catch (const std::exception&) {
    return nlohmann::json::value_t::discarded;
  }
}

nlohmann::json rawResponse(const std::string& text) {
  return {{"raw_response", platform::replaceInvalidUtf8(text)}};
}

bool canBePassedOn(const HttpResult& result) {
  return result.transport_error.empty() && result.status >= 200 && result.status <= 599 &&
         result.status != 304;
}

std::string failureOf(const HttpResult& result) {
  if (!result.transport_error.empty()) return result.transport_error;
  return result.status == 200 ? "" : "HTTP " + std::to_string(result.status);
}

std::string reportedFailure(const HttpResult& result) {
  std::string failure = failureOf(result);
  if (!failure.empty()) return failure;
  const nlohmann::json body = parsedJson(result.body);
  const nlohmann::json* error = body.is_object() ? platform::jsonMember(body, "error") : nullptr;
  if (error == nullptr || error->is_null()) return "";
  return error->is_string() ? error->get<std::string>() : platform::dumpJson(*error);
}

}  // namespace tavrel::net
