#include "ai/model_specialization_extractor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavrel::ai {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto themesIn = ModelSpecializationExtractor::detectThemesFromPrompt;
constexpr auto themeOf = ModelSpecializationExtractor::detectThemeFromModelName;

TEST(ModelSpecializationExtractor, ThemesAreRankedByAllOccurrencesOfTheirKeywords) {
  EXPECT_THAT(themesIn("NGINX before nginx: a reverse proxy for Kubectl"),
              ElementsAre("nginx", "kubernetes"));
  EXPECT_THAT(themesIn("c++c+++ or jvm or C#"), ElementsAre("cpp", "java", "csharp"));
  // Occurrences of one keyword do not overlap.
  EXPECT_THAT(themesIn("statisticstatistics tf tf"), ElementsAre("terraform", "data"));
  // As often each: the longer keyword tells more.
  EXPECT_THAT(themesIn("javascript"), ElementsAre("javascript", "java"));
  EXPECT_THAT(themesIn("tf"), ElementsAre("terraform"));
  EXPECT_THAT(themesIn(""), IsEmpty());
  EXPECT_THAT(themesIn("t"), IsEmpty());
  EXPECT_THAT(themesIn("\xff\xff nothing of this kin\xc3"), IsEmpty());
}

TEST(ModelSpecializationExtractor, AModelIsNamedForATheme) {
  EXPECT_EQ(themeOf("lawllm:13b"), "legal");
  EXPECT_EQ(themeOf("CodeLlama:34b"), "code");  // the theme's own name, which is no keyword
  EXPECT_THAT(themesIn("the code of honour"), IsEmpty());
  EXPECT_EQ(themeOf("llama3.1:8b"), "general");
  EXPECT_EQ(themeOf(""), "general");
}

}  // namespace
}  // namespace tavrel::ai
