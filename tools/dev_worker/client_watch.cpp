#include "dev_worker/client_watch.h"

#include <poll.h>

#include <chrono>
#include <ctime>

#include "platform/blocking.h"

namespace tavrel::dev_worker {
namespace {

timespec toTimespec(std::chrono::nanoseconds duration) {
  constexpr std::int64_t kPerSecond = 1'000'000'000;
  return {duration.count() / kPerSecond, duration.count() % kPerSecond};
}

}  // namespace

bool ClientWatch::waitUntil(platform::SteadyTime time) {
  auto left = time - platform::steadyNow();
  if (left <= left.zero()) return true;
  const platform::BlockingScope blocking;
  while (left > left.zero()) {
    pollfd watched{descriptor(), POLLRDHUP, 0};  // poll ignores a descriptor of -1
    const timespec wait = toTimespec(left);
    if (::ppoll(&watched, 1, &wait, nullptr) > 0) {
      noteGone();
      return false;
    }
    left = time - platform::steadyNow();
  }
  return true;
}

void ClientWatch::waitUntilGone() {
  while (!stopping_ && waitUntil(platform::steadyNow() + std::chrono::seconds(1))) {
  }
}

void ClientWatch::noteGone() {
  if (noted_ || stopping_) return;
  noted_ = true;
  stats_.clientLeft(platform::steadyNow());
}

}  // namespace tavrel::dev_worker
