#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define TV_FIBERS_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TV_FIBERS_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define TV_FIBERS_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TV_FIBERS_TSAN 1
#endif
#endif

#ifdef TV_FIBERS_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif
#ifdef TV_FIBERS_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace tavrel::platform {

/// Tells the address and the thread sanitizer that a thread goes on on another stack; nothing in
/// other builds. One per fiber. The four calls around a switch are inlined by force: each function
/// must be left on the stack on which it was entered, also in the books of the thread sanitizer.
class FiberAnnotations {
 public:
#ifdef TV_FIBERS_TSAN
  FiberAnnotations() : fiber_(__tsan_create_fiber(0)) {}
  ~FiberAnnotations() {
    __tsan_destroy_fiber(fiber_);
  }
#else
  FiberAnnotations() = default;
  ~FiberAnnotations() = default;
#endif
  FiberAnnotations(const FiberAnnotations&) = delete;
  FiberAnnotations& operator=(const FiberAnnotations&) = delete;

  /// On the thread's stack, before the switch to the fiber's.
  [[gnu::always_inline]] void beforeEntry([[maybe_unused]] const void* stack,
                                          [[maybe_unused]] std::size_t bytes) {
#ifdef TV_FIBERS_ASAN
    __sanitizer_start_switch_fiber(&thread_frames_, stack, bytes);
#endif
#ifdef TV_FIBERS_TSAN
    thread_ = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(fiber_, 0);
#endif
  }

  /// On the fiber's stack, after each switch to it.
  [[gnu::always_inline]] void afterEntry() {
#ifdef TV_FIBERS_ASAN
    __sanitizer_finish_switch_fiber(fiber_frames_, &thread_stack_, &thread_bytes_);
#endif
  }

  /// On the fiber's stack, before the switch back. `for_good`: it will not run again.
  [[gnu::always_inline]] void beforeExit([[maybe_unused]] bool for_good) {
#ifdef TV_FIBERS_ASAN
    __sanitizer_start_switch_fiber(for_good ? nullptr : &fiber_frames_, thread_stack_,
                                   thread_bytes_);
#endif
#ifdef TV_FIBERS_TSAN
    __tsan_switch_to_fiber(thread_, 0);
#endif
  }

  /// On the thread's stack, after the switch back to it.
  [[gnu::always_inline]] void afterExit() {
#ifdef TV_FIBERS_ASAN
    __sanitizer_finish_switch_fiber(thread_frames_, nullptr, nullptr);
#endif
  }

 private:
#ifdef TV_FIBERS_ASAN
  void* thread_frames_ = nullptr;
  void* fiber_frames_ = nullptr;
  const void* thread_stack_ = nullptr;
  std::size_t thread_bytes_ = 0;
#endif
#ifdef TV_FIBERS_TSAN
  void* const fiber_;
  void* thread_ = nullptr;
#endif
};

/// The frames that a fiber never left are no frames any more: its stack may be used again.
inline void forgetStackFrames([[maybe_unused]] const void* stack,
                              [[maybe_unused]] std::size_t bytes) {
#ifdef TV_FIBERS_ASAN
  __asan_unpoison_memory_region(stack, bytes);
#endif
}

}  // namespace tavrel::platform
