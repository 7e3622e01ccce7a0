// `request` and `reconnect` end to end: the built program against the in-process daemon.
#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "cli_process.h"

namespace vemo_cli_test {
namespace {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// The JSON lines with every "time" value replaced by T, once it has the RFC 3339 UTC form.
std::string timeless(const std::string &out) {
  static const std::regex stamp("\"time\":\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z\"");
  return std::regex_replace(out, stamp, "\"time\":T");
}

class DaemonRequest : public DaemonTest {
 protected:
  std::vector<Received> DeviceRequests() {
    std::vector<Received> out;
    for (const Received &r : daemon_.received())
      if (r.method == "device_request") out.push_back(r);
    return out;
  }
};

// One run per row against a daemon set up by the row: exit status and both outputs, exactly.
TEST_F(DaemonRequest, OutcomesAndTheirOutput) {
  struct Row {
    std::function<void(CloudDaemon &)> setup;
    std::vector<std::string> args;
    int status;
    std::string out, err;
  };
  // The cloud fails the request: a response notification with its code that names it.
  const auto fail_request = [](CloudDaemon &d) {
    d.set_handler([](CloudDaemon &self, const Received &r) {
      if (r.method != "device_request") return false;
      self.send_text(R"({"inner_id":)" + std::to_string(r.id) +
                         R"(,"inner_error_code":0,"inner_result":{"id":1000}})",
                     r.conn);
      self.send_text(R"({"inner_error_code":-7,"inner_result":{"id":1000}})", r.conn);
      return true;
    });
  };
  const std::string teardown_error =
      "vemo-cli: request: error -1101: not connected: connecting or sending failed, or the client "
      "was torn down\n";
  const Row rows[] = {
      {[](CloudDaemon &) {}, {"request", "hello device"}, 0, "hello device\n", ""},
      {[](CloudDaemon &d) { d.set_response_fixed("line one\nline two\ttab \\ end"); },
       {"request", "x"}, 0, "line one\nline two\ttab \\ end\n", ""},
      {[](CloudDaemon &d) { d.set_next_request_id(1205); }, {"request", "--async", "ping"}, 0,
       "1205\nping\n", ""},
      {[](CloudDaemon &d) { d.set_drop_response(true); },
       {"request", "--async", "--wait", "200", "ping"}, 5, "1000\n",
       "vemo-cli: request: no response for request 1000 within 200 ms\n"},
      {[](CloudDaemon &d) { d.set_drop_response(true); }, {"request", "--timeout", "300", "ping"}, 5,
       "", "vemo-cli: request: error -20002: timed out waiting for the daemon\n"},
      {[](CloudDaemon &d) { d.set_drop_ack(true); }, {"request", "--timeout", "300", "ping"}, 5, "",
       "vemo-cli: request: error -20002: timed out waiting for the daemon\n"},
      {[](CloudDaemon &d) { d.set_ack_code("device_request", -7); }, {"request", "ping"}, 6, "",
       "vemo-cli: request: refused by the daemon with code -7: unknown code\n"},
      {[](CloudDaemon &d) { d.set_ack_code("device_request", -7); }, {"request", "--async", "ping"},
       6, "", "vemo-cli: request: refused by the daemon with code -7: unknown code\n"},
      // The daemon orders a teardown instead of acknowledging.
      {[](CloudDaemon &d) {
         d.set_handler([](CloudDaemon &self, const Received &r) {
           if (r.method != "device_request") return false;
           self.send_server_notify(1, r.conn);
           return true;
         });
       },
       {"request", "x"}, 4, "", teardown_error},
      {fail_request, {"request", "x"}, 6, "",
       "vemo-cli: request: refused by the daemon with code -7: unknown code\n"},
      {fail_request, {"request", "--async", "x"}, 6, "1000\n",
       "vemo-cli: request: refused by the daemon with code -7: unknown code\n"},
      {[](CloudDaemon &) {}, {"reconnect"}, 0, "", ""},
      {[](CloudDaemon &d) { d.set_ack_code("reconnect_cloud", -9); }, {"reconnect"}, 6, "",
       "vemo-cli: reconnect: refused by the daemon with code -9: unknown code\n"},
      // A daemon code that is one of the library's cannot be told apart from it.
      {[](CloudDaemon &d) { d.set_ack_code("reconnect_cloud", -20103); }, {"reconnect"}, 7, "",
       "vemo-cli: reconnect: error -20103: unknown method, or no handler registered for it\n"},
      // --json: one object per result, with the time and the ids there are.
      {[](CloudDaemon &) {}, {"--json", "request", "say \"hi\""}, 0,
       "{\"time\":T,\"event\":\"response\",\"response\":\"say \\\"hi\\\"\"}\n", ""},
      {[](CloudDaemon &) {}, {"request", "--json", "--async", "x"}, 0,
       "{\"time\":T,\"event\":\"accepted\",\"id\":1000}\n"
       "{\"time\":T,\"event\":\"response\",\"id\":1000,\"response\":\"x\"}\n",
       ""},
      {[](CloudDaemon &) {}, {"--json", "reconnect"}, 0, "{\"time\":T,\"event\":\"reconnected\"}\n",
       ""},
      {[](CloudDaemon &d) { d.set_ack_code("device_request", -7); }, {"--json", "request", "x"}, 6,
       "{\"time\":T,\"event\":\"error\",\"step\":\"request\",\"code\":-7,\"message\":\"unknown "
       "code\"}\n",
       "vemo-cli: request: refused by the daemon with code -7: unknown code\n"},
      {[](CloudDaemon &d) { d.set_drop_response(true); },
       {"--json", "request", "--async", "--wait", "100", "x"}, 5,
       "{\"time\":T,\"event\":\"accepted\",\"id\":1000}\n"
       "{\"time\":T,\"event\":\"error\",\"message\":\"request: no response for request 1000 "
       "within 100 ms\"}\n",
       "vemo-cli: request: no response for request 1000 within 100 ms\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    daemon_.set_behaviour(vemo::cloudd::Behaviour());
    daemon_.set_response_delay_ms(0);
    daemon_.set_next_request_id(1000);
    daemon_.set_handler(nullptr);
    row.setup(daemon_);
    CliRun run = run_cli(row.args);
    EXPECT_EQ(row.status, run.status);
    EXPECT_EQ(row.out, timeless(run.out));
    EXPECT_EQ(row.err, run.err);
  }
}

TEST_F(DaemonRequest, TimeoutAndFlagReachTheDaemon) {
  CliRun run = run_cli({"request", "--timeout", "1500", "--flag=-42", "cli flag"});
  EXPECT_EQ(0, run.status) << run.err;
  ASSERT_EQ(1u, DeviceRequests().size());
  EXPECT_EQ(1500, DeviceRequests()[0].timeout_ms);
  EXPECT_EQ(-42, DeviceRequests()[0].flag);
  run = run_cli({"request", "defaults"});
  ASSERT_EQ(2u, DeviceRequests().size());
  EXPECT_EQ(5000, DeviceRequests()[1].timeout_ms);
  EXPECT_EQ(0, DeviceRequests()[1].flag);
}

TEST_F(DaemonRequest, VerboseLetsTheLibraryLogThrough) {
  CliRun run = run_cli({"--verbose", "request", "the answer"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_TRUE(contains(run.out, " | - ")) << run.out;  // a log line of the library
  EXPECT_TRUE(contains(run.out, "\nthe answer\n")) << run.out;
}

TEST_F(DaemonRequest, AsyncIdComesBeforeTheResponseIsThere) {
  // The response is held back until the id has been printed.
  vemo::cloudd::Behaviour hold;
  hold.hold_responses = true;
  daemon_.set_behaviour(hold);
  CliProcess cli;
  ASSERT_TRUE(cli.start({"request", "--async", "--wait", "8000", "cli late ping"}));
  ASSERT_TRUE(cli.wait_for_line([](const std::string &l) { return l == "1000"; }));
  EXPECT_EQ(1, daemon_.respond_held(1000, "late pong"));
  EXPECT_EQ(0, cli.wait_exit());
  EXPECT_EQ("1000\nlate pong\n", cli.out());
}

TEST(DaemonAbsent, EveryCommandGivesStatusThree) {
  const std::string message = "error -1100: the cloud-service daemon is not running (no socket)\n";
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"request", "ping"}, "vemo-cli: request: " + message},
      {{"request", "--async", "ping"}, "vemo-cli: request: " + message},
      {{"reconnect"}, "vemo-cli: reconnect: " + message},
      {{"listen", "--answer", "x"}, "vemo-cli: listen: registering: " + message},
  };
  for (const auto &row : rows) {
    CliRun run = run_cli(row.first);
    EXPECT_EQ(3, run.status);
    EXPECT_EQ("", run.out);
    EXPECT_EQ(row.second, run.err);
  }
}

}  // namespace
}  // namespace vemo_cli_test
