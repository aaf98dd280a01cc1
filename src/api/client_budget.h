#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>

namespace tavrel::api {

/// Shares out what clients can hold by being slow, places to be served above all: fibers, and the
/// threads of those that find none. Streams hold one each for as long as they are open, and a body
/// that does not arrive or an answer that is not read holds one for as long as that is waited for.
/// Some places always remain for everybody else. So does memory: what is left of answers that are
/// not being read is limited too.
///
/// Threads: any thread may call. Failure: false means that the caller has to do without.
class ClientBudget {
 public:
  explicit ClientBudget(std::size_t places)
      : limit_(places - std::min(kKept, places / 2)),
        wait_limit_(std::max<std::size_t>(1, places / 2)) {}

  bool takeStream() { return take(held_, limit_); }
  void giveStream() { held_.fetch_sub(1, std::memory_order_relaxed); }

  /// Waits get no more than half of the places, so that they leave room for streams.
  bool takeWait() {
    if (!take(waits_, wait_limit_)) return false;
    if (take(held_, limit_)) return true;
    waits_.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  void giveWait() {
    held_.fetch_sub(1, std::memory_order_relaxed);
    waits_.fetch_sub(1, std::memory_order_relaxed);
  }

  /// A single answer always fits.
  bool takeMemory(std::size_t bytes) {
    const std::size_t before = unread_.fetch_add(bytes, std::memory_order_relaxed);
    if (before == 0 || before + bytes <= kMaxUnread) return true;
    unread_.fetch_sub(bytes, std::memory_order_relaxed);
    return false;
  }
  void giveMemory(std::size_t bytes) { unread_.fetch_sub(bytes, std::memory_order_relaxed); }

 private:
  static constexpr std::size_t kMaxUnread = std::size_t{1} << 30;
  /// Places that no slow client gets.
  static constexpr std::size_t kKept = 64;

  static bool take(std::atomic<std::size_t>& count, std::size_t limit) {
    if (count.fetch_add(1, std::memory_order_relaxed) < limit) return true;
    count.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }

  const std::size_t limit_;
  const std::size_t wait_limit_;
  std::atomic<std::size_t> held_{0};
  std::atomic<std::size_t> waits_{0};
  std::atomic<std::size_t> unread_{0};
};

}  // namespace tavrel::api
