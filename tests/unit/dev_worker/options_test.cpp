#include "dev_worker/options.h"

#include <gtest/gtest.h>

#include "support/messages.h"

namespace tavrel::dev_worker {
namespace {

using test::words;

TEST(DevWorkerOptions, EveryOptionArrives) {
  const ParsedOptions parsed = parseOptions(
      words("--controller http://127.0.0.1:8080/ --heartbeat-ms 250 --api-key k --id w1 --name one "
            "--label zone=a --label note=x=y --host 10.0.0.7 --port 0 --model m1 --model m2 "
            "--answer yes --tokens 12 --tokens-per-second 2.5 --latency-ms 40 "
            "--fault stall:0.25 --fault 5xx --fault-rate 0.5"));
  ASSERT_EQ(parsed.error, "");
  const Options& o = parsed.options;
  EXPECT_EQ(o.controller, "http://127.0.0.1:8080");
  EXPECT_EQ(o.heartbeat.count(), 250);
  EXPECT_EQ(o.api_key + o.id + o.name, "kw1one");
  EXPECT_EQ(o.labels, (std::map<std::string, std::string>{{"zone", "a"}, {"note", "x=y"}}));
  EXPECT_EQ(o.bindAddress(), "0.0.0.0");
  EXPECT_EQ(o.port, 0);
  EXPECT_EQ(o.models, (std::vector<std::string>{"m1", "m2"}));
  EXPECT_EQ(o.answer, "yes");
  EXPECT_EQ(o.tokens, 12);
  EXPECT_DOUBLE_EQ(o.tokens_per_second, 2.5);
  EXPECT_EQ(o.latency.count(), 40);
  ASSERT_EQ(o.faults.size(), 2U);
  EXPECT_EQ(o.faults[0].kind, FaultKind::kStall);
  EXPECT_DOUBLE_EQ(o.faults[0].rate, 0.25);
  EXPECT_DOUBLE_EQ(o.faults[1].rate, 0.5);  // the default rate holds wherever it stands
}

TEST(DevWorkerOptions, WithoutAnyItListensOnLoopbackOnlyAndHasAModel) {
  const Options options = parseOptions({}).options;
  EXPECT_EQ(options.bindAddress(), "127.0.0.1");
  EXPECT_EQ(options.models.size(), 1U);
}

TEST(DevWorkerOptions, ModelsOfAnUpstreamAreItsOwn) {
  EXPECT_TRUE(parseOptions({"--upstream", "http://localhost:11434"}).options.models.empty());
}

TEST(DevWorkerOptions, WrongOnesAreReported) {
  for (const char* line :
       {"--prot 1", "--port", "--port 70000", "--port 80x", "--heartbeat-ms 0",
        "--tokens-per-second -1", "--tokens-per-second nan", "--fault-rate 1.5", "--fault sulk",
        "--fault stall:2", "--fault stall:0.5x", "--label =x", "--controller ftp://x"}) {
    EXPECT_NE(parseOptions(words(line)).error, "") << line;
  }
  EXPECT_NE(parseOptions({"--model", ""}).error, "");
}

}  // namespace
}  // namespace tavrel::dev_worker
