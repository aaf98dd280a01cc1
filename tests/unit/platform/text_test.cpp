#include "platform/text.h"

#include <gtest/gtest.h>

namespace tavrel::platform {
namespace {

TEST(Text, IsCutBetweenCharacters) {
  EXPECT_EQ(firstCharacters("añb", 2), "añ");
  EXPECT_EQ(firstCharacters("日本語", 2), "日本");
  EXPECT_EQ(firstCharacters("ab", 5), "ab");
  EXPECT_EQ(firstCharacters("", 5), "");
}

TEST(Text, WhatIsNotUtf8IsReplacedByteByByte) {
  const std::string mark = "\xEF\xBF\xBD";
  EXPECT_EQ(replaceInvalidUtf8("ok ñ 日 😀"), "ok ñ 日 😀");
  EXPECT_EQ(replaceInvalidUtf8("a\xFFz"), "a" + mark + "z");
  EXPECT_EQ(replaceInvalidUtf8("\xC3"), mark);
  EXPECT_EQ(replaceInvalidUtf8("\xC0\xAF"), mark + mark);             // overlong
  EXPECT_EQ(replaceInvalidUtf8("\xED\xA0\x80"), mark + mark + mark);  // surrogate
  EXPECT_EQ(replaceInvalidUtf8("\xF4\x90\x80\x80"), mark + mark + mark + mark);
}

TEST(Text, NothingLeavesAPathSegment) {
  EXPECT_EQ(percentEncode("a-b_c.d~1"), "a-b_c.d~1");
  EXPECT_EQ(percentEncode("a/b?c#d e%ñ"), "a%2Fb%3Fc%23d%20e%25%C3%B1");
  EXPECT_EQ(percentEncode(".."), "%2E%2E");
  EXPECT_EQ(percentEncode("..."), "...");
}

TEST(Text, NothingLeavesItsPlaceInAPage) {
  EXPECT_EQ(escapeHtml("<a b='c'>&\""), "&lt;a b=&#39;c&#39;&gt;&amp;&quot;");
}

TEST(Text, ControlCharactersAreFound) {
  for (const std::string text : {"a\rb", "a\nb", "\tx", "\x1b[2J", "x\x7F"}) {
    EXPECT_TRUE(hasControls(text)) << text;
  }
  EXPECT_TRUE(hasControls(std::string("a\0b", 3)));
  EXPECT_FALSE(hasControls("a b \xC3\xB1 \xFF"));
}

TEST(Text, OccurrencesDoNotOverlap) {
  EXPECT_EQ(countOccurrences("aaaa", "aa"), 2U);
  EXPECT_EQ(countOccurrences("start art", "art"), 2U);
  EXPECT_EQ(countOccurrences("abc", ""), 0U);
}

}  // namespace
}  // namespace tavrel::platform
