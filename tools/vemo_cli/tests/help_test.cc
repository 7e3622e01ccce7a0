// --help and usage errors of the built program: neither touches the daemon.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli_process.h"

namespace vemo_cli_test {
namespace {

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(Help, EveryCommandHasHelpOnStandardOutput) {
  const std::vector<std::vector<std::string>> calls = {
      {"--help"}, {"-h"}, {"request", "--help"}, {"request", "--async", "-h"},
      {"reconnect", "--help"}, {"listen", "--help"}, {"--verbose", "listen", "--help"}};
  for (const auto &args : calls) {
    CliRun run = run_cli(args);
    EXPECT_EQ(0, run.status) << ::testing::PrintToString(args);
    EXPECT_EQ("", run.err) << ::testing::PrintToString(args);
    EXPECT_TRUE(contains(run.out, "usage: vemo-cli")) << run.out;
    EXPECT_TRUE(contains(run.out, "exit status:")) << run.out;
    EXPECT_TRUE(contains(run.out, "  3  the daemon is not running (-1100)")) << run.out;
  }
}

TEST(Help, ProgramHelpListsTheCommands) {
  CliRun run = run_cli({"--help"});
  ASSERT_EQ(0, run.status);
  for (const char *command : {"request", "reconnect", "listen"})
    EXPECT_TRUE(contains(run.out, std::string("\n  ") + command + " ")) << command;
}

TEST(Help, CommandHelpShowsItsOwnOptions) {
  EXPECT_TRUE(contains(run_cli({"request", "--help"}).out, "--async"));
  EXPECT_TRUE(contains(run_cli({"listen", "--help"}).out, "--exec COMMAND"));
  EXPECT_TRUE(contains(run_cli({"reconnect", "--help"}).out, "usage: vemo-cli reconnect\n"));
}

TEST(Usage, BadOptionExitsTwoWithTheUsageOnStandardError) {
  CliRun run = run_cli({"request", "--bogus", "hi"});
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(contains(run.err, "vemo-cli: request: unknown option '--bogus'\n")) << run.err;
  EXPECT_TRUE(contains(run.err, "usage: vemo-cli request [--timeout MS]")) << run.err;
  EXPECT_TRUE(contains(run.err, "Try 'vemo-cli request --help'")) << run.err;
}

TEST(Usage, EveryKindOfMistakeExitsTwo) {
  const std::vector<std::vector<std::string>> calls = {
      {}, {"fetch"}, {"request"}, {"request", "a", "b"}, {"request", "--timeout", "soon", "x"},
      {"request", "--wait", "1", "x"}, {"listen", "--answer", "a", "--exec", "b"},
      {"listen", "--count"}, {"reconnect", "extra"}, {"--timeout", "1", "request", "x"}};
  for (const auto &args : calls) {
    CliRun run = run_cli(args);
    EXPECT_EQ(2, run.status) << ::testing::PrintToString(args);
    EXPECT_EQ("", run.out) << ::testing::PrintToString(args);
    EXPECT_TRUE(contains(run.err, "usage: vemo-cli")) << run.err;
  }
}

TEST(Usage, MissingCommandShowsTheProgramUsage) {
  CliRun run = run_cli({});
  EXPECT_EQ(2, run.status);
  EXPECT_TRUE(contains(run.err, "vemo-cli: a command is missing\n")) << run.err;
  EXPECT_TRUE(contains(run.err, "Try 'vemo-cli --help'")) << run.err;
}

}  // namespace
}  // namespace vemo_cli_test
