// `request` and `reconnect` end to end: the built program against the in-process daemon.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Other processes may talk to the daemon too (it serves the shared path): the tests send texts of
// their own and look for those.
std::vector<Received> device_requests(const CloudDaemon &daemon, const std::string &text) {
  std::vector<Received> out;
  for (const Received &r : daemon.received())
    if (r.method == "device_request" && r.request == text) out.push_back(r);
  return out;
}

class DaemonRequest : public DaemonTest {
 protected:
  // reconnect_cloud messages that came alone on their connection, as the tool sends them.
  int LoneReconnects() {
    int n = 0;
    for (const Received &r : daemon_.received())
      if (r.method == "reconnect_cloud" && ReceivedOn(r.conn).size() == 1) ++n;
    return n;
  }
};

TEST_F(DaemonRequest, SyncPrintsTheResponseAndNothingElse) {
  CliRun run = run_cli({"request", "hello device"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("hello device\n", run.out);  // quiet by default: no log line
  EXPECT_EQ("", run.err);
  std::vector<Received> requests = device_requests(daemon_, "hello device");
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ(5000, requests[0].timeout_ms);
  EXPECT_EQ(0, requests[0].flag);
}

TEST_F(DaemonRequest, TimeoutAndFlagReachTheDaemon) {
  CliRun run = run_cli({"request", "--timeout", "1500", "--flag=-42", "cli flag"});
  EXPECT_EQ(0, run.status) << run.err;
  std::vector<Received> requests = device_requests(daemon_, "cli flag");
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ(1500, requests[0].timeout_ms);
  EXPECT_EQ(-42, requests[0].flag);
}

TEST_F(DaemonRequest, ResponseIsPrintedVerbatim) {
  daemon_.set_response_fixed("line one\nline two\ttab \\ end");
  CliRun run = run_cli({"request", "x"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("line one\nline two\ttab \\ end\n", run.out);
}

TEST_F(DaemonRequest, VerboseLetsTheLibraryLogThrough) {
  CliRun run = run_cli({"--verbose", "request", "the answer"});
  EXPECT_EQ(0, run.status) << run.err;
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl = run.out.find('\n'); nl != std::string::npos; nl = run.out.find('\n', start)) {
    lines.push_back(run.out.substr(start, nl - start));
    start = nl + 1;
  }
  int log_lines = 0;
  bool response_line = false;
  for (const std::string &line : lines) {
    if (contains(line, " | - ")) ++log_lines;
    if (line == "the answer") response_line = true;
  }
  EXPECT_GT(log_lines, 0) << run.out;
  EXPECT_TRUE(response_line) << run.out;
}

TEST_F(DaemonRequest, AsyncPrintsTheIdThenTheResponse) {
  daemon_.set_next_request_id(1205);
  daemon_.set_response_delay_ms(50);
  CliRun run = run_cli({"request", "--async", "ping"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("1205\nping\n", run.out);
  EXPECT_EQ("", run.err);
  EXPECT_EQ(1u, device_requests(daemon_, "ping").size());
}

TEST_F(DaemonRequest, AsyncIdComesBeforeTheResponseIsThere) {
  // The response is held back until the id has been printed.
  daemon_.set_drop_response(true);
  CliProcess cli;
  ASSERT_TRUE(cli.start({"request", "--async", "--wait", "8000", "cli late ping"}));
  ASSERT_TRUE(cli.wait_for_line([](const std::string &l) { return l == "1000"; }));
  auto request = daemon_.wait_for_message(
      [](const Received &r) { return r.method == "device_request" && r.request == "cli late ping"; },
      kWaitMs);
  ASSERT_TRUE(request.has_value());
  // The notification of request 1000, as the daemon would send it.
  EXPECT_EQ(1, daemon_.send_text(
                   R"({"inner_error_code":0,"inner_result":{"id":1000,"response":"late pong"}})",
                   request->conn));
  EXPECT_EQ(0, cli.wait_exit());
  EXPECT_EQ("1000\nlate pong\n", cli.out());
}

TEST_F(DaemonRequest, AsyncWithoutResponseTimesOut) {
  daemon_.set_drop_response(true);
  CliRun run = run_cli({"request", "--async", "--wait", "200", "ping"});
  EXPECT_EQ(5, run.status);
  EXPECT_EQ("1000\n", run.out);
  EXPECT_EQ("vemo-cli: request: no response for request 1000 within 200 ms\n", run.err);
}

TEST_F(DaemonRequest, SyncWithoutResponseTimesOut) {
  daemon_.set_drop_response(true);
  CliRun run = run_cli({"request", "--timeout", "300", "ping"});
  EXPECT_EQ(5, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_EQ("vemo-cli: request: error -20002: timed out waiting for the daemon\n", run.err);
}

TEST_F(DaemonRequest, NoAcknowledgementTimesOut) {
  daemon_.set_drop_ack(true);
  CliRun run = run_cli({"request", "--timeout", "300", "ping"});
  EXPECT_EQ(5, run.status);
  EXPECT_TRUE(contains(run.err, "error -20002")) << run.err;
}

TEST_F(DaemonRequest, RefusalGivesStatusSix) {
  daemon_.set_ack_code("device_request", -7);
  CliRun run = run_cli({"request", "ping"});
  EXPECT_EQ(6, run.status);
  EXPECT_EQ("", run.out);  // the library's ERROR lines stay out of the output
  EXPECT_EQ("vemo-cli: request: refused by the daemon with code -7: unknown code\n", run.err);

  run = run_cli({"request", "--async", "ping"});
  EXPECT_EQ(6, run.status);
  EXPECT_EQ("", run.out);  // no id: there is none
  EXPECT_EQ("vemo-cli: request: refused by the daemon with code -7: unknown code\n", run.err);
}

TEST_F(DaemonRequest, TeardownWhileWaitingGivesStatusFour) {
  // The daemon orders a teardown instead of acknowledging.
  daemon_.set_handler([](CloudDaemon &d, const Received &r) {
    if (r.method != "device_request" || r.request != "cli teardown") return false;
    d.send_server_notify(1, r.conn);
    return true;
  });
  CliRun run = run_cli({"request", "cli teardown"});
  EXPECT_EQ(4, run.status);
  EXPECT_EQ("vemo-cli: request: error -1101: not connected: connecting or sending failed, or the "
            "client was torn down\n",
            run.err);
}

TEST_F(DaemonRequest, ReconnectIsSilentOnSuccess) {
  CliRun run = run_cli({"reconnect"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.out);
  EXPECT_EQ("", run.err);
  EXPECT_EQ(1, LoneReconnects());
}

TEST_F(DaemonRequest, ReconnectRefused) {
  daemon_.set_ack_code("reconnect_cloud", -9);
  CliRun run = run_cli({"reconnect"});
  EXPECT_EQ(6, run.status);
  EXPECT_EQ("vemo-cli: reconnect: refused by the daemon with code -9: unknown code\n", run.err);
}

TEST_F(DaemonRequest, DaemonCodeThatIsALibraryCodeIsReportedAsSuch) {
  daemon_.set_ack_code("reconnect_cloud", -20103);
  CliRun run = run_cli({"reconnect"});
  EXPECT_EQ(7, run.status);
  EXPECT_EQ("vemo-cli: reconnect: error -20103: unknown method, or no handler registered for it\n",
            run.err);
}

// No daemon at all. Other processes may serve the path at any moment; a run that met one is
// repeated once it has gone.
CliRun run_without_daemon(const std::vector<std::string> &args) {
  CliRun run;
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (!wait_path_free()) break;
    struct stat st;
    if (lstat(vemo::cloudd::kDefaultSocketPath, &st) == 0) unlink(vemo::cloudd::kDefaultSocketPath);
    run = run_cli(args);
    if (run.status == 3) break;
  }
  return run;
}

TEST(DaemonAbsent, EveryCommandGivesStatusThree) {
  const std::string message =
      "error -1100: the cloud-service daemon is not running (no socket)\n";
  CliRun run = run_without_daemon({"request", "ping"});
  EXPECT_EQ(3, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_EQ("vemo-cli: request: " + message, run.err);

  run = run_without_daemon({"request", "--async", "ping"});
  EXPECT_EQ(3, run.status);
  EXPECT_EQ("", run.out);

  run = run_without_daemon({"reconnect"});
  EXPECT_EQ(3, run.status);
  EXPECT_EQ("vemo-cli: reconnect: " + message, run.err);

  run = run_without_daemon({"listen", "--answer", "x"});
  EXPECT_EQ(3, run.status);
  EXPECT_EQ("vemo-cli: listen: registering: " + message, run.err);
}

}  // namespace
}  // namespace vemo_cli_test
