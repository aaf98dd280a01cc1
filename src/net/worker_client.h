#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "net/http_client.h"

namespace tavrel::net {

/// What a daemon is asked to do. Decides how long that may take and how much it may answer.
enum class CallKind : std::uint8_t {
  kPullInBackground,  ///< pull a model, for a pull job
  kPull,              ///< pull a model while a client waits
  kInstall,           ///< install a model from a URL while a client waits
  kDescribeModel,     ///< look a model up
  kModelServer,       ///< ask the model server of a machine about a model
  kModelRegistry,     ///< read or delete registry entries
  kModelUpload,       ///< register a model
  kSubmitTraining,    ///< hand over a training job
  kTrainingJobs,      ///< look at training jobs, or cancel one
  kLoadShard,         ///< take a shard of a pipeline
  kUnloadShard,       ///< let go of one
  kPipelineMetadata,  ///< the shape of a model
  kTenants,           ///< look at, make, change or remove tenants
};

struct CallLimits {
  Timeouts timeouts;
  std::size_t max_answer_bytes;
};

/// The limits of every kind of call, in one table.
const CallLimits& limitsOf(CallKind kind);

/// Calls to the HTTP interfaces of daemons. URLs come from registrations and are http or https;
/// whoever builds one percent-encodes the ids and names in it. Nothing of the caller's request
/// travels on: no credentials, no cookies.
///
/// Threads: any. Calls block and are never made with a lock held; they end early when the
/// HttpClient is cancelled. Failure: told by HttpResult, nothing throws.
class WorkerClient {
 public:
  /// `http` must outlive this.
  explicit WorkerClient(HttpClient& http) : http_(http) {}

  HttpResult get(CallKind kind, const std::string& url);
  /// POST with "Content-Type: application/json".
  HttpResult post(CallKind kind, const std::string& url, const nlohmann::json& body);
  HttpResult post(CallKind kind, const std::string& url, std::string json_text);
  /// PUT with "Content-Type: application/json".
  HttpResult put(CallKind kind, const std::string& url, std::string json_text);
  HttpResult del(CallKind kind, const std::string& url);

 private:
  HttpResult send(CallKind kind, const char* method, const std::string& url, std::string body);

  HttpClient& http_;
};

/// A daemon's text as JSON; discarded when it is not JSON. Bytes that are not UTF-8 are replaced.
nlohmann::json parsedJson(const std::string& text);

/// {"raw_response": text}, for a daemon's text that is not the JSON it should be.
nlohmann::json rawResponse(const std::string& text);

/// Whether what came back can be passed on as an answer of ours: a final status (200 to 599) and
/// not 304, which answers a condition that was never set.
bool canBePassedOn(const HttpResult& result);

/// Why the call failed: the transport's text or "HTTP " and the status; empty for status 200.
std::string failureOf(const HttpResult& result);

/// The same, or the "error" member of an object that was answered with status 200: some daemons
/// report their failures so.
std::string reportedFailure(const HttpResult& result);

}  // namespace tavrel::net
