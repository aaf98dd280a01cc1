#include "dev_worker/model_api.h"

#include <sys/mman.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>

#include "pipeline/gguf_parser.h"
#include "platform/console.h"
#include "platform/json_fields.h"

namespace tavrel::dev_worker {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using std::chrono::seconds;

/// Models are kept in memory.
constexpr std::size_t kMaxModelBytes = std::size_t{256} << 20;
constexpr net::Timeouts kDownloadTimeouts{seconds(5), seconds(1800)};

std::string textIn(const Request& request, const char* key) {
  const auto& body = request.json();
  return body ? platform::textMember(*body, key) : "";
}

std::int32_t numberIn(const Request& request, const char* key) {
  const auto& body = request.json();
  const json* value = body && body->is_object() ? platform::jsonMember(*body, key) : nullptr;
  return value != nullptr && value->is_number() ? platform::jsonNumber<std::int32_t>(*value) : 0;
}

json entryOf(const StoredModel& model) {
  return {{"id", model.name},
          {"name", model.name},
          {"format", model.format},
          {"backend", "custom"},
          {"size", model.bytes.size()}};
}

/// The shape of the model in a file that exists only in memory.
bool readShape(const std::string& bytes, pipeline::GGUFModelMetadata& shape) {
  const int file = ::memfd_create("model", MFD_CLOEXEC);
  if (file < 0) return false;
  const bool read =
      ::write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
      pipeline::GGUFParser::parseMetadata("/proc/self/fd/" + std::to_string(file), shape);
  ::close(file);
  return read;
}

struct ModelApi {
  const Options& options;
  ModelStore& store;
  net::HttpClient& client;

  Response pull(const Request& request) const {
    const std::string model = textIn(request, "model");
    if (auto refusal = refuseToAdd(model)) return *refusal;
    std::this_thread::sleep_for(options.pull_time);
    store.addFromLibrary(model);
    platform::printLine("[DevWorker] Pulled " + model);
    return Response::ok({{"status", "success"}, {"model", model}});
  }

  Response install(const Request& request) const {
    const std::string model = textIn(request, "model");
    if (auto refusal = refuseToAdd(model)) return *refusal;
    net::HttpCall call;
    call.url = textIn(request, "source_url");
    call.max_answer_bytes = kMaxModelBytes;
    if (!net::isHttpUrl(call.url)) return Response::error(400, "source_url is required");
    net::HttpResult file = client.send(call, kDownloadTimeouts);
    if (!file.ok()) {
      return Response::error(502, file.transport_error.empty()
                                      ? "The source answered " + std::to_string(file.status)
                                      : file.transport_error);
    }
    const std::size_t size = file.body.size();
    const std::string format = textIn(request, "format");
    store.add({model, format.empty() ? "gguf" : format, std::move(file.body)});
    platform::printLine("[DevWorker] Installed " + model);
    return Response::ok({{"status", "installed"}, {"model", model}, {"size", size}});
  }

  Response list() const {
    json models = json::array();
    for (const std::string& name : store.names()) {
      if (const StoredModelPtr model = store.find(name)) models.push_back(entryOf(*model));
    }
    const std::size_t count = models.size();
    return Response::ok({{"models", std::move(models)}, {"count", count}});
  }

  template <class Answer>
  Response withModel(const std::string& name, const Answer& answer) const {
    const StoredModelPtr model = store.find(name);
    return model == nullptr ? Response::error(404, "Model not found") : answer(*model);
  }

  static Response entry(const StoredModel& model) { return Response::ok(entryOf(model)); }
  static Response download(const StoredModel& model) {
    return Response::text(model.bytes, "application/octet-stream");
  }
  static Response metadata(const StoredModel& model) {
    pipeline::GGUFModelMetadata shape;
    if (!readShape(model.bytes, shape)) return Response::error(422, "Not a model file");
    return Response::ok({{"total_layers", shape.block_count},
                         {"hidden_size", shape.embedding_length},
                         {"architecture", shape.architecture},
                         {"quantization", shape.quantization},
                         {"file_size_bytes", shape.file_size_bytes},
                         {"embed_size", shape.embed_size},
                         {"output_size", shape.output_size},
                         {"gguf_path", model.name},
                         {"filename", model.name}});
  }

  Response loadShard(const Request& request) const {
    const std::string id = textIn(request, "pipeline_id");
    if (id.empty()) return Response::error(400, "pipeline_id is required");
    store.loadShard({id, numberIn(request, "layer_start"), numberIn(request, "layer_end")});
    platform::printLine("[DevWorker] Loaded a shard of " + id);
    return Response::ok({{"status", "loading"}, {"pipeline_id", id}});
  }

  Response unloadShard(const Request& request) const {
    const std::string id = textIn(request, "pipeline_id");
    if (!store.unloadShard(id)) return Response::error(404, "No shard of this pipeline");
    platform::printLine("[DevWorker] Unloaded the shard of " + id);
    return Response::ok({{"status", "unloaded"}, {"pipeline_id", id}});
  }

 private:
  std::optional<Response> refuseToAdd(const std::string& model) const {
    if (model.empty()) return Response::error(400, "model is required");
    if (options.upstream.empty()) return std::nullopt;
    return Response::error(400, "The models of this worker are those of its upstream");
  }
};

}  // namespace

void addModelApi(api::HttpServer& server, const Options& options, ModelStore& store,
                 net::HttpClient& client) {
  const ModelApi h{options, store, client};
  server.post("/api/v1/models/pull", [h](auto&, auto& req) { return h.pull(req); });
  server.post("/api/v1/models/install", [h](auto&, auto& req) { return h.install(req); });
  server.post("/api/v1/models/show", [h](auto&, auto& req) {
    return h.withModel(textIn(req, "model"), &ModelApi::entry);
  });
  server.get("/api/v1/models", [h](auto&, auto&) { return h.list(); });
  server.get("/api/v1/models/:model", [h](auto&, auto& req) {
    return h.withModel(req.getPathParam("model"), &ModelApi::entry);
  });
  server.get("/api/v1/models/:model/download", [h](auto&, auto& req) {
    return h.withModel(req.getPathParam("model"), &ModelApi::download);
  });
  server.get("/api/v1/models/:model/metadata", [h](auto&, auto& req) {
    return h.withModel(req.getPathParam("model"), &ModelApi::metadata);
  });
  server.post("/api/v1/pipeline/load", [h](auto&, auto& req) { return h.loadShard(req); });
  server.post("/api/v1/pipeline/unload", [h](auto&, auto& req) { return h.unloadShard(req); });
}

}  // namespace tavrel::dev_worker
