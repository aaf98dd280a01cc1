#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dev_worker/host_figures.h"
#include "dev_worker/options.h"
#include "dev_worker/registration.h"
#include "dev_worker/stats.h"

namespace tavrel::dev_worker {
namespace {

TEST(HostFigures, CpuUsageIsTheBusyShareBetweenTwoReadings) {
  const auto before = parseCpuTimes("cpu  100 0 100 700 100 0 0 0 50 0\ncpu0 1 2 3 4\n");
  const auto after = parseCpuTimes("cpu  130 0 120 740 110 0 0 0 80 0\n");
  ASSERT_TRUE(before && after);
  EXPECT_EQ(before->total, 1000U);  // guest time is part of user time
  EXPECT_DOUBLE_EQ(cpuUsagePercent(*before, *after), 50.0);
  EXPECT_DOUBLE_EQ(cpuUsagePercent(*after, *after), 0.0);
  EXPECT_DOUBLE_EQ(cpuUsagePercent(*after, *before), 0.0);  // counters may step back
  EXPECT_FALSE(parseCpuTimes("intr 5\n"));
}

TEST(HostFigures, MemoryIsInBytesAndUsedIsWhatIsNotAvailable) {
  const MemoryFigures memory =
      parseMemory("MemTotal:       1000 kB\nMemFree:  10 kB\nMemAvailable:    400 kB\n");
  EXPECT_EQ(memory.total, 1024000U);
  EXPECT_EQ(memory.available, 409600U);
  EXPECT_EQ(memory.used, 614400U);
  EXPECT_EQ(parseMemory("MemAvailable: 5 kB").used, 0U);
}

TEST(HostFigures, NetworkAddsAllInterfacesButLoopback) {
  const NetworkFigures network = parseNetwork(
      "Inter-|   Receive                            |  Transmit\n"
      " face |bytes    packets errs drop fifo frame compressed multicast|bytes packets\n"
      "    lo: 9 9 0 0 0 0 0 0 9 9 0 0 0 0 0 0\n"
      "  eth0:100 1 0 0 0 0 0 0 40 1 0 0 0 0 0 0\n"
      "  eth1: 5 1 0 0 0 0 0 0 2 1 0 0 0 0 0 0\n");
  EXPECT_EQ(network.received, 105U);
  EXPECT_EQ(network.sent, 42U);
}

TEST(HostFigures, CoresAreCountedOncePerPackage) {
  const CpuDescription cpu = parseCpuInfo(
      "processor\t: 0\nmodel name\t: Some CPU\nphysical id\t: 0\ncore id\t: 0\n\n"
      "processor\t: 1\nmodel name\t: Some CPU\nphysical id\t: 0\ncore id\t: 0\n\n"
      "processor\t: 2\nmodel name\t: Some CPU\nphysical id\t: 1\ncore id\t: 0\n");
  EXPECT_EQ(cpu.model, "Some CPU");
  EXPECT_EQ(cpu.threads, 3);
  EXPECT_EQ(cpu.cores, 2);
  EXPECT_EQ(parseCpuInfo("processor : 0\nprocessor : 1\n").cores, 2);
}

TEST(HostFigures, ThisMachineHasMemoryProcessorsAndADisk) {
  HostFigures figures;
  const nlohmann::json sample = figures.sample();
  EXPECT_GT(sample["memory"]["total"], 0U);
  EXPECT_GE(sample["memory"]["total"], sample["memory"]["used"]);
  EXPECT_GT(sample["cpu"]["threads"], 0);
  EXPECT_GT(sample["disk"]["total"], 0U);
  EXPECT_EQ(sample["system"]["load_average"].size(), 3U);
  EXPECT_LE(sample["cpu"]["usage_percent"], 100.0);
}

TEST(Registration, AHeartbeatCarriesEverythingARegistrationDoes) {
  const Options options = parseOptions({"--host", "::1", "--model", "a", "--model", "b"}).options;
  const Identity identity = identityOf(options, 4711);
  EXPECT_EQ(identity.id, "dev-worker-4711");
  EXPECT_EQ(identity.name, identity.id);
  EXPECT_EQ(identity.backend_url, "http://[::1]:4711");
  const nlohmann::json registration = registrationBody(identity, options.models);
  EXPECT_EQ(registration["capabilities"]["installed_models"], options.models);
  EXPECT_EQ(registration["port"], 4711);

  Stats stats;
  stats.begin();
  stats.tokensGenerated(7);
  const nlohmann::json beat =
      heartbeatBody(identity, options.models, {{"cpu", {{"cores", 2}}}}, stats, 99);
  for (const auto& [key, value] : registration.items()) EXPECT_EQ(beat[key], value) << key;
  EXPECT_EQ(beat["metrics"]["cpu"]["cores"], 2);
  ASSERT_EQ(beat["running_models"].size(), 2U);
  EXPECT_EQ(beat["running_models"][1]["name"], "b");
  EXPECT_EQ(beat["running_models"][1]["requests_served"], 1);
  EXPECT_EQ(beat["running_models"][1]["tokens_generated"], 7);
}

TEST(Stats, HangUpsAreCountedAndTheLatestKept) {
  Stats stats;
  const auto served = stats.begin();
  const platform::SteadyTime start{};
  const int departures = static_cast<int>(Stats::kKeptDepartures) + 5;
  for (int i = 0; i < departures; ++i) stats.clientLeft(start + std::chrono::nanoseconds(i));
  const nlohmann::json seen = stats.toJson();
  EXPECT_EQ(seen["in_progress"], 1);
  EXPECT_EQ(seen["client_gone"], departures);
  EXPECT_EQ(seen["client_gone_at_ns"].size(), Stats::kKeptDepartures);
  EXPECT_EQ(seen["client_gone_at_ns"].back(), departures - 1);
}

}  // namespace
}  // namespace tavrel::dev_worker
