#include "platform/fiber.h"

#include <gtest/gtest.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

namespace tavrel::platform {
namespace {

constexpr std::size_t kStackBytes = std::size_t{1} << 20;

/// A fiber on a stack of its own, run from several threads.
class FiberOnThreads {
 public:
  using Body = std::function<void(Fiber&)>;
  explicit FiberOnThreads(const Body& body)
      : stack_(stacks_.take()), fiber_(stack_, [this, body] { body(fiber_); }) {}
  ~FiberOnThreads() {
    while (!fiber_.finished()) fiber_.resume();
    stacks_.give(stack_);
  }
  FiberOnThreads(const FiberOnThreads&) = delete;
  FiberOnThreads& operator=(const FiberOnThreads&) = delete;

  void resumeHere() { fiber_.resume(); }
  void resumeElsewhere() {
    std::thread([this] { fiber_.resume(); }).join();
  }
  bool finished() const { return fiber_.finished(); }

 private:
  FiberStacks stacks_{kStackBytes};
  FiberStack stack_;
  Fiber fiber_;
};

/// Goes down so many frames of a kilobyte, suspends there, and checks them on the way back.
bool descend(Fiber& fiber, int frames) {
  volatile char frame[1024];
  for (volatile char& byte : frame) byte = static_cast<char>(frames);
  if (frames == 0) {
    fiber.suspend();
    return true;
  }
  return descend(fiber, frames - 1) && frame[0] == static_cast<char>(frames) &&
         frame[1023] == static_cast<char>(frames);
}

TEST(Fiber, GoesOnOnAnotherThreadWithADeepStack) {
  bool intact = false;
  FiberOnThreads fiber([&](Fiber& self) {
    // Under the sanitizers each frame takes more.
    intact = descend(self, 400);
  });
  fiber.resumeHere();
  EXPECT_FALSE(fiber.finished());
  fiber.resumeElsewhere();
  EXPECT_TRUE(fiber.finished());
  EXPECT_TRUE(intact);
}

/// Suspends while an exception passes.
struct SuspendsWhenDestroyed {
  Fiber& fiber;
  int& in_flight;
  ~SuspendsWhenDestroyed() {
    fiber.suspend();
    in_flight = std::uncaught_exceptions();
  }
};

std::string handledNow() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();
  }
}

TEST(Fiber, KeepsItsExceptionsToItself) {
  std::string caught;
  int in_flight = 0;
  FiberOnThreads fiber([&](Fiber& self) {
    try {
      const SuspendsWhenDestroyed guard{self, in_flight};
      throw std::runtime_error("of the fiber");
    } catch (const std::exception&) {
      self.suspend();
      caught = handledNow();
    }
  });
  fiber.resumeHere();
  EXPECT_EQ(std::uncaught_exceptions(), 0);
  std::thread([&] {
    try {
      throw std::runtime_error("of the thread");
    } catch (const std::exception&) {
      fiber.resumeHere();  // the guard is left, and the handler entered
      EXPECT_EQ(handledNow(), "of the thread");
    }
  }).join();
  EXPECT_EQ(in_flight, 1);
  EXPECT_EQ(std::current_exception(), nullptr);
  fiber.resumeElsewhere();
  EXPECT_EQ(caught, "of the fiber");
}

TEST(FiberStacks, AreUsedAgainAndGivenBackWhenNobodyNeedsThem) {
  FiberStacks stacks(kStackBytes);
  std::vector<FiberStack> taken;
  for (int i = 0; i < 200; ++i) {
    taken.push_back(stacks.take());
    ASSERT_NE(taken.back().lowest, nullptr);
    std::memset(taken.back().lowest, 1, 64);
  }
  std::byte* const last = taken.back().lowest;
  for (auto stack = taken.begin(); stack != taken.end(); ++stack) stacks.give(*stack);
  EXPECT_EQ(stacks.kept(), 200U);
  const FiberStack warm = stacks.take();
  EXPECT_EQ(warm.lowest, last);
  stacks.give(warm);

  stacks.trim();
  EXPECT_GT(stacks.kept(), 100U);  // some were needed a moment ago
  for (int i = 0; i < 20; ++i) stacks.trim();
  EXPECT_LE(stacks.kept(), 16U);
  EXPECT_GT(stacks.kept(), 0U);
}

TEST(FiberStacksDeathTest, AnOverflowEndsTheProgramAndHarmsNobodyElse) {
  EXPECT_DEATH(
      {
        FiberStacks stacks(kStackBytes);
        const FiberStack stack = stacks.take();
        *(stack.lowest - 1) = std::byte{1};
      },
      "");
}

}  // namespace
}  // namespace tavrel::platform
