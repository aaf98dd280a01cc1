#include "pipeline/gguf_parser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "pipeline/byte_reader.h"
#include "pipeline/gguf_limits.h"
#include "pipeline/gguf_value_reader.h"
#include "pipeline/saturating.h"
#include "platform/text.h"

namespace tavrel::pipeline {
namespace {

constexpr std::string_view kMagic = "GGUF";
constexpr std::string_view kTokensKey = "tokenizer.ggml.tokens";
/// The least that a key with its value, or the description of a tensor, takes in the file.
constexpr std::uint64_t kLeastKeyBytes = 13;
constexpr std::uint64_t kLeastTensorBytes = 24;
/// Tensor data begins at a multiple of this.
constexpr std::uint64_t kAlignment = 32;

struct IntegerKey {
  std::string_view part;  ///< of the key
  std::int32_t GGUFModelMetadata::*field;
};

/// The first that a key contains decides.
constexpr std::array<IntegerKey, 6> kIntegerKeys = {{
    {".block_count", &GGUFModelMetadata::block_count},
    {".embedding_length", &GGUFModelMetadata::embedding_length},
    {".attention.head_count_kv", &GGUFModelMetadata::head_count_kv},
    {".attention.head_count", &GGUFModelMetadata::head_count},
    {".context_length", &GGUFModelMetadata::context_length},
    {".vocab_size", &GGUFModelMetadata::vocab_size},
}};

struct TensorType {
  std::string_view name;
  std::uint64_t half_bits;  ///< per element, in halves of a bit
};

constexpr TensorType kUnknownType = {"unknown", 32};

/// By the type's number. The k-quants 10 and 11, and all from 15 on, are costed like f16: an
/// estimate that is too large leaves memory unused, one that is too small fails the load.
constexpr std::array<TensorType, 30> kTensorTypes = {{
    {"f32", 64},     {"f16", 32},   {"q4_0", 9},    {"q4_1", 10},  kUnknownType,    kUnknownType,
    {"q5_0", 11},    {"q5_1", 12},  {"q8_0", 17},   {"q8_1", 18},  {"q2_k", 32},    {"q3_k", 32},
    {"q4_k", 9},     {"q5_k", 11},  {"q6_k", 13},   kUnknownType,  {"iq2_xxs", 32}, {"iq2_xs", 32},
    {"iq3_xxs", 32}, {"iq1_s", 32}, {"iq4_nl", 32}, {"iq3_s", 32}, {"iq2_s", 32},   {"iq4_xs", 32},
    {"i8", 32},      {"i16", 32},   {"i32", 32},    {"i64", 32},   {"f64", 32},     {"iq1_m", 32},
}};

/// Tried in this order, so that "BF16" in a name is taken for "F16".
constexpr std::array<std::string_view, 15> kQuantizationTags = {
    "Q8_0",   "Q6_K", "Q5_K_M", "Q5_K_S",  "Q4_K_M", "Q4_K_S", "Q4_0", "Q3_K_M",
    "Q3_K_S", "Q2_K", "IQ4_XS", "IQ3_XXS", "F16",    "F32",    "BF16"};

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::uint64_t estimatedBytes(const std::vector<std::uint64_t>& dims, std::uint64_t half_bits) {
  std::uint64_t elements = 1;
  for (const std::uint64_t length : dims) elements = saturatingMultiply(elements, length);
  // Sixteen elements of half a bit each are a byte.
  return saturatingAdd(saturatingMultiply(elements / 16, half_bits),
                       elements % 16 * half_bits / 16);
}

/// Takes in one header, front to back.
class HeaderReader {
 public:
  HeaderReader(ByteReader& bytes, GGUFModelMetadata& meta)
      : bytes_(bytes), values_(bytes), meta_(meta) {}

