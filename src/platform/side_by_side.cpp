#include "platform/side_by_side.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include "platform/blocking.h"
#include "platform/clock.h"

namespace tavrel::platform {

void runSideBySide(const std::vector<std::function<void()>>& jobs, std::size_t at_once,
                   std::optional<std::chrono::milliseconds> begin_within) {
  const SteadyTime start = steadyNow();
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t job; (job = next.fetch_add(1)) < jobs.size();) {
      if (job > 0 && begin_within && steadyNow() - start > *begin_within) return;
      jobs[job]();
    }
  };
  const BlockingScope blocking;
  std::vector<std::jthread> helpers;
  try {
    for (std::size_t i = 1; i < std::min(at_once, jobs.size()); ++i) helpers.emplace_back(work);
  } catch (const std::system_error&) {
    // No more threads to be had: those there are do all of it.
  }
  work();
}

}  // namespace tavrel::platform
