#include "worker/worker_url.h"

#include <gtest/gtest.h>

#include "worker/worker_info.h"

namespace tavrel::worker {
namespace {

TEST(WorkerUrl, ReachableUrlsAreKept) {
  for (const char* url : {"http://10.0.0.5:8892", "https://data.example.org", "http://[fd00::1]:80",
                          "http://box:1/base/path", "http://a_b-c.d/%2e%2e/x"}) {
    EXPECT_EQ(ensureResolvableURL(url, "h", "10.0.0.5"), url);
  }
  EXPECT_EQ(ensureResolvableURL("HTTP://box:1//", "h", ""), "http://box:1");
  EXPECT_EQ(httpUrl("fd00::1", 8890), "http://[fd00::1]:8890");
  EXPECT_TRUE(isHost("fd00::1") && isHost("gpu-1.lan"));
  EXPECT_FALSE(isHost("") || isHost("box/x") || isHost("box:1") || isHost("u@box"));
  WorkerInfo worker;
  worker.ip_address = "fd00::1";
  worker.port = 65535;
  EXPECT_EQ(baseUrlOf(worker), "http://[fd00::1]:65535");
  for (const int port : {0, -1, 65536}) {
    worker.port = port;
    EXPECT_EQ(baseUrlOf(worker), "") << port;
  }
}

TEST(WorkerUrl, HostsThatMeanTheDaemonItselfBecomeItsAddress) {
  EXPECT_EQ(ensureResolvableURL("http://0.0.0.0:1", "h", "10.0.0.5"), "http://10.0.0.5:1");
  EXPECT_EQ(ensureResolvableURL("http://[::]:1/x", "h", "fd00::7"), "http://[fd00::7]:1/x");
  EXPECT_EQ(ensureResolvableURL("http://0.0.0.0:1", "h", ""), "http://h:1");
  EXPECT_EQ(ensureResolvableURL("http://localhost:1", "h", "10.0.0.5"), "http://10.0.0.5:1");
  EXPECT_EQ(ensureResolvableURL("http://localhost:1", "h", "127.0.0.1"), "http://localhost:1");
  EXPECT_EQ(ensureResolvableURL("http://127.0.0.1:1", "h", ""), "http://127.0.0.1:1");
}

TEST(WorkerUrl, EverythingElseIsRefused) {
  for (const char* url : {"",
                          "box:1",
                          "http://",
                          "http:///x",
                          "file:///etc/passwd",
                          "gopher://box",
                          "http://a b",
                          "http://user:pw@box",
                          "http://box?x=",
                          "http://box/#f",
                          "http://box:0",
                          "http://box:65536",
                          "http://box:1x",
                          "http://box:",
                          "http://[::1",
                          "http://[::1]x",
                          "http://box\r\nHost: y",
                          "http://b\xc3\xbcro",
                          "http://box\\x",
                          "http://[box]:1"}) {
    EXPECT_EQ(ensureResolvableURL(url, "h", "10.0.0.5"), std::nullopt) << url;
  }
}

}  // namespace
}  // namespace tavrel::worker
