// Running the commands of `listen --exec`: input, output, status, time limit and size limit.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "run_command.h"

namespace vemo_cli {
namespace {

using Status = CommandResult::Status;
using Clock = std::chrono::steady_clock;

// The tool ignores SIGPIPE process-wide; so do these tests.
class RunCommand : public ::testing::Test {
 protected:
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }
};

long elapsed_ms(Clock::time_point since) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

TEST_F(RunCommand, InputReachesTheCommandAndItsOutputComesBack) {
  CommandResult r = run_command("tr a-z A-Z", "hello, device\n", 5000);
  EXPECT_EQ(Status::kExited, r.status);
  EXPECT_EQ(0, r.exit_code);
  EXPECT_TRUE(r.succeeded());
  EXPECT_EQ("HELLO, DEVICE\n", r.output);
  EXPECT_EQ("HELLO, DEVICE", strip_trailing_newlines(r.output));
}

TEST_F(RunCommand, ALineReaderSeesTheLastLine) {
  CommandResult r = run_command("read line && echo \"got [$line]\"", "one line\n", 5000);
  EXPECT_TRUE(r.succeeded()) << r.describe(5000);
  EXPECT_EQ("got [one line]\n", r.output);
}

TEST_F(RunCommand, NonZeroStatusIsReportedWithWhatWasWritten) {
  CommandResult r = run_command("echo partial; exit 3", "", 5000);
  EXPECT_EQ(Status::kExited, r.status);
  EXPECT_EQ(3, r.exit_code);
  EXPECT_FALSE(r.succeeded());
  EXPECT_EQ("partial\n", r.output);
  EXPECT_EQ("exit status 3", r.describe(5000));
}

TEST_F(RunCommand, UnknownProgramExitsWith127) {
  CommandResult r = run_command("/nonexistent/program 2>/dev/null", "", 5000);
  EXPECT_EQ(Status::kExited, r.status);
  EXPECT_EQ(127, r.exit_code);
}

TEST_F(RunCommand, KilledBySignalOfItsOwn) {
  CommandResult r = run_command("kill -TERM $$", "", 5000);
  EXPECT_EQ(Status::kSignaled, r.status);
  EXPECT_EQ(SIGTERM, r.signal);
  EXPECT_EQ("killed by signal 15", r.describe(5000));
}

TEST_F(RunCommand, TimeLimitKillsTheWholeGroup) {
  const auto start = Clock::now();
  // The background sleep holds the output open too: it must be killed with the shell.
  CommandResult r = run_command("sleep 30 & sleep 30", "", 200);
  EXPECT_EQ(Status::kTimedOut, r.status);
  EXPECT_EQ("still running after 200 ms", r.describe(200));
  EXPECT_LT(elapsed_ms(start), 5000);
}

TEST_F(RunCommand, ACommandThatClosesItsOutputIsStillWaitedFor) {
  // Output closed at once, the exit comes later: the exit status is what counts.
  CommandResult r = run_command("exec >&-; sleep 0.2; exit 4", "", 5000);
  EXPECT_EQ(Status::kExited, r.status);
  EXPECT_EQ(4, r.exit_code);
  // ... and one that never exits meets the time limit, even with its output closed.
  r = run_command("exec >&-; sleep 30", "", 200);
  EXPECT_EQ(Status::kTimedOut, r.status);
}

TEST_F(RunCommand, OutputBeyondTheLimitIsRefused) {
  CommandResult r = run_command("yes", "", 5000, 1000);
  EXPECT_EQ(Status::kTooLarge, r.status);
  EXPECT_EQ(1000u, r.output.size());
  // Exactly the limit is fine.
  r = run_command("head -c 1000 /dev/zero | tr '\\0' x", "", 5000, 1000);
  EXPECT_TRUE(r.succeeded()) << r.describe(5000);
  EXPECT_EQ(std::string(1000, 'x'), r.output);
}

TEST_F(RunCommand, ACommandThatReadsNoInputDoesNotBlockUs) {
  // Far more than a pipe holds: the writer must give up when the command is gone.
  const std::string input(4 * 1024 * 1024, 'a');
  CommandResult r = run_command("echo done", input, 5000);
  EXPECT_TRUE(r.succeeded()) << r.describe(5000);
  EXPECT_EQ("done\n", r.output);
}

TEST_F(RunCommand, LargeInputAndOutputFlowAtOnce) {
  // cat writes while we still write: both directions must make progress.
  const std::string input(48 * 1024, 'b');
  CommandResult r = run_command("cat", input, 5000);
  EXPECT_TRUE(r.succeeded()) << r.describe(5000);
  EXPECT_EQ(input, r.output);
}

TEST_F(RunCommand, SeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<CommandResult> results(8);
  for (size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&results, i] {
      results[i] = run_command("cat; echo \" $0\"", "n" + std::to_string(i), 5000);
    });
  }
  for (std::thread &t : threads) t.join();
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_TRUE(results[i].succeeded()) << i;
    EXPECT_EQ("n" + std::to_string(i) + " /bin/sh\n", results[i].output);
  }
}

TEST(StripTrailingNewlines, OnlyTrailingOnes) {
  EXPECT_EQ("a\nb", strip_trailing_newlines("a\nb\n\n"));
  EXPECT_EQ("", strip_trailing_newlines("\n"));
  EXPECT_EQ(" x \r", strip_trailing_newlines(" x \r\n"));
  EXPECT_EQ("", strip_trailing_newlines(""));
}

}  // namespace
}  // namespace vemo_cli
