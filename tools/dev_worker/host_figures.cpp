#include "dev_worker/host_figures.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "platform/clock.h"
#include "platform/files.h"

namespace tavrel::dev_worker {
namespace {

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::vector<std::string_view> splitWords(std::string_view line) {
  std::vector<std::string_view> words;
  for (;;) {
    const std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos) return words;
    const std::size_t end = std::min(line.find_first_of(" \t", start), line.size());
    words.push_back(line.substr(start, end - start));
    line.remove_prefix(end);
  }
}

template <class Number>
Number numberOr0(std::string_view text) {
  Number value{};
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::string_view valueAfterColon(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return {};
  const std::size_t start = line.find_first_not_of(" \t", colon + 1);
  return start == std::string_view::npos ? std::string_view{} : line.substr(start);
}

std::string readOrEmpty(const std::string& path) {
  return platform::readFile(path).value_or("");
}

nlohmann::json diskFigures() {
  struct statvfs root {};
  if (::statvfs("/", &root) != 0) return {{"total", 0}, {"used", 0}, {"free", 0}};
  const std::uint64_t total = std::uint64_t{root.f_blocks} * root.f_frsize;
  const std::uint64_t unused = std::uint64_t{root.f_bfree} * root.f_frsize;
  const std::uint64_t available = std::uint64_t{root.f_bavail} * root.f_frsize;
  return {{"total", total}, {"used", total - unused}, {"free", available}};
}

double cpuTemperature() {  // degrees Celsius; the kernel gives thousandths
  return numberOr0<int>(readOrEmpty("/sys/class/thermal/thermal_zone0/temp")) / 1000.0;
}

nlohmann::json loadAverage() {
  const std::string text = readOrEmpty("/proc/loadavg");
  nlohmann::json loads = nlohmann::json::array();
  const std::vector<std::string_view> words = splitWords(text);
  for (std::size_t i = 0; i < 3; ++i) {
    loads.push_back(i < words.size() ? numberOr0<double>(words[i]) : 0.0);
  }
  return loads;
}

}  // namespace

std::optional<CpuTimes> parseCpuTimes(std::string_view proc_stat) {
  for (const std::string_view line : splitLines(proc_stat)) {
    const std::vector<std::string_view> words = splitWords(line);
    if (words.size() < 5 || words[0] != "cpu") continue;
    // user nice system idle iowait irq softirq steal; the guest columns after them are part of user
    CpuTimes times;
    for (std::size_t i = 1; i < std::min<std::size_t>(words.size(), 9); ++i) {
      const auto ticks = numberOr0<std::uint64_t>(words[i]);
      times.total += ticks;
      if (i != 4 && i != 5) times.busy += ticks;
    }
    return times;
  }
  return std::nullopt;
}

MemoryFigures parseMemory(std::string_view proc_meminfo) {
  MemoryFigures figures;
  for (const std::string_view line : splitLines(proc_meminfo)) {
    const std::uint64_t bytes = numberOr0<std::uint64_t>(valueAfterColon(line)) * 1024;
    if (line.starts_with("MemTotal:")) figures.total = bytes;
    if (line.starts_with("MemAvailable:")) figures.available = bytes;
  }
  figures.used = figures.total - std::min(figures.available, figures.total);
  return figures;
}

NetworkFigures parseNetwork(std::string_view proc_net_dev) {
  NetworkFigures figures;
  for (const std::string_view line : splitLines(proc_net_dev)) {
    const std::vector<std::string_view> name = splitWords(line.substr(0, line.find(':')));
    const std::vector<std::string_view> columns = splitWords(valueAfterColon(line));
    if (name.size() != 1 || name[0] == "lo" || columns.size() < 9) continue;
    figures.received += numberOr0<std::uint64_t>(columns[0]);
    figures.sent += numberOr0<std::uint64_t>(columns[8]);
  }
  return figures;
}

CpuDescription parseCpuInfo(std::string_view proc_cpuinfo) {
  CpuDescription cpu;
  std::set<std::pair<std::string_view, std::string_view>> cores;  // (package, core in it)
  std::string_view package;
  for (const std::string_view line : splitLines(proc_cpuinfo)) {
    if (line.starts_with("processor")) ++cpu.threads;
    if (line.starts_with("model name") && cpu.model.empty()) cpu.model = valueAfterColon(line);
    if (line.starts_with("physical id")) package = valueAfterColon(line);
    if (line.starts_with("core id")) cores.emplace(package, valueAfterColon(line));
  }
  cpu.cores = cores.empty() ? cpu.threads : static_cast<int>(cores.size());
  return cpu;
}

double cpuUsagePercent(const CpuTimes& before, const CpuTimes& after) {
  if (after.total <= before.total || after.busy < before.busy) return 0;
  const double share = static_cast<double>(after.busy - before.busy) /
                       static_cast<double>(after.total - before.total);
  return std::min(100.0, share * 100.0);
}

HostFigures::HostFigures() : cpu_(parseCpuInfo(readOrEmpty("/proc/cpuinfo"))) {}

nlohmann::json HostFigures::sample() {
  const CpuTimes cpu_now = parseCpuTimes(readOrEmpty("/proc/stat")).value_or(last_cpu_);
  const double usage = cpuUsagePercent(last_cpu_, cpu_now);
  last_cpu_ = cpu_now;
  const MemoryFigures memory = parseMemory(readOrEmpty("/proc/meminfo"));
  const NetworkFigures network = parseNetwork(readOrEmpty("/proc/net/dev"));
  const auto uptime = static_cast<std::uint64_t>(numberOr0<double>(readOrEmpty("/proc/uptime")));
  return {
      {"cpu",
       {{"model", cpu_.model},
        {"cores", cpu_.cores},
        {"threads", cpu_.threads},
        {"usage_percent", usage},
        {"temperature", cpuTemperature()}}},
      {"memory", {{"total", memory.total}, {"used", memory.used}, {"available", memory.available}}},
      {"disk", diskFigures()},
      {"network", {{"rx_bytes", network.received}, {"tx_bytes", network.sent}}},
      {"system", {{"uptime_seconds", uptime}, {"load_average", loadAverage()}}},
      {"gpus", nlohmann::json::array()},
      {"timestamp", platform::toEpochMilliseconds(platform::wallNow())}};
}

}  // namespace tavrel::dev_worker
