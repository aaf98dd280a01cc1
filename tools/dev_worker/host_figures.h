#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tavrel::dev_worker {

/// Processor time since boot, in clock ticks.
struct CpuTimes {
  std::uint64_t busy = 0;
  std::uint64_t total = 0;
};

/// Bytes.
struct MemoryFigures {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  std::uint64_t available = 0;
};

/// Bytes since boot, all interfaces but loopback.
struct NetworkFigures {
  std::uint64_t received = 0;
  std::uint64_t sent = 0;
};

struct CpuDescription {
  std::string model;
  int cores = 0;    ///< physical ones; equal to `threads` where the system does not tell
  int threads = 0;  ///< logical processors
};

// Readers of the kernel's text files. Lines that are missing or malformed leave their figure at 0.
std::optional<CpuTimes> parseCpuTimes(std::string_view proc_stat);
MemoryFigures parseMemory(std::string_view proc_meminfo);
NetworkFigures parseNetwork(std::string_view proc_net_dev);
CpuDescription parseCpuInfo(std::string_view proc_cpuinfo);

/// Percent of the time between two readings that the processors were busy, 0 to 100; 0 when no time
/// passed between them.
double cpuUsagePercent(const CpuTimes& before, const CpuTimes& after);

/// The state of this machine in the shape of a heartbeat's "metrics".
/// Threads: one. Time: CPU usage is that since the previous sample (since boot for the first).
/// Failure: what cannot be read is reported as 0.
class HostFigures {
 public:
  HostFigures();
  nlohmann::json sample();

 private:
  const CpuDescription cpu_;
  CpuTimes last_cpu_;
};

}  // namespace tavrel::dev_worker
