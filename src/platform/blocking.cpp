#include "platform/blocking.h"

namespace tavrel::platform {
namespace {

thread_local int depth = 0;
thread_local BlockingObserver* observer = nullptr;

}  // namespace

// None of these is inlined, nor taken for a constant: a function that was suspended in between goes
// on with another thread's variables.

[[gnu::noinline]] BlockingObserver*& BlockingObserver::ofThisThread() {
  asm volatile("");
  return observer;
}

[[gnu::noinline]] BlockingScope::BlockingScope() {
  if (depth++ == 0 && observer != nullptr) observer->enterBlocking();
}

[[gnu::noinline]] BlockingScope::~BlockingScope() {
  if (--depth == 0 && observer != nullptr) observer->leaveBlocking();
}

[[gnu::noinline]] bool BlockingScope::active() {
  asm volatile("");
  return depth > 0;
}

}  // namespace tavrel::platform
