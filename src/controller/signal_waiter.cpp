#include "controller/signal_waiter.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "platform/periodic_task.h"

namespace tavrel::controller {
namespace {

/// The next signal; 0 when the waiter is to stop.
int nextSignal(int signals, int wake) {
  for (;;) {
    pollfd entries[2] = {{signals, POLLIN, 0}, {wake, POLLIN, 0}};
    if (::poll(entries, 2, -1) < 0 && errno != EINTR) return 0;
    if ((entries[0].revents & POLLIN) != 0) {
      signalfd_siginfo info{};
      if (::read(signals, &info, sizeof info) == sizeof info)
        return static_cast<int>(info.ssi_signo);
    }
    if ((entries[1].revents & POLLIN) != 0) return 0;
  }
}

void setEvent(int event) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof one);
}

}  // namespace

SignalWaiter::SignalWaiter() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGINT);
  ::sigaddset(&set, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);  // NOLINT: a peer that hung up shows in the result of the write
  signals_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  wake_ = ::eventfd(0, EFD_CLOEXEC);
  over_ = ::eventfd(0, EFD_CLOEXEC);
}

SignalWaiter::~SignalWaiter() {
  stop();
  setEvent(over_);
  if (watcher_.joinable()) watcher_.join();
  ::close(signals_);
  ::close(wake_);
  ::close(over_);
}

void SignalWaiter::start(std::function<void(int)> on_signal) {
  waiter_ = std::jthread([this, on_signal = std::move(on_signal)] { wait(on_signal); });
}

void SignalWaiter::wait(const std::function<void(int)>& on_signal) {
  platform::nameThisThread("signals");
  const int signal = nextSignal(signals_, wake_);
  if (signal == 0) return;
  watcher_ = std::jthread([this] {
    const int second = nextSignal(signals_, over_);
    if (second != 0) ::_exit(128 + second);
  });
  on_signal(signal);
}

void SignalWaiter::stop() {
  setEvent(wake_);
  if (waiter_.joinable()) waiter_.join();
}

}  // namespace tavrel::controller
