// Running the commands of `listen --exec`: input, output, status, time limit and size limit.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "run_command.h"

namespace vemo_cli {
namespace {

using Status = CommandResult::Status;

TEST(RunCommand, OutcomesOfCommands) {
  signal(SIGPIPE, SIG_IGN);  // as the tool does process-wide
  struct Row {
    const char *command;
    std::string input;
    int timeout_ms;
    Status status;
    int code;  // exit status, or the signal
    std::string output, described;
  };
  const std::string big(4 * 1024 * 1024, 'a'), flowing(48 * 1024, 'b');
  const Row rows[] = {
      {"tr a-z A-Z", "hello, device\n", 5000, Status::kExited, 0, "HELLO, DEVICE\n", "exit status 0"},
      {"read line && echo \"got [$line]\"", "one line\n", 5000, Status::kExited, 0, "got [one line]\n", "exit status 0"},
      {"echo partial; exit 3", "", 5000, Status::kExited, 3, "partial\n", "exit status 3"},
      {"/nonexistent/program 2>/dev/null", "", 5000, Status::kExited, 127, "", "exit status 127"},
      {"kill -TERM $$", "", 5000, Status::kSignaled, SIGTERM, "", "killed by signal 15"},
      // The background sleep holds the output open too: it must be killed with the shell.
      {"sleep 30 & sleep 30", "", 200, Status::kTimedOut, 0, "", "still running after 200 ms"},
      // The exit counts, not the end of the output; one that never exits meets the limit.
      {"exec >&-; sleep 0.2; exit 4", "", 5000, Status::kExited, 4, "", "exit status 4"},
      {"exec >&-; sleep 30", "", 200, Status::kTimedOut, 0, "", "still running after 200 ms"},
      {"tr '\\0' y < /dev/zero", "", 5000, Status::kTooLarge, 0, std::string(1000, 'y'), "..."},
      {"head -c 1000 /dev/zero | tr '\\0' x", "", 5000, Status::kExited, 0, std::string(1000, 'x'), "exit status 0"},
      // Far more input than a pipe holds, to a command that reads none: the writer gives up.
      {"echo done", big, 5000, Status::kExited, 0, "done\n", "exit status 0"},
      // Both directions at once must make progress.
      {"cat", flowing, 5000, Status::kExited, 0, flowing, "exit status 0"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.command);
    // A limit of 1000 bytes, exactly met by one row and passed by another.
    const size_t limit = row.output.size() > 1000 ? kMaxCommandOutput : 1000;
    CommandResult r = run_command(row.command, row.input, row.timeout_ms, limit);
    EXPECT_EQ(row.status, r.status);
    EXPECT_EQ(row.code, row.status == Status::kSignaled ? r.signal : row.status == Status::kExited ? r.exit_code : 0);
    EXPECT_EQ(row.output, r.output);
    if (row.status != Status::kTooLarge) {
      EXPECT_EQ(row.described, r.describe(row.timeout_ms));
    }
  }
}

TEST(RunCommand, SeveralThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<CommandResult> results(8);
  for (size_t i = 0; i < results.size(); ++i)
    threads.emplace_back([&results, i] { results[i] = run_command("cat; echo \" $0\"", "n" + std::to_string(i), 5000); });
  for (std::thread &t : threads) t.join();
  for (size_t i = 0; i < results.size(); ++i) EXPECT_EQ("n" + std::to_string(i) + " /bin/sh\n", results[i].output) << i;
}

TEST(RunCommand, OnlyTrailingNewlinesAreStripped) {
  EXPECT_EQ("a\nb", strip_trailing_newlines("a\nb\n\n"));
  EXPECT_EQ(" x \r", strip_trailing_newlines(" x \r\n"));
  EXPECT_EQ("", strip_trailing_newlines("\n"));
}

}  // namespace
}  // namespace vemo_cli