  void read() {
    if (bytes_.remaining() < kMagic.size() || bytes_.view(kMagic.size()) != kMagic) {
      throw FileError("not a GGUF file");
    }
    const auto version = bytes_.number<std::uint32_t>();
    if (version != 2 && version != 3) {
      throw FileError("GGUF version " + std::to_string(version) + " is not supported");
    }
    const auto tensors = bytes_.number<std::uint64_t>();
    const auto keys = bytes_.number<std::uint64_t>();
    if (tensors > std::min(kMaxTensors, bytes_.remaining() / kLeastTensorBytes)) {
      throw FileError("too many tensors: " + std::to_string(tensors));
    }
    if (keys > std::min(kMaxKeys, bytes_.remaining() / kLeastKeyBytes)) {
      throw FileError("too many keys: " + std::to_string(keys));
    }
    for (std::uint64_t i = 0; i < keys; ++i) readKey();
    for (std::uint64_t i = 0; i < tensors; ++i) readTensor();
    meta_.header_bytes = bytes_.position();
    placeTensors();
  }

 private:
  /// Empty for a name that is too long. Valid until something else is read.
  std::string_view readName() {
    const std::string_view name = values_.readString().value_or("");
    name_bytes_ += name.size();
    if (name_bytes_ > kMaxNameBytes) throw FileError("the names are too long");
    return name;
  }

  void readKey() {
    const std::string_view key = readName();
    if (key == "general.architecture") {
      readInto(meta_.architecture);
    } else if (key == "general.name") {
      readInto(meta_.name);
    } else if (const auto* known = std::find_if(
                   kIntegerKeys.begin(), kIntegerKeys.end(),
                   [&](const IntegerKey& candidate) { return contains(key, candidate.part); });
               known != kIntegerKeys.end()) {
      if (const auto value = values_.readInt(values_.readType())) meta_.*known->field = *value;
    } else if (key == kTokensKey) {
      readTokens();
    } else {
      values_.skipTypedValue(values_.readType());
    }
  }

  void readInto(std::string& text) {
    if (auto value = values_.readText(values_.readType())) text = std::move(*value);
  }

  /// How many tokens there are is all that matters.
  void readTokens() {
    const GGUFValueType type = values_.readType();
    if (type == GGUFValueType::kArray) {
      const GGUFValueReader::Array tokens = values_.readArray();
      meta_.vocab_size = saturatingInt32(tokens.count);
      values_.skipElements(tokens);
    } else if (const auto value = values_.readInt(type)) {
      meta_.vocab_size = *value;
    }
  }

  void readTensor() {
    GGUFTensorInfo tensor;
    tensor.name = platform::replaceInvalidUtf8(readName());
    const auto dimensions = bytes_.number<std::uint32_t>();
    if (dimensions > kMaxTensorDimensions) {
      throw FileError("a tensor has " + std::to_string(dimensions) + " dimensions");
    }
    tensor.dims.resize(dimensions);
    for (std::uint64_t& length : tensor.dims) length = bytes_.number<std::uint64_t>();
    const auto number = bytes_.number<std::uint32_t>();
    const TensorType& type = number < kTensorTypes.size() ? kTensorTypes[number] : kUnknownType;
    tensor.type_name = type.name;
    tensor.size_bytes = estimatedBytes(tensor.dims, type.half_bits);
    tensor.offset = bytes_.number<std::uint64_t>();
    meta_.tensors.push_back(std::move(tensor));
  }

  void placeTensors() {
    const std::uint64_t data_start =
        (meta_.header_bytes + kAlignment - 1) / kAlignment * kAlignment;
    for (GGUFTensorInfo& tensor : meta_.tensors) {
      tensor.offset = saturatingAdd(tensor.offset, data_start);
      meta_.model_size_bytes = saturatingAdd(meta_.model_size_bytes, tensor.size_bytes);
    }
    if (meta_.model_size_bytes == 0) meta_.model_size_bytes = meta_.file_size_bytes;
  }

