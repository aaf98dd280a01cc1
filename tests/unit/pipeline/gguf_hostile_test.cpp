// Model files that mean ill: each is refused or read, soon and without much memory.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "pipeline/gguf_limits.h"
#include "pipeline/gguf_parser.h"
#include "support/gguf_file.h"
#include "support/process.h"

namespace tavrel::pipeline {
namespace {

using test::GgufFile;

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

class GgufHostileTest : public ::testing::Test {
 protected:
  GgufHostileTest() : path_(directory_.file("model.gguf")) {}

  /// Why a file of these bytes is refused, with zeros behind them up to `size`; "" when it is read.
  std::string refusal(const std::string& bytes, std::uint64_t size = 0) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << bytes;
    if (size > bytes.size()) std::filesystem::resize_file(path_, size);
    return refusalOf(path_);
  }

  std::string refusalOf(const std::string& path) {
    meta_ = {};
    meta_.name = "untouched";
    std::string reason;
    if (GGUFParser::parseMetadata(path, meta_, reason)) return "";
    EXPECT_FALSE(reason.empty());
    EXPECT_EQ(meta_.name, "untouched");
    return reason;
  }

  static std::string value(std::uint32_t type, const std::string& bytes) {
    return GgufFile().key("k", type, bytes).bytes();
  }

  test::TempDirectory directory_;
  std::string path_;
  GGUFModelMetadata meta_;
};

TEST_F(GgufHostileTest, EveryShorterFileIsRefused) {
  GgufFile file;
  file.text("general.name", "name")
      .texts("tokenizer.ggml.tokens", 2, "ab")
      .key("f", GgufFile::kArray, GgufFile::arrayHead(GgufFile::kFloat64, 2) + std::string(16, 'x'))
      .number("x.block_count", 2)
      .tensor("blk.0.a", {2, 3}, 1, 0);
  const std::string bytes = file.bytes();
  ASSERT_EQ(refusal(bytes), "");
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_NE(refusal(bytes.substr(0, length)), "") << length << " bytes";
  }
}

TEST_F(GgufHostileTest, OtherFormatsAndVersionsAreRefused) {
  EXPECT_EQ(refusal(std::string(100, '\0')), "not a GGUF file");
  GgufFile file;
  for (const std::uint32_t version : {0U, 1U, 4U, 0x03000000U}) {
    file.version = version;
    EXPECT_EQ(refusal(file.bytes()),
              "GGUF version " + std::to_string(version) + " is not supported");
  }
}

