// vemo-cli's command line, outputs and exit statuses: one run of the built program per row,
// against the in-process daemon set up by the row.
#include <functional>
#include <string>
#include <vector>

#include "cli_support.h"

namespace vemo_cli_test {
namespace {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

const std::string kAbsent = "/tmp/vemo_cli_test_no_daemon.sock";
const std::string kRange = " (expected an integer from 1 to 2147483647)\nusage: vemo-cli...";
const std::string kNoDaemon = "error -1100: the cloud-service daemon is not running (no socket)\n";
const std::string kRefused7 = "vemo-cli: request: refused by the daemon with code -7: unknown code\n";

// The daemon answers a request with one of its own frames instead of the usual answers.
std::function<void(CloudDaemon &)> answering(std::function<void(CloudDaemon &, const Received &)> f) {
  return [f](CloudDaemon &d) {
    d.set_handler([f](CloudDaemon &self, const Received &r) {
      if (r.method != "device_request") return false;
      f(self, r);
      return true;
    });
  };
}

class Cli : public DaemonTest {};

TEST_F(Cli, ArgumentsOutputsAndExitStatuses) {
  struct Row {
    std::vector<std::string> args;
    std::function<void(CloudDaemon &)> setup;
    int status;
    std::string out, err;  // with "..." for any text
  };
  const auto none = [](CloudDaemon &) {};
  // The cloud fails the request: a response notification with its code that names it.
  const auto fail = answering([](CloudDaemon &d, const Received &r) {
    d.send_text(R"({"inner_id":)" + std::to_string(r.id) + R"(,"inner_error_code":0,"inner_result":{"id":1000}})", r.conn);
    d.send_text(R"({"inner_error_code":-7,"inner_result":{"id":1000}})", r.conn);
  });
  const auto ack7 = [](CloudDaemon &d) { d.set_ack_code("device_request", -7); };
  const auto drop = [](CloudDaemon &d) { d.set_drop_response(true); };
  const Row rows[] = {
      // Usage errors: status 2, the fault, the usage and a hint on standard error.
      {{}, none, 2, "", "vemo-cli: a command is missing\nusage: vemo-cli...Try 'vemo-cli --help' for more.\n"},
      {{"fetch"}, none, 2, "", "vemo-cli: unknown command 'fetch'\nusage: vemo-cli..."},
      {{"--timeout", "1", "request", "x"}, none, 2, "", "vemo-cli: unknown option '--timeout'\n..."},
      {{"request"}, none, 2, "", "vemo-cli: request: the request text is missing\nusage: vemo-cli request...Try 'vemo-cli request --help'..."},
      {{"request", "a", "b"}, none, 2, "", "vemo-cli: request: one request text expected, got 2 (quote a text with spaces)\n..."},
      {{"request", "--wait", "5", "x"}, none, 2, "", "vemo-cli: request: --wait needs --async\n..."},
      {{"request", "--timeout"}, none, 2, "", "vemo-cli: request: option --timeout needs a value\n..."},
      {{"request", "--async=1", "x"}, none, 2, "", "vemo-cli: request: option --async takes no value\n..."},
      {{"request", "-5"}, none, 2, "", "vemo-cli: request: unknown option '-5'\n..."},
      {{"request", "--count", "1", "x"}, none, 2, "", "vemo-cli: request: unknown option '--count'\n..."},
      {{"request", "--timeout", "0", "x"}, none, 2, "", "vemo-cli: request: invalid value '0' for --timeout" + kRange},
      {{"request", "--timeout", "12ms", "x"}, none, 2, "", "vemo-cli: request: invalid value '12ms' for --timeout" + kRange},
      {{"request", "--timeout", "2147483648", "x"}, none, 2, "", "vemo-cli: request: invalid value '2147483648' for --timeout" + kRange},
      {{"listen", "--count", "0"}, none, 2, "", "vemo-cli: listen: invalid value '0' for --count" + kRange},
      {{"listen", "--for", "2147484"}, none, 2, "", "vemo-cli: listen: invalid value '2147484' for --for (expected an integer from 1 to 2147483)\n..."},
      {{"listen", "--exec", "b", "--answer", "a"}, none, 2, "", "vemo-cli: listen: --answer and --exec exclude each other\n..."},
      {{"listen", "--exec-timeout", "5"}, none, 2, "", "vemo-cli: listen: --exec-timeout needs --exec\n..."},
      {{"listen", "--answer"}, none, 2, "", "vemo-cli: listen: option --answer needs a value\n..."},
      {{"reconnect", "now"}, none, 2, "", "vemo-cli: reconnect: unexpected argument 'now'\n..."},
      {{"reconnect", "--json=yes"}, none, 2, "", "vemo-cli: reconnect: option --json takes no value\n..."},
      {{"--socket=", "reconnect"}, none, 2, "", "vemo-cli: invalid value '' for --socket (expected a path of 1 to 107 bytes)\n..."},
      {{"--socket", std::string(108, 's'), "reconnect"}, none, 2, "", "vemo-cli: invalid value 'sss...' for --socket (expected a path of 1 to 107 bytes)\n..."},
      // --help and --version: standard output, status 0, the command's own requirements waived.
      {{"--help"}, none, 0, "usage: vemo-cli [--quiet | --verbose]...\n  3  the daemon is not running (-1100)\n...", ""},
      {{"request", "--async", "-h"}, none, 0, "usage: vemo-cli request [--timeout MS]...--socket PATH...exit status:\n...", ""},
      {{"-v", "listen", "--help"}, none, 0, "usage: vemo-cli listen [--hello TEXT]...  4  disconnected...", ""},
      {{"--version"}, none, 0, "vemo-cli 1...\n", ""},
      // No daemon: status 3 for every command.
      {{"--socket", kAbsent, "request", "ping"}, none, 3, "", "vemo-cli: request: " + kNoDaemon},
      {{"request", "--async", "--socket=" + kAbsent, "ping"}, none, 3, "", "vemo-cli: request: " + kNoDaemon},
      {{"--socket", kAbsent, "reconnect"}, none, 3, "", "vemo-cli: reconnect: " + kNoDaemon},
      {{"--socket", kAbsent, "listen", "--answer", "x"}, none, 3, "", "vemo-cli: listen: registering: " + kNoDaemon},
      // Requests: the response as it is, or the code of the failure.
      {{"request", "hello device"}, none, 0, "hello device\n", ""},
      {{"request", "--", "--not-an-option"}, none, 0, "--not-an-option\n", ""},
      {{"request", ""}, none, 0, "\n", ""},
      {{"request", "x"}, [](CloudDaemon &d) { d.set_response_fixed("line one\nline two\ttab \\ end"); }, 0, "line one\nline two\ttab \\ end\n", ""},
      {{"request", "--async", "ping"}, [](CloudDaemon &d) { d.set_next_request_id(1205); }, 0, "1205\nping\n", ""},
      {{"request", "--async", "--wait", "200", "ping"}, drop, 5, "1000\n", "vemo-cli: request: no response for request 1000 within 200 ms\n"},
      {{"request", "--timeout", "300", "ping"}, drop, 5, "", "vemo-cli: request: error -20002: timed out waiting for the daemon\n"},
      {{"request", "--timeout", "300", "ping"}, [](CloudDaemon &d) { d.set_drop_ack(true); }, 5, "", "vemo-cli: request: error -20002: timed out waiting for the daemon\n"},
      {{"request", "ping"}, ack7, 6, "", kRefused7},
      {{"request", "--async", "ping"}, ack7, 6, "", kRefused7},
      {{"request", "x"}, fail, 6, "", kRefused7},
      {{"request", "--async", "x"}, fail, 6, "1000\n", kRefused7},
      // The daemon orders a teardown instead of acknowledging.
      {{"request", "x"}, answering([](CloudDaemon &d, const Received &r) { d.send_server_notify(1, r.conn); }), 4, "",
       "vemo-cli: request: error -1101: not connected: connecting or sending failed, or the client was torn down\n"},
      {{"reconnect"}, none, 0, "", ""},
      {{"reconnect"}, [](CloudDaemon &d) { d.set_ack_code("reconnect_cloud", -9); }, 6, "", "vemo-cli: reconnect: refused by the daemon with code -9: unknown code\n"},
      // A daemon code that is one of the library's cannot be told apart from it.
      {{"reconnect"}, [](CloudDaemon &d) { d.set_ack_code("reconnect_cloud", -20103); }, 7, "",
       "vemo-cli: reconnect: error -20103: unknown method, or no handler registered for it\n"},
      {{"--verbose", "request", "the answer"}, none, 0, "... | - ...\nthe answer\n...", ""},
      {{"-v", "request", "--quiet", "the answer"}, none, 0, "the answer\n", ""},
      // --json: one object per result, with the time and the ids there are.
      {{"--json", "request", "say \"hi\""}, none, 0, "{\"time\":T,\"event\":\"response\",\"response\":\"say \\\"hi\\\"\"}\n", ""},
      {{"request", "--json", "--async", "x"}, none, 0,
       "{\"time\":T,\"event\":\"accepted\",\"id\":1000}\n{\"time\":T,\"event\":\"response\",\"id\":1000,\"response\":\"x\"}\n", ""},
      {{"--json", "reconnect"}, none, 0, "{\"time\":T,\"event\":\"reconnected\"}\n", ""},
      {{"--json", "request", "x"}, ack7, 6,
       "{\"time\":T,\"event\":\"error\",\"step\":\"request\",\"code\":-7,\"message\":\"unknown code\"}\n", kRefused7},
      {{"--json", "request", "--async", "--wait", "100", "x"}, drop, 5,
       "{\"time\":T,\"event\":\"accepted\",\"id\":1000}\n"
       "{\"time\":T,\"event\":\"error\",\"message\":\"request: no response for request 1000 within 100 ms\"}\n",
       "vemo-cli: request: no response for request 1000 within 100 ms\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    daemon_.set_behaviour(vemo::cloudd::Behaviour());
    daemon_.set_response_delay_ms(0);
    daemon_.set_next_request_id(1000);
    daemon_.set_handler(nullptr);
    row.setup(daemon_);
    tools_test::ProgramRun run = tools_test::run_program(cli_argv(row.args), kWaitMs);
    EXPECT_EQ(row.status, run.status);
    EXPECT_TRUE(matches(run.out, row.out)) << run.out;
    EXPECT_TRUE(matches(run.err, row.err)) << run.err;
  }
}

TEST_F(Cli, TimeoutAndFlagReachTheDaemon) {
  for (const auto &row : {std::make_pair(std::vector<std::string>{"request", "--timeout", "1500", "--flag=-42", "x"},
                                         std::make_pair(1500, -42)),
                          std::make_pair(std::vector<std::string>{"request", "x"}, std::make_pair(5000, 0))}) {
    const std::size_t from = daemon_.received().size();
    EXPECT_EQ(0, tools_test::run_program(cli_argv(row.first), kWaitMs).status);
    auto request = daemon_.wait_for_method("device_request", kWaitMs, from);
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(row.second.first, request->timeout_ms);
    EXPECT_EQ(row.second.second, request->flag);
  }
}

}  // namespace
}  // namespace vemo_cli_test
