#pragma once

#include <cstddef>
#include <vector>

#include "platform/mutex.h"

namespace tavrel::platform {

/// The usable memory of one stack, from its lowest address on; the system takes pages of it as they
/// are first touched. Below lies a page that ends the program when a stack overflows.
struct FiberStack {
  std::byte* lowest = nullptr;  ///< null: no stack
  std::size_t bytes = 0;
};

/// Hands out stacks and keeps those given back, the one used last to be taken first: its pages are
/// there and in the processor's cache.
///
/// Threads: any thread may call. Owns the stacks that are kept; all must have been given back when
/// it is destroyed.
class FiberStacks {
 public:
  /// `bytes` of each stack, rounded up to whole pages.
  explicit FiberStacks(std::size_t bytes);
  ~FiberStacks();
  FiberStacks(const FiberStacks&) = delete;
  FiberStacks& operator=(const FiberStacks&) = delete;

  /// No stack (null) when the system has no memory for one.
  FiberStack take() TV_EXCLUDES(mutex_);
  void give(FiberStack stack) TV_EXCLUDES(mutex_);

  /// Returns to the system half of the stacks that nobody needed since the last call. To be called
  /// now and then, so that a rush of requests does not cost memory for good.
  void trim() TV_EXCLUDES(mutex_);

  std::size_t kept() const TV_EXCLUDES(mutex_);

 private:
  FiberStack map() const;
  void unmap(const FiberStack& stack) const;

  const std::size_t page_;
  const std::size_t bytes_;
  mutable Mutex mutex_;
  std::vector<FiberStack> kept_ TV_GUARDED_BY(mutex_);
  std::size_t untouched_ TV_GUARDED_BY(mutex_) = 0;  ///< the fewest kept since the last trim
};

}  // namespace tavrel::platform
