#include "ai/theme_detector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "ai/keyword_finder.h"
#include "platform/files.h"
#include "platform/text.h"

namespace tavrel::ai {
namespace {

using ::testing::ElementsAre;

struct Detector {
  net::HttpClient http;
  ThemeDetector themes{http};

  ThemeResult detect(const std::string& text) { return themes.detectTheme(text, false); }
};

TEST(KeywordFinder, FindsWhatASearchForEachKeywordFinds) {
  std::mt19937 random(7);
  const auto word = [&](std::size_t longest) {
    std::string text;
    for (std::size_t size = random() % (longest + 1); text.size() < size;) {
      text += "abAB -1+\xc3"[random() % 9];
    }
    return text;
  };
  for (int round = 0; round < 300; ++round) {
    std::vector<std::string> keywords(1 + random() % 20);
    KeywordFinder finder;
    std::vector<std::size_t> numbers;
    for (std::string& keyword : keywords) {
      keyword = word(5);
      numbers.push_back(finder.add(keyword));
    }
    finder.build();
    const std::string text = KeywordFinder::prepare(word(40));
    const std::vector<char> found = finder.find(text);
    for (std::size_t i = 0; i < keywords.size(); ++i) {
      EXPECT_EQ(found[numbers[i]] != 0,
                text.find(platform::toLower(keywords[i])) != std::string::npos)
          << '"' << keywords[i] << "\" in \"" << text << '"';
    }
  }
}

TEST(ThemeDetector, MoreKeywordsThanTheTablesHoldAreRefused) {
  Detector detector;
  ThemeConfig words;
  words.name = "words";
  words.keywords = {std::string(KeywordFinder::kMaxStates / 2, 'x'), "needle"};
  EXPECT_TRUE(detector.themes.addTheme(words));
  EXPECT_EQ(detector.detect("a needle").theme, "words");
  words.keywords.push_back(std::string(KeywordFinder::kMaxStates / 2, 'y'));
  EXPECT_FALSE(detector.themes.addTheme(words));
  EXPECT_EQ(detector.themes.getTheme("words")->keywords.size(), 2U);
}

TEST(ThemeDetector, ScoresByTheShareOfKeywordsFound) {
  Detector detector;
  const ThemeResult poem = detector.detect("A Poem about\nthe plot, a scene");
  EXPECT_EQ(poem.theme, "creative");
  EXPECT_EQ(poem.method, "keyword");
  // "scene" stands twice in the list and is matched twice.
  EXPECT_THAT(poem.matched_keywords, ElementsAre("poem", "plot", "scene", "scene"));
  EXPECT_FLOAT_EQ(poem.confidence, 4.0F / 51);

  std::string many;
  for (const char* word : {"patient", "doctor", "diagnosis", "drug", "symptom", "disease", "clinic",
                           "surgery", "x-ray"}) {
    many += std::string(word) + ' ';
  }
  EXPECT_FLOAT_EQ(detector.detect(many).confidence, 9.0F / 56 * 1.5F);
  // Another subject's word takes the raise away, and most of the rest.
  EXPECT_FLOAT_EQ(detector.detect(many + "software").confidence, 9.0F / 56 * 0.3F);

  const ThemeResult nothing = detector.detect("c++ ???");
  EXPECT_EQ(nothing.theme, "general");
  EXPECT_EQ(nothing.confidence, 0);
}

TEST(ThemeDetector, ThemesAreReplacedRemovedSavedAndLoaded) {
  Detector detector;
  ThemeConfig boats;
  boats.name = "boats";
  boats.keywords = {"Keel", "mast"};
  detector.themes.addTheme(boats);
  EXPECT_EQ(detector.detect("the KEEL").theme, "boats");
  EXPECT_FLOAT_EQ(detector.detect("the KEEL").confidence, 0.75F);

  const std::string path =
      std::filesystem::temp_directory_path() / ("themes-" + std::to_string(::getpid()) + ".json");
  EXPECT_TRUE(detector.themes.saveThemesToFile(path));
  EXPECT_TRUE(detector.themes.removeTheme("boats"));
  EXPECT_FALSE(detector.themes.removeTheme("boats"));
  EXPECT_EQ(detector.detect("the keel").theme, "general");
  EXPECT_TRUE(detector.themes.loadThemesFromFile(path));
  EXPECT_EQ(detector.themes.getTheme("boats")->keywords, boats.keywords);
  EXPECT_EQ(detector.themes.getThemes().size(), 8U);

  // A file with one bad theme changes nothing.
  ASSERT_TRUE(platform::writeFileAtomically(path, R"({"themes":[{"name":"new"},{"name":1}]})"));
  EXPECT_FALSE(detector.themes.loadThemesFromFile(path));
  EXPECT_EQ(detector.themes.getThemes().size(), 8U);
  std::filesystem::remove(path);
  EXPECT_FALSE(detector.themes.loadThemesFromFile(path));
  EXPECT_FALSE(detector.themes.saveThemesToFile("/nowhere/at/all"));
}

TEST(ThemeDetector, ThemesChangeWhileTextsAreSorted) {
  Detector detector;
  std::thread changing([&detector] {
    for (int i = 0; i < 100; ++i) {
      ThemeConfig boats;
      boats.name = "boats";
      boats.keywords = {"keel"};
      detector.themes.addTheme(std::move(boats));
      detector.themes.removeTheme("boats");
    }
  });
  for (int i = 0; i < 300; ++i) {
    const ThemeResult found = detector.detect("the keel");
    // All of a theme or nothing of it.
    EXPECT_EQ(found.theme == "boats", found.matched_keywords.size() == 1);
    EXPECT_GE(detector.themes.getThemes().size(), 7U);
  }
  changing.join();
  EXPECT_EQ(detector.themes.getStats()["total_detections"], 300);
}

TEST(ThemeDetector, ADetectionThatAskedInVainCountsTwice) {
  Detector detector;
  std::string text;
  const ThemeConfig finance = *detector.themes.getTheme("finance");
  for (const std::string& word : finance.keywords) {
    if (text.size() < 120) text += word + ' ';
  }
  const ThemeResult result = detector.themes.detectTheme(text, true);  // there is no model
  EXPECT_EQ(result.theme, "finance");
  EXPECT_LT(result.confidence, 0.6F);
  const nlohmann::json stats = detector.themes.getStats();
  EXPECT_EQ(stats["total_detections"], 2);
  EXPECT_EQ(stats["keyword_detections"], 1);
  EXPECT_EQ(stats["fallback_detections"], 1);
  EXPECT_EQ(stats["theme_distribution"], nlohmann::json({{"finance", 1}, {"general", 1}}));

  const ThemeResult failed = detector.themes.detectTheme("???", true);
  EXPECT_EQ(failed.method, "llm_failed");
  EXPECT_EQ(failed.toJson()["confidence"], 0.3);
}

TEST(ThemeDetector, ReadsWhateverAModelReplies) {
  const auto known = [](const std::string& theme) { return theme == "creative_writing"; };
  const auto read = [&](const char* reply) { return parseLLMResponse(reply, known); };
  EXPECT_EQ(read("THEME:   Creative Writing\t\r\nCONFIDENCE: 0.25\n").theme, "creative_writing");
  EXPECT_FLOAT_EQ(read("CONFIDENCE:  0.25 or so").confidence, 0.25F);
  EXPECT_FLOAT_EQ(read("CONFIDENCE: 7").confidence, 1);
  EXPECT_FLOAT_EQ(read("CONFIDENCE: -1").confidence, 0);
  for (const char* reply : {"", "THEME:", "THEME: other\nCONFIDENCE: high", "CONFIDENCE: 1e99",
                            "CONFIDENCE: 1e-50", "CONFIDENCE: nan", "THEME: \nCONFIDENCE:"}) {
    EXPECT_EQ(read(reply).theme, "general") << reply;
    EXPECT_FLOAT_EQ(read(reply).confidence, 0.5F) << reply;
  }
}

}  // namespace
}  // namespace tavrel::ai
