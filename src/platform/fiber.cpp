#include "platform/fiber.h"

#include <cxxabi.h>

#include <boost/context/detail/fcontext.hpp>
#include <cassert>
#include <utility>

namespace tavrel::platform {

namespace context = boost::context::detail;

/// The bottom frame of every fiber. The switches are those of the context library, bare: its own
/// fibers switch once more on creation and leave frames behind that the thread sanitizer cannot
/// follow.
struct Fiber::Entry {
  [[noreturn]] static void run(context::transfer_t from) {
    Fiber& fiber = *static_cast<Fiber*>(from.data);
    fiber.annotations_.afterEntry();
    fiber.thread_ = from.fctx;
    fiber.body_();
    fiber.finished_ = true;
    fiber.annotations_.beforeExit(/*for_good=*/true);
    context::jump_fcontext(fiber.thread_, nullptr);
    __builtin_unreachable();
  }
};

Fiber::Fiber(FiberStack stack, std::function<void()> body)
    : stack_(stack),
      body_(std::move(body)),
      context_(context::make_fcontext(stack.lowest + stack.bytes, stack.bytes, &Entry::run)) {}

Fiber::~Fiber() {
  assert(finished_);
}

void Fiber::resume() {
  // All that belongs to the thread is exchanged here, on the stack of the thread, where it cannot
  // become another one in between.
  const Exceptions of_thread = exchangeExceptions(exceptions_);
  annotations_.beforeEntry(stack_.lowest, stack_.bytes);
  context_ = context::jump_fcontext(context_, this).fctx;
  annotations_.afterExit();
  exceptions_ = exchangeExceptions(of_thread);
}

void Fiber::suspend() {
  annotations_.beforeExit(/*for_good=*/false);
  thread_ = context::jump_fcontext(thread_, nullptr).fctx;
  annotations_.afterEntry();
}

Fiber::Exceptions Fiber::exchangeExceptions(const Exceptions& next) {
  return std::exchange(*reinterpret_cast<Exceptions*>(abi::__cxa_get_globals()), next);
}

}  // namespace tavrel::platform
