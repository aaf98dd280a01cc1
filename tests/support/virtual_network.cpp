#include "support/virtual_network.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "support/process.h"

namespace tavrel::test {
namespace {

[[noreturn]] void throwSystemError(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

/// Puts the thread into a new network namespace and holds it open.
int newNamespace() {
  if (::unshare(CLONE_NEWNET) != 0) throwSystemError("unshare");
  const int descriptor = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throwSystemError("open the namespace");
  return descriptor;
}

void enterNamespace(int descriptor) {
  if (::setns(descriptor, CLONE_NEWNET) != 0) throwSystemError("setns");
}

/// Runs a shell command where the thread is.
void run(const std::string& command) {
  Process shell("/bin/sh", {"-ec", command});
  if (shell.waitForExit(std::chrono::seconds(10)) == 0) return;
  const std::vector<std::string>& errors = shell.errorLines();
  throw std::runtime_error(errors.empty() ? command : errors.front());
}

std::string portOf(std::size_t host) {
  return "port" + std::to_string(host);
}

}  // namespace

VirtualNetwork::VirtualNetwork(std::size_t hosts) : bridge_(newNamespace()) {
  run("ip link add bridge type bridge; ip link set bridge up");
  for (std::size_t host = 0; host < hosts; ++host) {
    hosts_.push_back(newNamespace());
    const std::string here =
        "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(hosts_.back());
    enterNamespace(bridge_);
    run("ip link add " + portOf(host) + " type veth peer name eth0 netns " + here +
        "; ip link set " + portOf(host) + " master bridge up");
    enterNamespace(hosts_.back());
    run("ip link set lo up; ip address add " + address(host) + "/24 dev eth0; ip link set eth0 up");
  }
}

VirtualNetwork::~VirtualNetwork() {
  for (const int descriptor : hosts_) ::close(descriptor);
  ::close(bridge_);
}

void VirtualNetwork::enter(std::size_t host) const {
  enterNamespace(hosts_.at(host));
}

void VirtualNetwork::unplug(std::size_t host) const {
  enterNamespace(bridge_);
  run("ip link set " + portOf(host) + " down");
}

void VirtualNetwork::plug(std::size_t host) const {
  enterNamespace(bridge_);
  run("ip link set " + portOf(host) + " up");
}

}  // namespace tavrel::test
