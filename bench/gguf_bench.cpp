// Reading the header of a model file of 70 GB, with the vocabulary of a large model.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "pipeline/gguf_limits.h"
#include "pipeline/gguf_parser.h"
#include "support/gguf_file.h"

namespace tavrel::pipeline {
namespace {

using test::GgufFile;

constexpr std::uint64_t kModelBytes = 70'000'000'000;  // a hole in the file, apart from the header

/// A file of these bytes and a hole behind them, removed at the end.
class SparseFile {
 public:
  explicit SparseFile(const std::string& header) {
    const int descriptor = ::mkstemp(path_.data());
    if (descriptor < 0) throw std::runtime_error("no temporary file");
    ::close(descriptor);
    std::ofstream(path_, std::ios::binary) << header;
    std::filesystem::resize_file(path_, kModelBytes);
  }
  ~SparseFile() { ::unlink(path_.c_str()); }
  SparseFile(const SparseFile&) = delete;
  SparseFile& operator=(const SparseFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_ = (std::filesystem::temp_directory_path() / "gguf_bench_XXXXXX").string();
};

std::string largeModel() {
  constexpr std::size_t kTokens = 150'000;
  constexpr int kLayers = 100;
  std::string tokens = GgufFile::arrayHead(GgufFile::kString, kTokens);
  for (std::size_t i = 0; i < kTokens; ++i) {
    tokens += GgufFile::string(std::string(2 + i % 9, 't'));
  }
  GgufFile file;
  file.text("general.architecture", "llama")
      .number("llama.block_count", kLayers)
      .key("tokenizer.ggml.tokens", GgufFile::kArray, tokens)
      .key("tokenizer.ggml.scores", GgufFile::kArray,
           GgufFile::arrayHead(GgufFile::kFloat32, kTokens) + std::string(4 * kTokens, '\0'))
      .key("tokenizer.ggml.token_type", GgufFile::kArray,
           GgufFile::arrayHead(GgufFile::kInt32, kTokens) + std::string(4 * kTokens, '\0'));
  for (int i = 0; i < 1000; ++i) {
    file.tensor("blk." + std::to_string(i % kLayers) + ".part_" + std::to_string(i) + ".weight",
                {8192, 8192}, 12, static_cast<std::uint64_t>(i) << 26);
  }
  return file.bytes();
}

void parse(benchmark::State& state, const std::string& header, bool expected) {
  const SparseFile file(header);
  for (auto _ : state) {
    GGUFModelMetadata meta;
    if (GGUFParser::parseMetadata(file.path(), meta) != expected) {
      state.SkipWithError("not what was expected");
    }
    benchmark::DoNotOptimize(meta);
  }
}

void headerOfALargeModel(benchmark::State& state) {
  parse(state, largeModel(), true);
}
BENCHMARK(headerOfALargeModel)->Unit(benchmark::kMillisecond);

// What the limits let through at most.

void asManyTensorsAndKeysAsMayBe(benchmark::State& state) {
  parse(state, GgufFile().bytes(kMaxTensors, kMaxKeys), true);
}
BENCHMARK(asManyTensorsAndKeysAsMayBe)->Unit(benchmark::kMillisecond);

void asManyTextsAsMayBe(benchmark::State& state) {
  const std::string tokens = GgufFile::arrayHead(GgufFile::kString, kMaxWalkedElements);
  parse(state, GgufFile().key("tokens", GgufFile::kArray, tokens).bytes(), false);
}
BENCHMARK(asManyTextsAsMayBe)->Unit(benchmark::kMillisecond);

void keysAsLongAsMayBe(benchmark::State& state) {
  const std::string key(kMaxTextBytes, '.');  // each dot may begin a known key
  GgufFile file;
  for (int i = 0; i < 17; ++i) file.number(key, 1);
  parse(state, file.bytes(), false);
}
BENCHMARK(keysAsLongAsMayBe)->Unit(benchmark::kMillisecond);

/// Each text makes the reader jump, and throw away what it has read ahead.
void asManyJumpsAsMayBe(benchmark::State& state) {
  const std::string text(150'000, 'x');
  std::string array = GgufFile::arrayHead(GgufFile::kString, 1100);
  for (int i = 0; i < 1100; ++i) array += GgufFile::string(text);
  parse(state, GgufFile().key("tokens", GgufFile::kArray, array).bytes(), false);
}
BENCHMARK(asManyJumpsAsMayBe)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tavrel::pipeline
