#pragma once

#include <functional>

#include "platform/fiber_annotations.h"
#include "platform/fiber_stacks.h"

namespace tavrel::platform {

/// A function that runs on a stack of its own, so that it can be left in the middle and gone on
/// with later, by any thread. Knows nothing of what it is suspended for.
///
/// What runs on a fiber may find itself on another thread after each suspension. So across one it
/// must hold no lock and no reference to anything thread-local, and may not use errno in a function
/// that suspends (compilers take its address for constant): see socket_calls.h. Exceptions may be
/// in flight or being handled.
///
/// Threads: one at a time; whoever hands a suspended fiber to another thread makes that see what
/// the first has written. Failure: `body` must not throw. Must have finished when it is destroyed.
class Fiber {
 public:
  /// `stack` stays the caller's and may be used for something else once the fiber has finished.
  Fiber(FiberStack stack, std::function<void()> body);
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  /// Runs the fiber on the calling thread until it suspends itself or finishes.
  void resume();
  bool finished() const { return finished_; }

  /// Called on the fiber: makes `resume` return. Returns when the fiber is resumed.
  void suspend();

 private:
  /// What the C++ runtime keeps per thread, and every fiber needs for itself: the exceptions being
  /// handled, and the number of those in flight. The layout is that of the Itanium ABI.
  struct Exceptions {
    void* handled = nullptr;
    unsigned int in_flight = 0;
  };
  static Exceptions exchangeExceptions(const Exceptions& next);
  struct Entry;

  const FiberStack stack_;
  const std::function<void()> body_;
  void* context_;           ///< where the fiber goes on
  void* thread_ = nullptr;  ///< where the thread that resumed it goes on
  bool finished_ = false;
  Exceptions exceptions_;
  FiberAnnotations annotations_;
};

}  // namespace tavrel::platform
