#include "api/chunk_framing.h"

#include <gtest/gtest.h>

#include <string>

namespace tavrel::api {
namespace {

enum class Outcome { kEnded, kOpen, kMalformed };

struct Case {
  std::string text;
  Outcome outcome;
};

Outcome outcomeOf(const std::string& text, std::size_t piece) {
  ChunkFraming framing;
  for (std::size_t at = 0; at < text.size(); at += piece) {
    if (!framing.take(std::string_view(text).substr(at, piece))) return Outcome::kMalformed;
  }
  return framing.ended() ? Outcome::kEnded : Outcome::kOpen;
}

class ChunkFramingTest : public ::testing::TestWithParam<Case> {};

TEST_P(ChunkFramingTest, IsJudgedAlikeInOnePieceAndByteByByte) {
  const auto& [text, outcome] = GetParam();
  EXPECT_EQ(outcomeOf(text, text.size()), outcome) << text;
  EXPECT_EQ(outcomeOf(text, 1), outcome) << text;
}

INSTANTIATE_TEST_SUITE_P(
    All, ChunkFramingTest,
    ::testing::Values(Case{"0\r\n\r\n", Outcome::kEnded},
                      Case{"5\r\nhello\r\n0A;name=\"v\"\r\n0123456789\r\n0\r\n\r\n",
                           Outcome::kEnded},
                      Case{"5\r\nhel", Outcome::kOpen}, Case{"5\r\nhello\r\n0\r\n", Outcome::kOpen},
                      Case{"5\r\nhelloXX0\r\n\r\n", Outcome::kMalformed},
                      Case{"5\nhello\r\n0\r\n\r\n", Outcome::kMalformed},
                      Case{"5;a\nb\r\nhello", Outcome::kMalformed},
                      Case{"\r\n", Outcome::kMalformed}, Case{"-1\r\n", Outcome::kMalformed},
                      Case{"0x5\r\nhello", Outcome::kMalformed},
                      Case{"10000000000000000\r\n", Outcome::kMalformed},
                      Case{"1;" + std::string(300, 'a'), Outcome::kMalformed},
                      Case{"0\r\nTrailer: x\r\n\r\n", Outcome::kMalformed},
                      Case{"0\r\n\r\nGET / HTTP/1.1", Outcome::kMalformed}));

}  // namespace
}  // namespace tavrel::api
