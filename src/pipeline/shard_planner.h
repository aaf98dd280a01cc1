#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "pipeline/gguf_model.h"
#include "pipeline/shard_assignment.h"

// Which worker of a pipeline holds which layers of a model. No state; any thread.
namespace tavrel::pipeline {

/// A worker's id and its VRAM in bytes, 0 when it reported none.
using WorkerVram = std::pair<std::string, std::uint64_t>;

/// A shard per worker, in their order; together they hold every layer once, and whoever finds no
/// layers left gets an empty range. Empty without workers or layers.
///
/// kVramProportional: layers by share of the VRAM; when nobody reported any, as balanced. A single
/// worker gets both embedding and output.
/// kBalanced and kManual: as even as can be, the first workers one more. A single worker is the
/// head and gets no output. Estimates leave out embedding and output.
std::vector<ShardAssignment> computeShardAssignments(const GGUFModelMetadata& metadata,
                                                     const std::vector<WorkerVram>& workers,
                                                     ShardStrategy strategy);

/// Layers [start, end).
struct LayerSpan {
  std::int64_t start = 0;
  std::int64_t end = 0;
};
/// What a caller wants one worker to hold: a number of layers or which ones. Empty for something
/// that is neither.
using ManualLayers = std::variant<std::monostate, std::int64_t, LayerSpan>;

/// Reads [11, 11, 10] or [[0, 11], [11, 22], [22, 32]], or a mixture. What cannot be read becomes
/// an empty entry, which the planning refuses.
std::vector<ManualLayers> manualLayersFromJson(const nlohmann::json& list);

/// The shards that a list with one entry per worker asks for, or why they cannot be. Each worker
/// must get a layer at least, and layers must follow each other in the workers' order. The first
/// shard has the embedding, the last one the output, which is both for a single worker.
std::variant<std::vector<ShardAssignment>, std::string> computeManualAssignments(
    const GGUFModelMetadata& metadata, const std::vector<WorkerVram>& workers,
    const std::vector<ManualLayers>& manual_layers);

}  // namespace tavrel::pipeline
