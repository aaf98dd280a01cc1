#include "platform/random.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>

namespace tavrel::platform {
namespace {

TEST(Random, TextsHaveTheirLengthAndAlphabetAndAllCharactersOccur) {
  const std::string alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  const std::string text = secureRandomText(62 * 400, alphabet);
  std::map<char, int> counts;
  for (const char c : text) ++counts[c];
  EXPECT_EQ(counts.size(), alphabet.size());
  for (const auto& [c, count] : counts) {
    EXPECT_GT(count, 250) << c;  // 400 expected; 7 standard deviations
    EXPECT_LT(count, 550) << c;
  }
  EXPECT_TRUE(std::regex_match(randomHex(40), std::regex("[0-9a-f]{40}")));
  EXPECT_TRUE(std::regex_match(
      generateUUID(),
      std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")));
}

TEST(Random, IdsDoNotRepeat) {
  std::set<std::string> seen;
  for (int i = 0; i < 10000; ++i) EXPECT_TRUE(seen.insert(randomHex(16)).second);
}

}  // namespace
}  // namespace tavrel::platform
