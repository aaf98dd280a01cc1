#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What is known of a model from the header of its GGUF file. Plain values. Numbers that the file
// makes too large for their type are the largest that fits.
namespace tavrel::pipeline {

struct GGUFTensorInfo {
  std::string name;              ///< UTF-8
  std::uint64_t offset = 0;      ///< of the data, from the start of the file
  std::uint64_t size_bytes = 0;  ///< estimated from the dimensions and the type
  std::string type_name;         ///< e.g. "q4_k"; "unknown" for a type that is not known
  std::vector<std::uint64_t> dims;
};

/// Where the tensors of one layer are in the file.
struct LayerRange {
  std::int32_t layer = 0;
  std::uint64_t first_offset = 0;
  std::uint64_t end_offset = 0;   ///< behind the last byte
  std::uint64_t total_bytes = 0;  ///< sum of the tensors, which need not lie side by side
};

struct GGUFModelMetadata {
  std::string architecture;  ///< UTF-8, as is `name`
  std::string name;
  std::string file_path;
  std::string file_name;  ///< the path behind its last slash
  std::uint64_t file_size_bytes = 0;
  std::uint64_t header_bytes = 0;  ///< where the header ends
  // Counts are 0 when the file does not tell, and never negative.
  std::int32_t block_count = 0;
  std::int32_t embedding_length = 0;
  std::int32_t head_count = 0;
  std::int32_t head_count_kv = 0;
  std::int32_t vocab_size = 0;
  std::int32_t context_length = 0;
  std::uint64_t model_size_bytes = 0;    ///< of all tensors; of the file when there are none
  std::string quantization;              ///< e.g. "Q4_K_M"; empty when nothing tells
  std::vector<GGUFTensorInfo> tensors;   ///< in the order of the file
  std::vector<LayerRange> layer_ranges;  ///< by layer; layers without tensors are absent
  std::uint64_t embed_offset = 0;
  std::uint64_t embed_size = 0;
  std::uint64_t output_offset = 0;
  std::uint64_t output_size = 0;
};

}  // namespace tavrel::pipeline
