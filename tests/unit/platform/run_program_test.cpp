#include "platform/run_program.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>

#include "platform/clock.h"

namespace tavrel::platform {
namespace {

using namespace std::chrono_literals;
using End = ProgramResult::End;

ProgramResult shell(const std::string& script, ProgramLimits limits = {10s}) {
  return runProgram({"/bin/sh", "-c", script}, limits);
}

TEST(RunProgram, TellsStatusAndBothStreams) {
  const ProgramResult result = shell("echo out; echo err >&2; exit 3");
  EXPECT_EQ(result.end, End::kExited);
  EXPECT_EQ(result.exit_status, 3);
  EXPECT_EQ(result.output, "out\n");
  EXPECT_EQ(result.error_output, "err\n");
  EXPECT_EQ(shell("kill -9 $$").exit_status, 128 + SIGKILL);
}

TEST(RunProgram, ArgumentsStayInTheirPlaceAndInputIsRead) {
  const std::string nasty = "$(id); 'a' \"b\" && c\n";
  EXPECT_EQ(runProgram({"printf", "%s|%s", nasty, ""}, {10s}).output, nasty + "|");
  const std::string input(3'000'000, 'x');
  EXPECT_EQ(runProgram({"wc", "-c"}, {10s}, input).output, "3000000\n");
  EXPECT_EQ(shell("cat").output, "");
}

TEST(RunProgram, AProgramThatIsNotThereIsNotStarted) {
  const ProgramResult result = runProgram({"/no/such/program"}, {1s});
  EXPECT_EQ(result.end, End::kNotStarted);
  EXPECT_EQ(result.error, "No such file or directory");
  EXPECT_EQ(runProgram({}, {1s}).end, End::kNotStarted);
}

TEST(RunProgram, OutputBeyondTheLimitIsDroppedAndTheProgramGoesOn) {
  const ProgramResult result = shell("head -c 5000000 /dev/zero; exit 7", {10s, 1000});
  EXPECT_EQ(result.output.size(), 1000u);
  EXPECT_EQ(result.exit_status, 7);
}

TEST(RunProgram, TheWholeGroupIsKilledAtTheTimeout) {
  const SteadyTime start = steadyNow();
  const ProgramResult result = shell("sleep 60 & echo $!; sleep 60", {200ms});
  EXPECT_EQ(result.end, End::kTimedOut);
  EXPECT_EQ(result.exit_status, 128 + SIGKILL);
  EXPECT_LT(steadyNow() - start, 5s);
  // The grandchild is gone, or at most waits to be reaped by init.
  const std::string gone = "for i in 1 2 3 4 5 6 7 8 9 10; do grep -qs '^State:.[SRD]' /proc/" +
                           result.output.substr(0, result.output.find('\n')) +
                           "/status || exit 0; sleep 0.1; done; exit 1";
  EXPECT_EQ(shell(gone).exit_status, 0);
}

TEST(RunProgram, AStopEndsItAndAChildLeftBehindHoldsNobodyUp) {
  std::stop_source stop;
  std::jthread stopper([&] {
    std::this_thread::sleep_for(100ms);
    stop.request_stop();
  });
  EXPECT_EQ(shell("sleep 60", {60s, 1000, stop.get_token()}).end, End::kStopped);
  EXPECT_EQ(shell("sleep 60", {60s, 1000, stop.get_token()}).end, End::kStopped);
  const SteadyTime start = steadyNow();
  const ProgramResult left = shell("sleep 3 & echo started");
  EXPECT_EQ(left.end, End::kExited);
  EXPECT_EQ(left.output, "started\n");
  EXPECT_LT(steadyNow() - start, 2s);
}

TEST(RunProgram, BlockedAndIgnoredSignalsAreNotPassedOn) {
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  EXPECT_EQ(shell("kill -TERM $$; sleep 5").exit_status, 128 + SIGTERM);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
}  // namespace tavrel::platform
