#include "pipeline/shard_planner.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "pipeline/saturating.h"

namespace tavrel::pipeline {
namespace {

using nlohmann::json;

/// What a worker needs beyond the weights: caches and scratch memory.
constexpr double kVramHeadroom = 1.1;

/// How many layers each worker gets, in their order. The sum is `layers`.
using LayerCounts = std::vector<std::int32_t>;

LayerCounts balancedCounts(std::int32_t layers, std::size_t workers) {
  const auto all = static_cast<std::size_t>(layers);
  LayerCounts counts;
  for (std::size_t i = 0; i < workers; ++i) {
    counts.push_back(static_cast<std::int32_t>(all / workers + (i < all % workers ? 1 : 0)));
  }
  return counts;
}

LayerCounts proportionalCounts(std::int32_t layers, const std::vector<WorkerVram>& workers) {
  double total = 0;
  for (const auto& [id, vram] : workers) total += static_cast<double>(vram);
  if (total == 0) return balancedCounts(layers, workers.size());
  LayerCounts counts;
  std::int32_t left = layers;
  for (std::size_t i = 0; i + 1 < workers.size(); ++i) {
    // Divided first, and at most 1: the share is within the layers, whatever the rounding.
    const double share = static_cast<double>(workers[i].second) / total * layers;
    counts.push_back(std::min(left, std::max(1, static_cast<std::int32_t>(share))));
    left -= counts.back();
  }
  counts.push_back(left);
  return counts;
}

std::uint64_t layerBytes(const GGUFModelMetadata& metadata, std::int32_t count) {
  return saturatingBytes(static_cast<double>(count) / static_cast<double>(metadata.block_count) *
                         static_cast<double>(metadata.model_size_bytes) * kVramHeadroom);
}

/// Shards of so many layers each: the first is the head with the embedding, the last of several
/// the tail with the output.
std::vector<ShardAssignment> shardsOf(const GGUFModelMetadata& metadata,
                                      const std::vector<WorkerVram>& workers,
                                      const LayerCounts& counts) {
  std::vector<ShardAssignment> shards;
  std::int32_t next_layer = 0;
  for (std::size_t i = 0; i < workers.size(); ++i) {
    ShardAssignment shard;
    shard.worker_id = workers[i].first;
    shard.worker_vram_total = workers[i].second;
    shard.layer_start = next_layer;
    next_layer += counts[i];
    shard.layer_end = next_layer;
    shard.estimated_vram_bytes = layerBytes(metadata, counts[i]);
    if (i == 0) {
      shard.role = ShardRole::kHead;
      shard.include_embedding = true;
    } else if (i + 1 == workers.size()) {
      shard.role = ShardRole::kTail;
      shard.include_output = true;
    }
    shards.push_back(std::move(shard));
  }
  return shards;
}

std::optional<std::int64_t> asInteger(const json& value) {
  if (!value.is_number_integer()) return {};
  if (value.is_number_unsigned() &&
      std::cmp_greater(value.get<std::uint64_t>(), std::numeric_limits<std::int64_t>::max())) {
    return std::numeric_limits<std::int64_t>::max();
  }
  return value.get<std::int64_t>();
}

ManualLayers manualEntry(const json& entry) {
  if (const auto count = asInteger(entry)) return *count;
  if (!entry.is_array() || entry.size() != 2) return {};
  const auto start = asInteger(entry[0]);
  const auto end = asInteger(entry[1]);
  if (!start || !end) return {};
  return LayerSpan{*start, *end};
}

/// Why the entry at `index` cannot be had, or nothing; then `end` is where its layers end.
std::string refusal(const ManualLayers& entry, std::size_t index, std::int32_t next_layer,
                    std::int32_t layers, std::int32_t& end) {
  const std::string name = "manual_layers[" + std::to_string(index) + "]";
  std::int64_t count = 0;
  if (const auto* span = std::get_if<LayerSpan>(&entry)) {
    if (span->start != next_layer) {
      return name + " must start at layer " + std::to_string(next_layer) + ", not " +
             std::to_string(span->start);
    }
    if (span->end <= span->start) return name + " must have a layer at least";
    count = span->end - span->start;
  } else {
    count = std::get<std::int64_t>(entry);
    if (count < 1) return name + " must have a layer at least";
  }
  if (count > layers - next_layer) {
    return name + " goes beyond the model's " + std::to_string(layers) + " layers";
  }
  end = next_layer + static_cast<std::int32_t>(count);
  return {};
}

}  // namespace

std::vector<ShardAssignment> computeShardAssignments(const GGUFModelMetadata& metadata,
                                                     const std::vector<WorkerVram>& workers,
                                                     ShardStrategy strategy) {
  if (workers.empty() || metadata.block_count <= 0) return {};
  if (strategy != ShardStrategy::kVramProportional) {
    return shardsOf(metadata, workers, balancedCounts(metadata.block_count, workers.size()));
  }
  auto shards = shardsOf(metadata, workers, proportionalCounts(metadata.block_count, workers));
  ShardAssignment& head = shards.front();
  ShardAssignment& tail = shards.back();
  tail.include_output = true;
  head.estimated_vram_bytes = saturatingAdd(head.estimated_vram_bytes, metadata.embed_size);
  tail.estimated_vram_bytes = saturatingAdd(tail.estimated_vram_bytes, metadata.output_size);
  return shards;
}

std::vector<ManualLayers> manualLayersFromJson(const json& list) {
  if (!list.is_array()) return {ManualLayers{}};
  std::vector<ManualLayers> entries;
  for (const json& entry : list) entries.push_back(manualEntry(entry));
  return entries;
}

std::variant<std::vector<ShardAssignment>, std::string> computeManualAssignments(
    const GGUFModelMetadata& metadata, const std::vector<WorkerVram>& workers,
    const std::vector<ManualLayers>& manual_layers) {
  if (metadata.block_count <= 0) return "the model has no layers";
  for (const ManualLayers& entry : manual_layers) {
    if (std::holds_alternative<std::monostate>(entry)) {
      return "manual_layers must be an array of layer counts or [start, end) pairs";
    }
  }
  if (workers.empty() || manual_layers.size() != workers.size()) {
    return "manual_layers has " + std::to_string(manual_layers.size()) + " entries for " +
           std::to_string(workers.size()) + " workers";
  }
  LayerCounts counts;
  std::int32_t next_layer = 0;
  for (std::size_t i = 0; i < manual_layers.size(); ++i) {
    std::int32_t end = 0;
    auto reason = refusal(manual_layers[i], i, next_layer, metadata.block_count, end);
    if (!reason.empty()) return reason;
    counts.push_back(end - next_layer);
    next_layer = end;
  }
  if (next_layer != metadata.block_count) {
    return "manual_layers covers " + std::to_string(next_layer) + " of the model's " +
           std::to_string(metadata.block_count) + " layers";
  }
  auto shards = shardsOf(metadata, workers, counts);
  shards.back().include_output = true;
  return shards;
}

}  // namespace tavrel::pipeline
