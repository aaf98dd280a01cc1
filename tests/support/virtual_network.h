#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tavrel::test {

/// Hosts on a network of their own within this machine: a network namespace each, joined by a
/// bridge in another. None of it has a name in the system, so the kernel removes everything when
/// the thread and the programs in it have ended, however they ended.
///
/// Threads: the one that made it, which remains in the network until it ends; best one of its own.
/// Failure: std::runtime_error says why the network cannot be made (rights, missing tools).
class VirtualNetwork {
 public:
  explicit VirtualNetwork(std::size_t hosts);
  ~VirtualNetwork();
  VirtualNetwork(const VirtualNetwork&) = delete;
  VirtualNetwork& operator=(const VirtualNetwork&) = delete;

  static std::string address(std::size_t host) { return "10.77.0." + std::to_string(host + 1); }

  /// From now on the thread, and the programs it starts, are on that host.
  void enter(std::size_t host) const;

  // Pulls the host's plug, and puts it in again. The thread is nowhere in particular afterwards.
  void unplug(std::size_t host) const;
  void plug(std::size_t host) const;

 private:
  int bridge_ = -1;  // these hold the namespaces
  std::vector<int> hosts_;
};

}  // namespace tavrel::test
