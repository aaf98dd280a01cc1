#include "pipeline/gguf_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <filesystem>

#include "pipeline/gguf_limits.h"
#include "support/gguf_file.h"
#include "support/process.h"

namespace tavrel::pipeline {
namespace {

using test::GgufFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GgufParserTest : public ::testing::Test {
 protected:
  /// Writes the file and reads it; a failure of either fails the test.
  GGUFModelMetadata parsed(const GgufFile& file, const std::string& name = "model.gguf") {
    const std::string path = directory_.file(name);
    file.write(path);
    GGUFModelMetadata meta;
    std::string reason;
    EXPECT_TRUE(GGUFParser::parseMetadata(path, meta, reason)) << reason;
    return meta;
  }

  test::TempDirectory directory_;
};

TEST_F(GgufParserTest, ReadsTheShapeOfAModel) {
  GgufFile file;
  file.version = 2;
  file.text("general.architecture", "qwen2")
      .text("general.name", "Some Model")
      .number("general.quantization_version", 2)
      .number("qwen2.block_count", 28)
      .number("qwen2.embedding_length", 3584)
      .number("qwen2.attention.head_count", 28)
      .number("qwen2.attention.head_count_kv", 4)
      .number("qwen2.context_length", 32768)
      .number("qwen2.vocab_size", 152064);
  const GGUFModelMetadata meta = parsed(file, "shape.gguf");
  EXPECT_EQ(meta.architecture, "qwen2");
  EXPECT_EQ(meta.name, "Some Model");
  EXPECT_EQ(meta.block_count, 28);
  EXPECT_EQ(meta.embedding_length, 3584);
  EXPECT_EQ(meta.head_count, 28);
  EXPECT_EQ(meta.head_count_kv, 4);
  EXPECT_EQ(meta.context_length, 32768);
  EXPECT_EQ(meta.vocab_size, 152064);
  EXPECT_EQ(meta.file_name, "shape.gguf");
  EXPECT_EQ(meta.file_size_bytes, file.bytes().size());
  EXPECT_EQ(meta.header_bytes, file.bytes().size());
  EXPECT_EQ(meta.model_size_bytes, meta.file_size_bytes) << "no tensors, so the file's size";
}

TEST_F(GgufParserTest, WhatStandsBehindTheTokensIsReadToo) {
  GgufFile file;
  file.texts("tokenizer.ggml.tokens", 70'000, "token")  // more than a buffer
      .key("tokenizer.ggml.scores", GgufFile::kArray,
           GgufFile::arrayHead(GgufFile::kFloat32, 70'000) + std::string(280'000, 'x'))
      .key("nested", GgufFile::kArray,
           GgufFile::arrayHead(GgufFile::kArray, 3) + GgufFile::arrayHead(GgufFile::kString, 2) +
               GgufFile::string("a") + GgufFile::string("") +
               GgufFile::arrayHead(GgufFile::kArray, 0) +
               GgufFile::arrayHead(GgufFile::kUint16, 3) + "123456")
      .text("general.name", "last")
      .tensor("output.weight", {64}, 0, 0);
  const GGUFModelMetadata meta = parsed(file);
  EXPECT_EQ(meta.vocab_size, 70'000);
  EXPECT_EQ(meta.name, "last");
  ASSERT_EQ(meta.tensors.size(), 1U);
  EXPECT_EQ(meta.tensors[0].name, "output.weight");
}

TEST_F(GgufParserTest, CountsOfEveryTypeAreRead) {
  const auto context = [&](std::uint32_t type, std::uint64_t value, std::size_t size) {
    GgufFile file;
    file.key("x.context_length", type, GgufFile::little(value, size)).text("general.name", "next");
    const GGUFModelMetadata meta = parsed(file);
    EXPECT_EQ(meta.name, "next") << "type " << type;
    return meta.context_length;
  };
  EXPECT_EQ(context(GgufFile::kUint8, 200, 1), 200);
  EXPECT_EQ(context(GgufFile::kInt8, 100, 1), 100);
  EXPECT_EQ(context(GgufFile::kInt8, 200, 1), 0) << "negative";
  EXPECT_EQ(context(GgufFile::kUint16, 60'000, 2), 60'000);
  EXPECT_EQ(context(GgufFile::kInt16, 60'000, 2), 0);
  EXPECT_EQ(context(GgufFile::kInt32, 8192, 4), 8192);
  EXPECT_EQ(context(GgufFile::kInt32, 0xffffffff, 4), 0);
  EXPECT_EQ(context(GgufFile::kUint32, 0xffffffff, 4), INT32_MAX);
  EXPECT_EQ(context(GgufFile::kUint64, UINT64_MAX, 8), INT32_MAX);
  EXPECT_EQ(context(GgufFile::kInt64, UINT64_MAX, 8), 0);
  EXPECT_EQ(context(GgufFile::kBool, 1, 1), 1);
  EXPECT_EQ(context(GgufFile::kFloat32, std::bit_cast<std::uint32_t>(4096.9F), 4), 4096);
  EXPECT_EQ(context(GgufFile::kFloat64, std::bit_cast<std::uint64_t>(1e300), 8), INT32_MAX);
  EXPECT_EQ(context(GgufFile::kFloat64, 0x7ff8000000000000, 8), 0) << "not a number";
}

TEST_F(GgufParserTest, ValuesOfAnotherTypeAreSkipped) {
  GgufFile file;
  file.text("x.block_count", "many")
      .key("x.attention.head_count", GgufFile::kArray,
           GgufFile::arrayHead(GgufFile::kInt32, 2) + GgufFile::u64(0))
      .key("general.architecture", GgufFile::kInt32, GgufFile::u32(0xfffffffe))
      .key("general.name", GgufFile::kFloat32, GgufFile::u32(1))
      .number("tokenizer.ggml.tokens", 17);
  const GGUFModelMetadata meta = parsed(file);
  EXPECT_EQ(meta.block_count, 0);
  EXPECT_EQ(meta.head_count, 0);
  EXPECT_EQ(meta.architecture, "-2");
  EXPECT_EQ(meta.name, "");
  EXPECT_EQ(meta.vocab_size, 17);
}

TEST_F(GgufParserTest, LongTextsAreSkippedAndTheLongestIsRead) {
  const std::string longest(kMaxTextBytes, 'k');
  GgufFile file;
  file.number(longest.substr(12) + ".block_count", 7)
      .number(longest + ".context_length", 8)
      .text("general.architecture", longest)
      .text("general.name", longest + "!")
      .tensor(longest + "!", {2}, 0, 0)
      .tensor("last", {2}, 0, 0);
  const GGUFModelMetadata meta = parsed(file);
  EXPECT_EQ(meta.block_count, 7);
  EXPECT_EQ(meta.context_length, 0);
  EXPECT_EQ(meta.architecture, longest);
  EXPECT_EQ(meta.name, "");
  ASSERT_EQ(meta.tensors.size(), 2U);
  EXPECT_EQ(meta.tensors[0].name, "");
  EXPECT_EQ(meta.tensors[1].name, "last");
}

TEST_F(GgufParserTest, TensorsArePlacedAndCosted) {
  GgufFile file;
  file.number("llama.block_count", 3)
      .tensor("token_embd.weight", {100, 10}, 12, 0)  // 4.5 bits an element
      .tensor("blk.10.b", {64}, 10, 4096)
      .tensor("blk.2.a", {33}, 0, 2048)
      .tensor("blk.2.attn_output.weight", {16}, 1, 1024)
      .tensor("blk.2", {16}, 1, 0)
      .tensor("output_norm.weight", {4}, 0, 6000)
      .tensor("output.weight", {3, 5, 7}, 14, 5000)  // 6.5 bits an element
      .tensor("scalar", {}, 0, 7000)
      .tensor("odd", {2}, 99, 7100);
  const GGUFModelMetadata meta = parsed(file);
  const std::uint64_t start = (file.bytes().size() + 31) / 32 * 32;
  std::vector<std::uint64_t> sizes;
  for (const GGUFTensorInfo& tensor : meta.tensors) sizes.push_back(tensor.size_bytes);
  EXPECT_THAT(sizes, ElementsAre(562, 128, 132, 32, 32, 16, 85, 4, 4));
  EXPECT_EQ(meta.model_size_bytes, 995U);
  EXPECT_EQ(meta.tensors[1].type_name, "q2_k");
  EXPECT_EQ(meta.tensors[1].offset, start + 4096);
  EXPECT_THAT(meta.tensors[6].dims, ElementsAre(3, 5, 7));
  EXPECT_EQ(meta.tensors[8].type_name, "unknown");

  EXPECT_EQ(meta.embed_offset, start);
  EXPECT_EQ(meta.embed_size, 562U);
  EXPECT_EQ(meta.output_offset, start + 5000) << "the lowest, and none of a layer";
  EXPECT_EQ(meta.output_size, 101U);
  ASSERT_EQ(meta.layer_ranges.size(), 2U);
  EXPECT_EQ(meta.layer_ranges[0].layer, 2);
  EXPECT_EQ(meta.layer_ranges[0].first_offset, start + 1024);
  EXPECT_EQ(meta.layer_ranges[0].end_offset, start + 2048 + 132);
  EXPECT_EQ(meta.layer_ranges[0].total_bytes, 164U);
  EXPECT_EQ(meta.layer_ranges[1].layer, 10);
}

TEST_F(GgufParserTest, TheQuantizationComesFromTheNameElseFromTheTensors) {
  GgufFile file;
  file.tensor("a", {1}, 8, 0).tensor("b", {1}, 12, 0).tensor("c", {1}, 12, 0);
  EXPECT_EQ(parsed(file, "model.gguf").quantization, "q4_k");
  EXPECT_EQ(parsed(file, "Model-q5_k_m.gguf").quantization, "Q5_K_M");
  EXPECT_EQ(parsed(file, "Model-BF16.gguf").quantization, "F16");
  EXPECT_EQ(parsed(GgufFile(), "empty.gguf").quantization, "");
}

TEST_F(GgufParserTest, RealHeadersAreReadToTheirEnd) {
  const char* const samples = std::getenv("TAVREL_GGUF_SAMPLES");
  if (samples == nullptr || !std::filesystem::is_directory(samples)) {
    GTEST_SKIP() << "TAVREL_GGUF_SAMPLES names no folder with sample files";
  }
  struct Sample {
    const char *file, *architecture, *name;
    std::vector<std::int32_t> counts;
    std::uint64_t header_bytes;
  };
  const Sample expected[] = {
      {"vocab-llama-spm.gguf", "llama", "llama-spm", {32, 4096, 32, 32, 4096, 32000}, 723869},
      {"vocab-bert-bge.gguf", "bert", "bert-bge", {12, 384, 12, 0, 512, 30522}, 627549},
      {"vocab-gpt-2.gguf", "gpt2", "gpt-2", {12, 768, 12, 0, 1024, 50257}, 1766807},
  };
  for (const Sample& sample : expected) {
    SCOPED_TRACE(sample.file);
    GGUFModelMetadata meta;
    std::string reason;
    ASSERT_TRUE(GGUFParser::parseMetadata(std::string(samples) + "/" + sample.file, meta, reason))
        << reason;
    EXPECT_EQ(meta.architecture, sample.architecture);
    EXPECT_EQ(meta.name, sample.name);
    EXPECT_THAT((std::vector{meta.block_count, meta.embedding_length, meta.head_count,
                             meta.head_count_kv, meta.context_length, meta.vocab_size}),
                sample.counts);
    EXPECT_EQ(meta.header_bytes, sample.header_bytes);
    EXPECT_THAT(meta.tensors, IsEmpty());
  }
}

}  // namespace
}  // namespace tavrel::pipeline
