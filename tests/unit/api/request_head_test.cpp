#include "api/request_head.h"

#include <gtest/gtest.h>

#include <string>

namespace tavrel::api {
namespace {

constexpr HeadLimits kLimits{1024, 10, 1000};

struct HeadCase {
  std::string text;
  int refusal;  ///< 0: complete, -1: incomplete
};

class RequestHeadTest : public ::testing::TestWithParam<HeadCase> {};

int outcome(const RequestHead& head) {
  if (head.state == RequestHead::State::kIncomplete) return -1;
  return head.refusal;
}

TEST_P(RequestHeadTest, IsJudgedAlikeInOnePieceAndByteByByte) {
  const std::string& text = GetParam().text;
  std::size_t searched = 0;
  EXPECT_EQ(outcome(scanRequestHead(text, kLimits, searched)), GetParam().refusal) << text;

  searched = 0;
  int last = -1;
  for (std::size_t size = 1; size <= text.size() && last == -1; ++size) {
    last = outcome(scanRequestHead(text.substr(0, size), kLimits, searched));
  }
  EXPECT_EQ(last, GetParam().refusal) << text;
}

std::string withFields(int count) {
  std::string text = "GET / HTTP/1.1\r\n";
  for (int i = 0; i < count; ++i) text += "a: b\r\n";
  return text + "\r\n";
}

INSTANTIATE_TEST_SUITE_P(
    All, RequestHeadTest,
    ::testing::Values(
        HeadCase{"GET / HTTP/1.1\r\n\r\n", 0}, HeadCase{"GET / HTTP/1.1\r\nHost: a\r\n", -1},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", 0},
        HeadCase{"POST /x HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n", 0},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: 1001\r\n\r\n", 413},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: 5, 5\r\n\r\n", 400},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n", 400},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n", 400},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
                 400},
        HeadCase{"POST /x HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 501},
        HeadCase{"POST /x HTTP/1.1\r\nContent-Length : 5\r\n\r\n", 400},
        HeadCase{"GET / HTTP/1.1\r\nA: b\r\n folded\r\n\r\n", 400},
        HeadCase{"GET / HTTP/1.1\nA: b\r\n\r\n", 400},
        HeadCase{"GET / HTTP/1.1\r\nA: b\nC: d\r\n\r\n", 400},
        HeadCase{"GET / HTTP/1.1\r\nA: b\rC: d\r\n\r\n", 400},
        HeadCase{"GET / HTTP/1.1\r\nno colon\r\n\r\n", 400}, HeadCase{withFields(10), 0},
        HeadCase{withFields(11), 431}, HeadCase{"GET /" + std::string(1100, 'a'), 431},
        HeadCase{"\x16\x03\x01\x02", 400}, HeadCase{"get / HTTP/1.1\r\n\r\n", 400},
        HeadCase{std::string(40, 'A'), 400}));

TEST(RequestHead, TellsSizeAndFraming) {
  std::size_t searched = 0;
  const RequestHead head =
      scanRequestHead("POST / HTTP/1.1\r\ncontent-length: 7 \r\n\r\nrest", kLimits, searched);
  EXPECT_EQ(head.size, 39U);
  EXPECT_EQ(head.content_length, 7U);
  EXPECT_FALSE(head.chunked);
}

}  // namespace
}  // namespace tavrel::api
