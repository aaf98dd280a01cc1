#include "platform/fiber_stacks.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "platform/fiber_annotations.h"

namespace tavrel::platform {
namespace {

/// So many stacks are kept however long nobody needs them.
constexpr std::size_t kAlwaysKept = 16;

}  // namespace

FiberStacks::FiberStacks(std::size_t bytes)
    : page_(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE))),
      bytes_((bytes + page_ - 1) / page_ * page_) {}

FiberStacks::~FiberStacks() {
  for (const FiberStack& stack : kept_) unmap(stack);
}

FiberStack FiberStacks::take() {
  {
    const MutexLock lock(mutex_);
    if (!kept_.empty()) {
      const FiberStack stack = kept_.back();
      kept_.pop_back();
      untouched_ = std::min(untouched_, kept_.size());
      return stack;
    }
  }
  return map();
}

void FiberStacks::give(FiberStack stack) {
  forgetStackFrames(stack.lowest, stack.bytes);
  const MutexLock lock(mutex_);
  kept_.push_back(stack);
}

void FiberStacks::trim() {
  std::vector<FiberStack> surplus;
  {
    const MutexLock lock(mutex_);
    const std::size_t most = kept_.size() - std::min(kept_.size(), kAlwaysKept);
    const auto count = static_cast<std::ptrdiff_t>(std::min((untouched_ + 1) / 2, most));
    // The ones at the front have been unused for longest.
    surplus.assign(kept_.begin(), kept_.begin() + count);
    kept_.erase(kept_.begin(), kept_.begin() + count);
    untouched_ = kept_.size();
  }
  for (const FiberStack& stack : surplus) unmap(stack);
}

std::size_t FiberStacks::kept() const {
  const MutexLock lock(mutex_);
  return kept_.size();
}

FiberStack FiberStacks::map() const {
  void* const all = ::mmap(nullptr, page_ + bytes_, PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (all == MAP_FAILED) return {};
  auto* const lowest = static_cast<std::byte*>(all) + page_;
  if (::mprotect(lowest, bytes_, PROT_READ | PROT_WRITE) != 0) {
    ::munmap(all, page_ + bytes_);
    return {};
  }
  return {lowest, bytes_};
}

void FiberStacks::unmap(const FiberStack& stack) const {
  ::munmap(stack.lowest - page_, page_ + stack.bytes);
}

}  // namespace tavrel::platform
