// Finding the keywords of all themes in a text of 100 KB: all at once, and one search each.
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "ai/keyword_finder.h"
#include "ai/theme_config.h"

namespace tavrel::ai {
namespace {

std::string someText() {
  constexpr std::size_t kBytes = 100'000;
  std::mt19937 random(1);
  std::string text;
  while (text.size() < kBytes) {
    for (std::size_t letters = 2 + random() % 8; letters > 0; --letters) {
      text += static_cast<char>('a' + random() % 26);
    }
    text += ' ';
  }
  return text;
}

std::vector<std::string> keywords() {
  std::vector<std::string> all;
  for (const ThemeConfig& theme : defaultThemes()) {
    all.insert(all.end(), theme.keywords.begin(), theme.keywords.end());
    all.insert(all.end(), theme.negative_keywords.begin(), theme.negative_keywords.end());
  }
  return all;
}

void allAtOnce(benchmark::State& state) {
  const std::string text = someText();
  KeywordFinder finder;
  for (const std::string& keyword : keywords()) finder.add(keyword);
  finder.build();
  for (auto _ : state) benchmark::DoNotOptimize(finder.find(KeywordFinder::prepare(text)));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(allAtOnce)->Unit(benchmark::kMicrosecond);

void oneSearchEach(benchmark::State& state) {
  const std::string text = someText();
  const std::vector<std::string> words = keywords();
  for (auto _ : state) {
    const std::string prepared = KeywordFinder::prepare(text);
    for (const std::string& word : words) benchmark::DoNotOptimize(prepared.find(word));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(oneSearchEach)->Unit(benchmark::kMicrosecond);

void prepareTheThemes(benchmark::State& state) {
  const std::vector<std::string> words = keywords();
  for (auto _ : state) {
    KeywordFinder finder;
    for (const std::string& word : words) finder.add(word);
    finder.build();
    benchmark::DoNotOptimize(finder);
  }
}
BENCHMARK(prepareTheThemes)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tavrel::ai
