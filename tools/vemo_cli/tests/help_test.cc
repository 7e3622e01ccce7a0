// --help, --version and usage errors of the built program: none of them touches the daemon.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli_process.h"

namespace vemo_cli_test {
namespace {

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST(Help, HelpAndVersionGoToStandardOutput) {
  const std::pair<std::vector<std::string>, std::string> calls[] = {
      {{"--help"}, "usage: vemo-cli [--quiet | --verbose]"},
      {{"-h"}, "usage: vemo-cli [--quiet | --verbose]"},
      {{"request", "--help"}, "usage: vemo-cli request [--timeout MS]"},
      {{"request", "--async", "-h"}, "usage: vemo-cli request [--timeout MS]"},
      {{"reconnect", "--help"}, "usage: vemo-cli reconnect\n"},
      {{"--verbose", "listen", "--help"}, "usage: vemo-cli listen [--hello TEXT]"},
      {{"--version"}, "vemo-cli 1."},
  };
  for (const auto &call : calls) {
    CliRun run = run_cli(call.first);
    EXPECT_EQ(0, run.status) << ::testing::PrintToString(call.first);
    EXPECT_EQ("", run.err) << ::testing::PrintToString(call.first);
    EXPECT_EQ(0u, run.out.find(call.second)) << run.out;
    EXPECT_TRUE(call.first[0] == "--version" || contains(run.out, "  3  the daemon is not running"))
        << run.out;
  }
}

// Every kind of mistake exits 2, says what is wrong and shows the usage on standard error.
TEST(Usage, MistakesExitTwoWithTheUsage) {
  const std::pair<std::vector<std::string>, std::string> calls[] = {
      {{}, "vemo-cli: a command is missing\n"},
      {{"fetch"}, "vemo-cli: unknown command 'fetch'\n"},
      {{"request"}, "vemo-cli: request: the request text is missing\n"},
      {{"request", "--bogus", "hi"}, "vemo-cli: request: unknown option '--bogus'\n"},
      {{"request", "a", "b"}, "vemo-cli: request: one request text expected"},
      {{"request", "--timeout", "soon", "x"}, "vemo-cli: request: invalid value 'soon'"},
      {{"request", "--wait", "1", "x"}, "vemo-cli: request: --wait needs --async\n"},
      {{"listen", "--answer", "a", "--exec", "b"}, "vemo-cli: listen: --answer and --exec"},
      {{"listen", "--count"}, "vemo-cli: listen: option --count needs a value\n"},
      {{"reconnect", "extra"}, "vemo-cli: reconnect: unexpected argument 'extra'\n"},
      {{"--timeout", "1", "request", "x"}, "vemo-cli: unknown option '--timeout'\n"},
  };
  for (const auto &call : calls) {
    CliRun run = run_cli(call.first);
    EXPECT_EQ(2, run.status) << ::testing::PrintToString(call.first);
    EXPECT_EQ("", run.out) << ::testing::PrintToString(call.first);
    EXPECT_EQ(0u, run.err.find(call.second)) << run.err;
    EXPECT_TRUE(contains(run.err, "usage: vemo-cli")) << run.err;
    EXPECT_TRUE(contains(run.err, "Try 'vemo-cli ")) << run.err;
  }
}

}  // namespace
}  // namespace vemo_cli_test
