#include "inference/model_catalogue.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/side_by_side.h"

namespace tavrel::inference {
namespace {

nlohmann::json entryFor(const std::string& name, std::string_view owner, std::string_view source) {
  return {
      {"id", name}, {"name", name}, {"object", "model"}, {"owned_by", owner}, {"source", source}};
}

std::map<std::string, std::vector<std::string>> workersByModel(
    const worker::WorkerRegistry& workers) {
  std::map<std::string, std::vector<std::string>> by_model;
  for (const worker::WorkerPtr& worker : workers.snapshot()) {
    if (worker->status != worker::WorkerStatus::kOnline) continue;
    for (const std::string& model : worker->capabilities.installed_models) {
      auto& ids = by_model[model];
      if (ids.empty() || ids.back() != worker->worker_id) ids.push_back(worker->worker_id);
    }
  }
  return by_model;
}

}  // namespace

ModelCatalogue::ModelCatalogue(const worker::WorkerRegistry& workers, LocalModelServer& local,
                               net::HttpClient& http, Remotes remotes)
    : workers_(workers), local_(local), http_(http), remotes_(std::move(remotes)) {}

nlohmann::json ModelCatalogue::openAiList() const {
  std::vector<std::string> names = workers_.onlineModels();
  const char* owner = "cluster";
  if (names.empty()) {
    owner = "local";
    for (LocalModel& model : local_.listModels()) names.push_back(std::move(model.name));
    std::sort(names.begin(), names.end());
  }
  nlohmann::json data = nlohmann::json::array();
  for (const std::string& name : names) {
    data.push_back({{"id", name}, {"object", "model"}, {"owned_by", owner}});
  }
  return {{"object", "list"}, {"data", std::move(data)}};
}

nlohmann::json ModelCatalogue::detailedList(bool own_only) const {
  const std::vector<RemoteCatalogue> remotes =
      own_only ? std::vector<RemoteCatalogue>() : remotes_();
  std::vector<std::vector<Foreign>> foreign(remotes.size());
  std::vector<LocalModel> local;
  std::vector<std::function<void()>> jobs = {[&] { local = local_.listModels(); }};
  for (std::size_t i = 0; i < remotes.size(); ++i) {
    jobs.emplace_back([&, i] { foreign[i] = ask(remotes[i]); });
  }
  platform::runSideBySide(jobs, kMaxCallsAtOnce, kAskingTime);

  nlohmann::json models = nlohmann::json::array();
  std::set<std::string> listed;
  for (auto& [name, ids] : workersByModel(workers_)) {
    nlohmann::json& entry = models.emplace_back(entryFor(name, "cluster", "worker"));
    entry["worker_count"] = ids.size();
    entry["workers"] = std::move(ids);
    listed.insert(name);
  }
  const auto add = [&](const std::string& name, const std::optional<std::uint64_t>& size_bytes,
                       nlohmann::json entry) {
    if (!listed.insert(name).second) return;
    if (size_bytes) entry["size"] = *size_bytes;
    models.push_back(std::move(entry));
  };
  const auto add_foreign = [&](bool after_local) {
    for (std::size_t i = 0; i < remotes.size(); ++i) {
      const RemoteCatalogue& remote = remotes[i];
      if (remote.after_local != after_local) continue;
      for (const Foreign& model : foreign[i]) {
        add(model.name, model.size_bytes, entryFor(model.name, remote.owned_by, remote.source));
      }
    }
  };
  add_foreign(/*after_local=*/false);
  for (const LocalModel& model : local) {
    nlohmann::json entry = entryFor(model.name, "local", "local");
    entry["worker"] = "local";
    add(model.name, model.size_bytes, std::move(entry));
  }
  add_foreign(/*after_local=*/true);
  const std::size_t count = models.size();
  return {{"models", std::move(models)}, {"object", "list"}, {"count", count}};
}

std::vector<ModelCatalogue::Foreign> ModelCatalogue::ask(const RemoteCatalogue& remote) const {
  net::HttpCall call;
  call.url = remote.url;
  call.max_answer_bytes = std::size_t{8} << 20;
  const net::HttpResult result = http_.send(call, {kConnectTimeout, kCallTimeout});
  if (!result.ok()) return {};
  try {
    return readRemoteList(result.body);
  } catch (const std::exception&) {
    return {};  // not a catalogue
  }
}

std::vector<ModelCatalogue::Foreign> ModelCatalogue::readRemoteList(const std::string& body) {
  std::vector<Foreign> models;
  const nlohmann::json document = platform::parseForeignJson(body);
  const nlohmann::json* list =
      document.is_object() ? platform::jsonMember(document, "models") : &document;
  if (list == nullptr || !list->is_array()) return models;
  for (const nlohmann::json& entry : *list) {
    if (!entry.is_object()) continue;
    // Workers know a model by its name; a registry's id for it is something else.
    std::string name = platform::textMember(entry, "name");
    if (name.empty()) name = platform::textMember(entry, "id");
    if (name.empty()) continue;
    Foreign& model = models.emplace_back();
    model.name = std::move(name);
    const nlohmann::json* size = platform::jsonMember(entry, "size");
    if (size != nullptr && size->is_number_unsigned())
      model.size_bytes = size->get<std::uint64_t>();
  }
  return models;
}

}  // namespace tavrel::inference