  ByteReader& bytes_;
  GGUFValueReader values_;
  GGUFModelMetadata& meta_;
  std::uint64_t name_bytes_ = 0;  ///< of all keys and tensors so far
};

constexpr std::string_view kLayerPrefix = "blk.";

/// 7 for "blk.7.attn_q.weight"; nothing when there is no number that counts layers.
std::optional<std::int32_t> layerOf(std::string_view tensor_name) {
  if (!tensor_name.starts_with(kLayerPrefix)) return {};
  tensor_name.remove_prefix(kLayerPrefix.size());
  const std::string_view digits = tensor_name.substr(0, tensor_name.find('.'));
  if (digits.size() == tensor_name.size() || digits.starts_with('-')) return {};
  std::int32_t layer = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), layer);
  if (read.ec != std::errc{} || read.ptr != digits.data() + digits.size()) return {};
  return layer;
}

void include(LayerRange& range, const GGUFTensorInfo& tensor) {
  const std::uint64_t end = saturatingAdd(tensor.offset, tensor.size_bytes);
  range.first_offset =
      range.end_offset == 0 ? tensor.offset : std::min(range.first_offset, tensor.offset);
  range.end_offset = std::max(range.end_offset, end);
  range.total_bytes = saturatingAdd(range.total_bytes, tensor.size_bytes);
}

}  // namespace

bool GGUFParser::parseMetadata(const std::string& path, GGUFModelMetadata& out) {
  std::string reason;
  return parseMetadata(path, out, reason);
}

bool GGUFParser::parseMetadata(const std::string& path, GGUFModelMetadata& out,
                               std::string& reason) {
  GGUFModelMetadata meta;
  try {
    ByteReader bytes(path, kMaxHeaderBytesRead);
    meta.file_path = path;
    meta.file_name = path.substr(path.rfind('/') + 1);  // npos + 1 is 0
    meta.file_size_bytes = bytes.size();
    HeaderReader(bytes, meta).read();
  } catch (const FileError& error) {
    reason = error.what();
    return false;
  }
  detectQuantization(meta);
  computeLayerRanges(meta);
  out = std::move(meta);
  return true;
}

void GGUFParser::detectQuantization(GGUFModelMetadata& meta) {
  const std::string name = platform::toLower(meta.file_name);
  for (const std::string_view tag : kQuantizationTags) {
    if (contains(name, platform::toLower(tag))) {
      meta.quantization = tag;
      return;
    }
  }
  std::map<std::string_view, std::size_t> uses;
  for (const GGUFTensorInfo& tensor : meta.tensors) ++uses[tensor.type_name];
  const auto most = std::max_element(
      uses.begin(), uses.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
  meta.quantization = most == uses.end() ? "" : std::string(most->first);
}

void GGUFParser::computeLayerRanges(GGUFModelMetadata& meta) {
  meta.layer_ranges.clear();
  meta.output_size = 0;
  if (meta.block_count <= 0) return;
  std::map<std::int32_t, LayerRange> layers;
  std::optional<std::uint64_t> output_offset;
  for (const GGUFTensorInfo& tensor : meta.tensors) {
    const std::string_view name = tensor.name;
    if (const auto layer = layerOf(name)) include(layers[*layer], tensor);
    if (contains(name, "token_embd") || contains(name, "embed_tokens")) {
      meta.embed_offset = tensor.offset;
      meta.embed_size = tensor.size_bytes;
    }
    // The attention output of a layer belongs to the layer.
    if (!name.starts_with(kLayerPrefix) &&
        (contains(name, "output") || contains(name, "lm_head"))) {
      output_offset = std::min(output_offset.value_or(tensor.offset), tensor.offset);
      meta.output_size = saturatingAdd(meta.output_size, tensor.size_bytes);
    }
  }
  meta.output_offset = output_offset.value_or(0);
  for (auto& [layer, range] : layers) {
    range.layer = layer;
    meta.layer_ranges.push_back(range);
  }
}

}  // namespace tavrel::pipeline
