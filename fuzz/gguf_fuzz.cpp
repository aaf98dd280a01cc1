#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>

#include "pipeline/gguf_parser.h"
#include "pipeline/shard_planner.h"

// Whatever a model file contains: it is read or refused, and what was read can be planned with.
namespace {

using namespace tavrel::pipeline;

void check(bool holds) {
  if (!holds) std::abort();
}

/// The input as a file in memory, with a path of its own. One for all inputs.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(::memfd_create("model", MFD_CLOEXEC)) { check(descriptor_ >= 0); }
  void write(const std::uint8_t* data, std::size_t size, std::size_t with_hole) {
    check(::ftruncate(descriptor_, 0) == 0);
    check(::pwrite(descriptor_, data, size, 0) == static_cast<ssize_t>(size));
    check(::ftruncate(descriptor_, static_cast<off_t>(size + with_hole)) == 0);
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

void checkShards(const GGUFModelMetadata& meta, const std::vector<ShardAssignment>& shards) {
  std::int32_t next = 0;
  for (const ShardAssignment& shard : shards) {
    check(shard.layer_start == next && shard.layer_end >= next);
    next = shard.layer_end;
    shard.toJson().dump();
  }
  check(shards.empty() || next == meta.block_count);
}

void plan(const GGUFModelMetadata& meta) {
  // Sizes from the file serve as VRAM, so that the shares are as odd as they can be.
  std::vector<WorkerVram> workers;
  for (const std::uint64_t vram : {meta.model_size_bytes, meta.embed_offset, meta.output_size}) {
    workers.emplace_back("w", vram);
    checkShards(meta, computeShardAssignments(meta, workers, ShardStrategy::kVramProportional));
    checkShards(meta, computeShardAssignments(meta, workers, ShardStrategy::kBalanced));
  }
  const auto manual = computeManualAssignments(
      meta, workers,
      {std::int64_t{meta.head_count}, LayerSpan{meta.head_count, meta.vocab_size},
       std::int64_t{meta.context_length}});
  if (const auto* shards = std::get_if<0>(&manual)) checkShards(meta, *shards);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static MemoryFile file;
  // The second time with nothing behind it, which makes room for counts. A terabyte makes room for
  // most of them; that takes long, so only some inputs get it.
  const std::size_t room = size % 64 == 0 ? std::size_t{1} << 40 : 4096;
  for (const std::size_t hole : {std::size_t{0}, room}) {
    file.write(data, size, hole);
    GGUFModelMetadata meta;
    std::string reason;
    const bool read = GGUFParser::parseMetadata(file.path(), meta, reason);
    check(read == reason.empty());
    if (!read) continue;
    check(meta.header_bytes <= meta.file_size_bytes && meta.block_count >= 0);
    check(meta.layer_ranges.size() <= meta.tensors.size());
    for (const LayerRange& range : meta.layer_ranges) {
      check(range.layer >= 0 && range.first_offset <= range.end_offset);
    }
    for (const GGUFTensorInfo& tensor : meta.tensors) nlohmann::json(tensor.name).dump();
    nlohmann::json({meta.architecture, meta.name}).dump();
    plan(meta);
  }
  return 0;
}