TEST_F(GgufHostileTest, OnlyRegularFilesAreOpened) {
  EXPECT_EQ(refusalOf(directory_.path()), "not a regular file");
  EXPECT_EQ(refusalOf("/dev/zero"), "not a regular file");
  EXPECT_NE(refusalOf(directory_.file("missing")), "");
  EXPECT_NE(refusalOf(""), "");
  const std::string fifo = directory_.file("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(refusalOf(fifo), "not a regular file");
  ASSERT_EQ(refusal(GgufFile().bytes()), "");
  EXPECT_NE(refusalOf(path_ + std::string("\0.txt", 5)), "") << "not what the path says";
}

TEST_F(GgufHostileTest, CountsAndLengthsBeyondTheFileAreRefused) {
  for (const std::uint64_t many : {std::uint64_t{1000}, std::uint64_t{1} << 32,
                                   std::uint64_t{1} << 61, UINT64_MAX - 7, UINT64_MAX}) {
    SCOPED_TRACE(many);
    EXPECT_NE(refusal(GgufFile().bytes(many, 0)), "");
    EXPECT_NE(refusal(GgufFile().bytes(0, many)), "");
    EXPECT_NE(refusal(value(GgufFile::kString, GgufFile::u64(many))), "");
    // 2^61 elements of eight bytes are 2^64, which is 0 in 64 bits.
    for (const std::uint32_t type : {GgufFile::kUint8, GgufFile::kString, GgufFile::kArray,
                                     GgufFile::kUint64, GgufFile::kFloat64}) {
      EXPECT_NE(refusal(value(GgufFile::kArray, GgufFile::arrayHead(type, many))), "") << type;
    }
    // A key or a tensor's name of that length.
    EXPECT_NE(refusal(GgufFile().bytes(0, 1) + GgufFile::u64(many) + std::string(99, 'x')), "");
    EXPECT_NE(refusal(GgufFile().bytes(1, 0) + GgufFile::u64(many) + std::string(99, 'x')), "");
  }
}

TEST_F(GgufHostileTest, TypesThatDoNotExistAreRefused) {
  for (const std::uint32_t type : {13U, 255U, 0x80000000U, 0xffffffffU}) {
    const std::string expected = "there is no value type " + std::to_string(type);
    EXPECT_EQ(refusal(value(type, std::string(64, 'x'))), expected);
    EXPECT_EQ(refusal(value(GgufFile::kArray, GgufFile::arrayHead(type, 0))), expected);
    EXPECT_EQ(refusal(GgufFile().key("x.block_count", type, std::string(64, 'x')).bytes()),
              expected);
  }
  EXPECT_NE(refusal(GgufFile().tensor("t", std::vector<std::uint64_t>(17, 1), 0, 0).bytes()), "");
}

TEST_F(GgufHostileTest, DeepNestingEndsSoon) {
  const auto nested = [](std::size_t depth) {
    std::string bytes;
    for (std::size_t i = 1; i < depth; ++i) bytes += GgufFile::arrayHead(GgufFile::kArray, 1);
    return value(GgufFile::kArray, bytes + GgufFile::arrayHead(GgufFile::kUint8, 0));
  };
  EXPECT_EQ(refusal(nested(kMaxArrayNesting)), "");
  EXPECT_EQ(refusal(nested(1'000'000)), "arrays are nested too deeply");
}

TEST_F(GgufHostileTest, HugeFilesOfNothingCostNeitherTimeNorMemory) {
  // Room for whatever the counts say: only the limits are left to refuse it.
  constexpr std::uint64_t kSize = 64 * kGiB;
  const GgufFile none;
  EXPECT_EQ(refusal(none.bytes(kMaxTensors, kMaxKeys), kSize), "");
  EXPECT_EQ(meta_.tensors.size(), kMaxTensors);
  EXPECT_NE(refusal(none.bytes(kMaxTensors + 1, 0), kSize), "");
  EXPECT_NE(refusal(none.bytes(0, kMaxKeys + 1), kSize), "");

  const auto array = [&](std::uint32_t type, std::uint64_t count) {
    return refusal(
        GgufFile()
            .key("tokenizer.ggml.tokens", GgufFile::kArray, GgufFile::arrayHead(type, count))
            .bytes(),
        kSize);
  };
  EXPECT_EQ(array(GgufFile::kUint8, 63 * kGiB), "") << "skipped in one step";
  EXPECT_EQ(meta_.vocab_size, INT32_MAX);
  EXPECT_EQ(array(GgufFile::kString, kMaxWalkedElements + 1), "the arrays have too many elements");
  EXPECT_EQ(array(GgufFile::kString, kGiB), "the arrays have too many elements");
  EXPECT_EQ(array(GgufFile::kArray, kMaxWalkedElements), "the header is too large");

  EXPECT_EQ(refusal(none.bytes(1, 0) + GgufFile::u64(kMaxTextBytes), kSize), "");
  GgufFile long_names;
  for (int i = 0; i < 17; ++i) long_names.tensor(std::string(kMaxTextBytes, 'x'), {}, 0, 0);
  EXPECT_EQ(refusal(long_names.bytes()), "the names are too long");

  struct rusage usage {};
  ASSERT_EQ(::getrusage(RUSAGE_SELF, &usage), 0);
  EXPECT_LT(usage.ru_maxrss, 1024 * 1024) << "kilobytes";
}

TEST_F(GgufHostileTest, SizesThatDoNotFitAreTheLargest) {
  GgufFile file;
  file.number("x.block_count", 2)
      .tensor("token_embd", {std::uint64_t{1} << 33, std::uint64_t{1} << 33}, 0, UINT64_MAX)
      .tensor("blk.0.a", {std::uint64_t{1} << 62}, 2, UINT64_MAX - 31)
      .tensor("blk.0.b", {UINT64_MAX, UINT64_MAX, 0}, 0, 0)
      .tensor("output", {UINT64_MAX}, 0, 5);
  ASSERT_EQ(refusal(file.bytes()), "");
  EXPECT_EQ(meta_.embed_size, UINT64_MAX);
  EXPECT_EQ(meta_.embed_offset, UINT64_MAX);
  EXPECT_EQ(meta_.tensors[1].size_bytes, (std::uint64_t{1} << 58) * 9);
  EXPECT_EQ(meta_.tensors[2].size_bytes, 0U);
  EXPECT_EQ(meta_.model_size_bytes, UINT64_MAX);
  ASSERT_EQ(meta_.layer_ranges.size(), 1U);
  EXPECT_EQ(meta_.layer_ranges[0].end_offset, UINT64_MAX);
}

TEST_F(GgufHostileTest, NamesThatNumberNoLayerBelongToNone) {
  GgufFile file;
  file.number("x.block_count", 2)
      .text("general.architecture", "ll\xff")
      .text("general.name", std::string("a\0\xc3(", 4));
  for (const char* name :
       {"blk.999999999999.x", "blk.99999999999999999999999.x", "blk.-1.x", "blk.+1.x", "blk. 1.x",
        "blk..x", "blk.", "blk.7", "blk.1e1.x", "blk.0x1.x", "xblk.1.x", "\xf0\x9f.bad"}) {
    file.tensor(name, {1}, 0, 0);
  }
  ASSERT_EQ(refusal(file.bytes()), "");
  EXPECT_TRUE(meta_.layer_ranges.empty());
  EXPECT_EQ(meta_.architecture, "ll\xEF\xBF\xBD");
  EXPECT_EQ(meta_.name, std::string("a\0\xEF\xBF\xBD(", 6));
  EXPECT_EQ(meta_.tensors.back().name.find("\xf0\x9f.bad"), std::string::npos);
}

}  // namespace
}  // namespace tavrel::pipeline
