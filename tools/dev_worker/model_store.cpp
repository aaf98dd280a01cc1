#include "dev_worker/model_store.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::dev_worker {
namespace {

void append(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i) & 0xff);
}

void appendText(std::string& out, std::string_view text) {
  append(out, text.size(), 8);
  out += text;
}

void appendTextKey(std::string& out, std::string_view key, std::string_view value) {
  appendText(out, key);
  append(out, 8, 4);
  appendText(out, value);
}

void appendNumberKey(std::string& out, std::string_view key, std::uint32_t value) {
  appendText(out, key);
  append(out, 4, 4);
  append(out, value, 4);
}

/// A model file that says what it is and holds no tensors.
std::string emptyModelFile(const std::string& name) {
  std::string file = "GGUF";
  append(file, 3, 4);  // version
  append(file, 0, 8);  // tensors
  append(file, 4, 8);  // keys
  appendTextKey(file, "general.architecture", "llama");
  appendTextKey(file, "general.name", name);
  appendNumberKey(file, "llama.block_count", 32);
  appendNumberKey(file, "llama.embedding_length", 4096);
  return file;
}

auto isOf(const std::string& pipeline_id) {
  return [&](const LoadedShard& shard) { return shard.pipeline_id == pipeline_id; };
}

}  // namespace

ModelStore::ModelStore(const std::vector<std::string>& models) {
  for (const std::string& name : models) addFromLibrary(name);
}

std::vector<std::string> ModelStore::names() const {
  std::vector<std::string> names;
  const platform::MutexLock lock(mu_);
  for (const StoredModelPtr& model : models_) names.push_back(model->name);
  return names;
}

StoredModelPtr ModelStore::find(const std::string& name) const {
  const platform::MutexLock lock(mu_);
  const auto found = std::find_if(models_.begin(), models_.end(),
                                  [&](const StoredModelPtr& model) { return model->name == name; });
  return found == models_.end() ? nullptr : *found;
}

void ModelStore::add(StoredModel model) {
  auto stored = std::make_shared<const StoredModel>(std::move(model));
  const platform::MutexLock lock(mu_);
  for (StoredModelPtr& known : models_) {
    if (known->name != stored->name) continue;
    known = std::move(stored);
    return;
  }
  models_.push_back(std::move(stored));
}

void ModelStore::addFromLibrary(const std::string& name) {
  add({name, "gguf", emptyModelFile(name)});
}

void ModelStore::loadShard(LoadedShard shard) {
  const platform::MutexLock lock(mu_);
  std::erase_if(shards_, isOf(shard.pipeline_id));
  shards_.push_back(std::move(shard));
}

bool ModelStore::unloadShard(const std::string& pipeline_id) {
  const platform::MutexLock lock(mu_);
  return std::erase_if(shards_, isOf(pipeline_id)) > 0;
}

nlohmann::json ModelStore::shardReports() const {
  nlohmann::json reports = nlohmann::json::array();
  const platform::MutexLock lock(mu_);
  for (const LoadedShard& shard : shards_) {
    reports.push_back({{"pipeline_id", shard.pipeline_id},
                       {"layer_start", shard.layer_start},
                       {"layer_end", shard.layer_end},
                       {"status", "ready"}});
  }
  return reports;
}

}  // namespace tavrel::dev_worker
