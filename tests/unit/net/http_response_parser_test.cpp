#include "net/http_response_parser.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace tavrel::net {
namespace {

using State = HttpResponseParser::State;

/// What an answer must come out as, however it is cut into pieces.
struct Case {
  std::string name;
  std::string bytes;
  State after_bytes = State::kDone;
  State after_close = State::kDone;
  int status = 200;
  std::string body;
  bool keeps_alive = false;
};

void PrintTo(const Case& c, std::ostream* out) {
  *out << c.name;
}

const std::string kOk = "HTTP/1.1 200 OK\r\n";
const std::string kChunked = kOk + "Transfer-Encoding: chunked\r\n\r\n";

Case whole(std::string name, std::string bytes, std::string body, bool keeps_alive) {
  return {std::move(name), std::move(bytes), State::kDone, State::kDone, 200,
          std::move(body), keeps_alive};
}
Case malformed(std::string name, std::string bytes, std::string body = "") {
  return {std::move(name),
          std::move(bytes),
          State::kMalformed,
          State::kMalformed,
          -1,
          std::move(body),
          false};
}
Case cutShort(std::string name, std::string bytes, State after_bytes, std::string body = "") {
  return {std::move(name), std::move(bytes), after_bytes, State::kMalformed, -1, std::move(body)};
}

class AnswerTest : public testing::TestWithParam<Case> {};

void checkInPiecesOf(std::size_t size, const Case& c) {
  SCOPED_TRACE("pieces of " + std::to_string(size));
  HttpResponseParser parser;
  std::string body;
  for (std::size_t at = 0; at < c.bytes.size(); at += size) {
    parser.consume(std::string_view(c.bytes).substr(at, size), body);
  }
  EXPECT_EQ(parser.state(), c.after_bytes);
  EXPECT_EQ(body, c.body);
  if (c.status >= 0) {
    EXPECT_EQ(parser.head().status, c.status);
  }
  EXPECT_EQ(parser.keepsAlive(), c.keeps_alive);
  EXPECT_EQ(parser.finish(), c.after_close);
}

TEST_P(AnswerTest, IsReadTheSameInOnePieceAndInAny) {
  for (const std::size_t size :
       {GetParam().bytes.size(), std::size_t{1}, std::size_t{2}, std::size_t{7}}) {
    checkInPiecesOf(size, GetParam());
  }
}

std::vector<Case> wholeAnswers() {
  std::vector<Case> cases{
      whole("ByLength", kOk + "Content-Length: 5\r\n\r\nhello", "hello", true),
      whole("EmptyByLength", kOk + "content-length:0\r\n\r\n", "", true),
      whole("SameLengthTwice", kOk + "Content-Length: 2, 2\r\nContent-Length: 2\r\n\r\nok", "ok",
            true),
      whole("Chunked", kChunked + "5\r\nhello\r\n00c\r\n, whole worl\r\n0\r\n\r\n",
            "hello, whole worl", true),
      whole("ChunkExtensionsAndTrailer",
            kChunked + "A;a=\"b\"\r\n0123456789\r\n1 \r\nx\r\n0;end\r\nT: v\r\nU:\r\n\r\n",
            "0123456789x", true),
      whole("LoneLineFeedsInHead", "HTTP/1.1 200\nContent-Length: 2\n\nok", "ok", true),
      whole("AfterInterimAnswers",
            "HTTP/1.1 100 Continue\r\nContent-Length: 9\r\n\r\nHTTP/1.1 103 Hints\r\n\r\n" + kOk +
                "Content-Length: 2\r\n\r\nok",
            "ok", true),
      whole("CloseAnnounced", kOk + "Connection: foo, Close\r\nContent-Length: 2\r\n\r\nok", "ok",
            false),
      whole("OldVersionCloses", "HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok", "ok", false),
      whole("OldVersionKeepsAlive",
            "HTTP/1.0 200 OK\r\nConnection: Keep-Alive\r\nContent-Length: 2\r\n\r\nok", "ok", true),
      whole("OldVersionChunked",
            "HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n"
            "2\r\nok\r\n0\r\n\r\n",
            "ok", false),
      whole("BytesAfterTheEnd", kOk + "Content-Length: 2\r\n\r\nokHTTP/1.1 500 injected\r\n\r\n",
            "ok", false),
  };
  cases.push_back(
      {"NoContent", "HTTP/1.1 204 No Content\r\n\r\n", State::kDone, State::kDone, 204, "", true});
  cases.push_back({"NotModifiedHasNoBody", "HTTP/1.1 304 -\r\nContent-Length: 99\r\n\r\n",
                   State::kDone, State::kDone, 304, "", true});
  cases.push_back({"UntilClose", "HTTP/1.1 500 Oops\r\nServer: x\r\n\r\ntext\r\n\r\nmore",
                   State::kBody, State::kDone, 500, "text\r\n\r\nmore", false});
  return cases;
}

std::vector<Case> brokenAnswers() {
  const auto header = [](const std::string& line) { return kOk + line + "\r\n\r\n"; };
  return {
      malformed("NotHttp", "SSH-2.0-OpenSSH\r\n"),
      malformed("OtherVersion", "HTTP/2 200 OK\r\n"),
      malformed("StatusTooShort", "HTTP/1.1 20 OK\r\n"),
      malformed("StatusTooLong", "HTTP/1.1 2000 OK\r\n"),
      malformed("BlankLineFirst", "\r\n" + kOk + "\r\n"),
      malformed("SwitchedProtocol", "HTTP/1.1 101 Switching\r\n\r\n"),
      malformed("FoldedLine", kOk + "A: b\r\n c\r\n\r\n"),
      malformed("SpaceBeforeColon", header("Content-Length : 5")),
      malformed("NoColon", header("nonsense")),
      malformed("NoName", header(": v")),
      malformed("CarriageReturnInValue", header("A: b\rContent-Length: 3")),
      malformed("ZeroByteInValue", kOk + std::string("A: \0b\r\n\r\n", 9)),
      malformed("LengthsDiffer", header("Content-Length: 5\r\nContent-Length: 6")),
      malformed("LengthsDifferInList", header("Content-Length: 5, 6")),
      malformed("LengthNegative", header("Content-Length: -1")),
      malformed("LengthSigned", header("Content-Length: +1")),
      malformed("LengthHexadecimal", header("Content-Length: 0x10")),
      malformed("LengthEmpty", header("Content-Length:")),
      malformed("LengthBeyond64Bits", header("Content-Length: 18446744073709551616")),
      malformed("LengthAndChunked", header("Content-Length: 5\r\nTransfer-Encoding: chunked")),
      malformed("ChunkedTwice", header("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked")),
      malformed("OtherCoding", header("Transfer-Encoding: gzip, chunked")),
      malformed("ChunkSizeNegative", kChunked + "-5\r\n"),
      malformed("ChunkSizePrefixed", kChunked + "0x5\r\n"),
      malformed("ChunkSizeMissing", kChunked + "\r\n"),
      malformed("ChunkSizeIndented", kChunked + " 5\r\n"),
      malformed("ChunkSizeBeyond64Bits", kChunked + "10000000000000000\r\n"),
      malformed("ChunkLineWithLoneLineFeed", kChunked + "5\nhello\r\n0\r\n\r\n"),
      malformed("ChunkLongerThanItsSize", kChunked + "5\r\nhello!\r\n0\r\n\r\n", "hello"),
      malformed("ChunkEndWithoutLineFeed", kChunked + "5\r\nhello\rX", "hello"),
      malformed("TrailerNotAField", kChunked + "0\r\nnonsense\r\n\r\n"),
      malformed("EndlessHeader", kOk + std::string(HttpResponseParser::kMaxHeadBytes, 'a')),
      malformed("EndlessInterimAnswers",
                [] {
                  std::string bytes;
                  while (bytes.size() <= HttpResponseParser::kMaxHeadBytes) {
                    bytes += "HTTP/1.1 100 Continue\r\n\r\n";
                  }
                  return bytes;
                }()),
      malformed("TooManyHeaders",
                [] {
                  std::string bytes = kOk;
                  for (std::size_t i = 0; i <= HttpResponseParser::kMaxHeaders; ++i)
                    bytes += "a:\r\n";
                  return bytes;
                }()),
      malformed("EndlessChunkExtension",
                kChunked + "1;" + std::string(HttpResponseParser::kMaxChunkLineBytes, 'e')),
      malformed("EndlessTrailer",
                kChunked + "0\r\nA: " + std::string(HttpResponseParser::kMaxHeadBytes, 'a')),
      cutShort("Nothing", "", State::kHead),
      cutShort("InHeader", kOk + "Content-Le", State::kHead),
      cutShort("OnlyInterim", "HTTP/1.1 100 Continue\r\n\r\n", State::kHead),
      cutShort("InBodyByLength", kOk + "Content-Length: 5\r\n\r\nhell", State::kBody, "hell"),
      cutShort("InHugeBody", kOk + "Content-Length: 18446744073709551615\r\n\r\nx", State::kBody,
               "x"),
      cutShort("InChunk", kChunked + "ffffffffffffffff\r\nhell", State::kBody, "hell"),
      cutShort("BeforeLastChunk", kChunked + "5\r\nhello\r\n", State::kBody, "hello"),
      cutShort("InTrailer", kChunked + "0\r\n", State::kBody),
  };
}

std::string nameOf(const testing::TestParamInfo<Case>& info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Whole, AnswerTest, testing::ValuesIn(wholeAnswers()), nameOf);
INSTANTIATE_TEST_SUITE_P(Broken, AnswerTest, testing::ValuesIn(brokenAnswers()), nameOf);

TEST(HttpResponseParser, HeadersKeepTheirSpellingAndAreFoundInAnyCase) {
  HttpResponseParser parser;
  std::string body;
  parser.consume(kOk + "X-Thing:  a b \t\r\nx-thing: second\r\nEmpty:\r\nContent-Length: 1\r\n\r\n",
                 body);
  ASSERT_EQ(parser.state(), State::kBody);
  const auto head = parser.takeHead();
  EXPECT_EQ(head.headers[0], std::pair(std::string("X-Thing"), std::string("a b")));
  EXPECT_EQ(head.header("X-THING"), "a b");
  EXPECT_EQ(head.header("missing"), "");
  EXPECT_EQ(head.headers.size(), 4U);
  EXPECT_EQ(parser.consume("!", body), State::kDone);
  EXPECT_TRUE(parser.keepsAlive());
}

}  // namespace
}  // namespace tavrel::net
