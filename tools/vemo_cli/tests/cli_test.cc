// vemo-cli as built, run against the in-process daemon on a socket path of this test process's
// own (so that cases in parallel processes, and /tmp/cloud_svr, never meet): its command line,
// outputs and exit statuses, and `listen`; and `listen` against the daemon program.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "child_process.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace vemo_cli_test {
namespace {

using tools_test::ChildProcess;
using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

constexpr int kWaitMs = 10000;  // only a hang reaches it

const std::string &test_socket_path() {
  static const std::string path = "/tmp/vemo_cli_test_" + std::to_string(getpid()) + ".sock";
  return path;
}

// The program, --socket test_socket_path(), then args (a later --socket wins).
std::vector<std::string> cli_argv(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {VEMO_CLI_PATH, "--socket", test_socket_path()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

// want with every "..." standing for any text; "time":"<RFC 3339 UTC>" matches "time":T.
bool matches(const std::string &got, const std::string &want) {
  static const std::regex stamp("\"time\":\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z\"");
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::string pattern = std::regex_replace(want, special, "\\$&");
  for (std::size_t at; (at = pattern.find("\\.\\.\\.")) != std::string::npos;) pattern.replace(at, 6, "[\\s\\S]*");
  return std::regex_match(std::regex_replace(got, stamp, "\"time\":T"), std::regex(pattern));
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// The in-process daemon, with no response delay, which keeps the tests quick.
class DaemonTest : public ::testing::Test {
 public:  // for the rows' lambdas
  void SetUp() override { ASSERT_EQ(0, daemon_.start()) << daemon_.last_error(); }
  // Back to the defaults of the tests, before each row.
  void Reset() {
    daemon_.set_behaviour(vemo::cloudd::Behaviour());
    daemon_.set_response_delay_ms(0);
    daemon_.set_next_request_id(1000);
    daemon_.set_handler(nullptr);
  }
  CloudDaemon daemon_{test_socket_path()};
};

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
  // The response tells the request's timeout_ms and flag as the daemon received them.
  const auto params = answering([](CloudDaemon &d, const Received &r) {
    d.send_text(R"({"inner_id":)" + std::to_string(r.id) + R"(,"inner_error_code":0,"inner_result":{"id":1000}})", r.conn);
    d.send_text(R"({"inner_error_code":0,"inner_result":{"id":1000,"response":")" + std::to_string(r.timeout_ms) + " " + std::to_string(r.flag) + "\"}}", r.conn);
  });
  const Row rows[] = {
      // Usage errors: status 2, the fault, the usage and a hint on standard error.
      {{}, none, 2, "", "vemo-cli: a command is missing\nusage: vemo-cli...Try 'vemo-cli --help' for more.\n"},
      {{"fetch"}, none, 2, "", "vemo-cli: unknown command 'fetch'\nusage: vemo-cli..."},
      {{"--timeout", "1", "request", "x"}, none, 2, "", "vemo-cli: unknown option '--timeout'\n..."},
      {{"request"}, none, 2, "", "vemo-cli: request: the request text is missing\nusage: vemo-cli request...Try 'vemo-cli request --help'..."},
      {{"request", "a", "b"}, none, 2, "", "vemo-cli: request: one request text expected, got 2 (quote a text with spaces)\n..."},
      {{"request", "--wait", "5", "x"}, none, 2, "", "vemo-cli: request: --wait needs --async\n..."},
      {{"request", "--timeout", "0", "x"}, none, 2, "", "vemo-cli: request: invalid value '0' for --timeout" + kRange},
      {{"request", "--timeout", "2147483648", "x"}, none, 2, "", "vemo-cli: request: invalid value '2147483648' for --timeout" + kRange},
      {{"listen", "--for", "2147484"}, none, 2, "", "vemo-cli: listen: invalid value '2147484' for --for (expected an integer from 1 to 2147483)\n..."},
      {{"listen", "--exec", "b", "--answer", "a"}, none, 2, "", "vemo-cli: listen: --answer and --exec exclude each other\n..."},
      {{"listen", "--answer"}, none, 2, "", "vemo-cli: listen: option --answer needs a value\n..."},
      {{"reconnect", "now"}, none, 2, "", "vemo-cli: reconnect: unexpected argument 'now'\n..."},
      {{"--socket=", "reconnect"}, none, 2, "", "vemo-cli: invalid value '' for --socket (expected a path of 1 to 107 bytes)\n..."},
      {{"--socket", std::string(108, 's'), "reconnect"}, none, 2, "", "vemo-cli: invalid value 'sss...' for --socket (expected a path of 1 to 107 bytes)\n..."},
      // --help and --version: standard output, status 0, the command's own requirements waived.
      {{"--help"}, none, 0, "usage: vemo-cli [--quiet | --verbose]...\n  3  the daemon is not running (-1100)\n...", ""},
      {{"request", "--async", "-h"}, none, 0, "usage: vemo-cli request [--timeout MS]...--socket PATH...exit status:\n...", ""},
      {{"-v", "listen", "--help"}, none, 0, "usage: vemo-cli listen [--hello TEXT]...  4  disconnected...", ""},
      {{"--version"}, none, 0, "vemo-cli 1...\n", ""},
      // No daemon: status 3 for every command.
      {{"--socket", kAbsent, "request", "ping"}, none, 3, "", "vemo-cli: request: " + kNoDaemon},
      {{"--socket", kAbsent, "reconnect"}, none, 3, "", "vemo-cli: reconnect: " + kNoDaemon},
      {{"--socket", kAbsent, "listen", "--answer", "x"}, none, 3, "", "vemo-cli: listen: registering: " + kNoDaemon},
      // Requests: the response as it is, or the code of the failure.
      {{"request", "hello device"}, none, 0, "hello device\n", ""},
      {{"request", "--timeout", "1500", "--flag=-42", "--", "-x"}, params, 0, "1500 -42\n", ""},
      {{"request", "x"}, params, 0, "5000 0\n", ""},
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
      // --json: one object per result, with the time and the ids there are.
      {{"--json", "request", "say \"hi\""}, none, 0, "{\"time\":T,\"event\":\"response\",\"response\":\"say \\\"hi\\\"\"}\n", ""},
      {{"request", "--json", "--async", "x"}, none, 0,
       "{\"time\":T,\"event\":\"accepted\",\"id\":1000}\n{\"time\":T,\"event\":\"response\",\"id\":1000,\"response\":\"x\"}\n", ""},
      {{"--json", "request", "x"}, ack7, 6,
       "{\"time\":T,\"event\":\"error\",\"step\":\"request\",\"code\":-7,\"message\":\"unknown code\"}\n", kRefused7},
      {{"--json", "request", "--async", "--wait", "100", "x"}, drop, 5,
       "{\"time\":T,\"event\":\"accepted\",\"id\":1000}\n"
       "{\"time\":T,\"event\":\"error\",\"message\":\"request: no response for request 1000 within 100 ms\"}\n",
       "vemo-cli: request: no response for request 1000 within 100 ms\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    Reset();
    row.setup(daemon_);
    tools_test::ProgramRun run = tools_test::run_program(cli_argv(row.args), kWaitMs);
    EXPECT_EQ(row.status, run.status);
    EXPECT_TRUE(matches(run.out, row.out)) << run.out;
    EXPECT_TRUE(matches(run.err, row.err)) << run.err;
  }
}

struct ListenRow;

class Listen : public DaemonTest {
 public:  // for the rows' lambdas
  // Starts the tool and waits until the daemon has its registration.
  void Start(const std::vector<std::string> &args) {
    cli_ = std::make_unique<ChildProcess>();
    const std::size_t from = daemon_.received().size();
    ASSERT_TRUE(cli_->start(cli_argv(args)));
    auto reg = daemon_.wait_for_method("register_callback", kWaitMs, from);
    ASSERT_TRUE(reg.has_value()) << "no registration; stderr: " << cli_->err();
    hello_cloud_ = reg->hello_cloud;
    conn_ = reg->conn;
  }
  // Sends a cloud request; the reply's text, or "-" for none within wait_ms.
  std::string Ask(const std::string &text, int wait_ms = kWaitMs) {
    int id = 0;
    EXPECT_EQ(1, daemon_.send_cloud_request(text, conn_, &id));
    auto reply = daemon_.wait_for_reply(id, wait_ms);
    return reply ? reply->response : "-";
  }
  void RunRows(const std::vector<ListenRow> &rows);
  std::unique_ptr<ChildProcess> cli_;
  int hello_cloud_ = -1;
  int conn_ = 0;
};

// One listen: started with args, driven by the row, then its status, outputs (with "..." for any
// text) and whether it withdrew its registration.
struct ListenRow {
  const char *name;
  std::function<void(CloudDaemon &)> setup;
  std::vector<std::string> args;
  std::function<void(Listen &)> drive;
  int status;
  std::string out, err;
  bool unregistered;
};

void Listen::RunRows(const std::vector<ListenRow> &rows) {
  for (const ListenRow &row : rows) {
    SCOPED_TRACE(row.name);
    Reset();
    row.setup(daemon_);
    Start(row.args);
    row.drive(*this);
    EXPECT_EQ(row.status, cli_->wait_exit(kWaitMs).value_or(-1000)) << cli_->err();
    EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));  // it has read all the tool sent
    EXPECT_TRUE(matches(cli_->out(), row.out)) << cli_->out();
    EXPECT_TRUE(matches(cli_->err(), row.err)) << cli_->err();
    EXPECT_EQ(row.unregistered, daemon_.wait_for_message([&](const Received &r) { return r.conn == conn_ && r.method == "unregister_callback"; }, 0).has_value());
  }
}

const auto none = [](CloudDaemon &) {};

// Each row's tool ends once its count of requests is answered.
TEST_F(Listen, AnswersEachRequestOrSaysWhyNot) {
  const auto unanswered = [](Listen &t) { EXPECT_EQ("-", t.Ask("ping", 300)); };
  RunRows({
      {"fixed answer", none, {"listen", "--answer", "pong", "--count", "1"},
       [](Listen &t) { EXPECT_EQ(0, t.hello_cloud_); EXPECT_EQ("pong", t.Ask("ping")); }, 0, "request: ping\n", "", true},
      {"a command's output, its trailing newline removed", none, {"listen", "--exec", "tr a-z A-Z", "--count", "1"},
       [](Listen &t) { EXPECT_EQ("SWITCH THE LIGHT ON", t.Ask("switch the light on")); }, 0, "request: switch the light on\n", "", true},
      {"requests at once each get their own answer", none, {"listen", "--exec", "cat", "--count", "3"},
       [](Listen &t) {
         int ids[3];
         for (int i = 0; i < 3; ++i) t.daemon_.send_cloud_request("r" + std::to_string(i), t.conn_, &ids[i]);
         for (int i = 0; i < 3; ++i) EXPECT_EQ("r" + std::to_string(i), t.daemon_.wait_for_reply(ids[i], kWaitMs).value_or(Received()).response);
       }, 0, "request: r...\nrequest: r...\nrequest: r...\n", "", true},
      {"failed command", none, {"listen", "--count", "1", "--exec", "echo half; exit 3"}, unanswered, 0,
       "request: ping\n", "vemo-cli: listen: command exit status 3; no answer sent\n", true},
      {"command over its time: its whole group killed", none, {"listen", "--count", "1", "--exec", "sleep 30 & sleep 30", "--exec-timeout", "200"}, unanswered, 0,
       "request: ping\n", "vemo-cli: listen: command still running after 200 ms; no answer sent\n", true},
      {"command's output too large", none, {"listen", "--count", "1", "--exec", "head -c 70000 /dev/zero"}, unanswered, 0,
       "request: ping\n", "vemo-cli: listen: command output larger than 65536 bytes; no answer sent\n", true},
      {"nothing to answer with", none, {"listen", "--count", "1"}, unanswered, 0, "request: ping\n", "", true},
      {"hello handlers", none, {"listen", "--hello", "hi from the field", "--answer", "x", "--count", "1"},
       [](Listen &t) {
         EXPECT_EQ(1, t.hello_cloud_);
         EXPECT_EQ(1, t.daemon_.send_hello_request(t.conn_));
         EXPECT_EQ("hi from the field", t.daemon_.wait_for_hello_reply(kWaitMs).value_or(Received()).response);
         EXPECT_EQ(1, t.daemon_.send_hello_response("welcome\nback\\\x01", t.conn_));
         ASSERT_TRUE(t.cli_->wait_for_line([](const std::string &l) { return has(l, "hello response"); }, kWaitMs));
         t.Ask("last");
       }, 0, "hello request\nhello response: welcome\\nback\\\\\\x01\nrequest: last\n", "", true},
      {"JSON lines number the requests", none, {"--json", "listen", "--exec", "exit 1", "--count", "2"},
       [](Listen &t) { t.Ask("one", 300); t.Ask("two \"q\"", 300); }, 0,
       "{\"time\":T,\"event\":\"request\",\"seq\":1,\"request\":\"one\"}\n"
       "{\"time\":T,\"event\":\"error\",\"message\":\"listen: command exit status 1; no answer sent\"}\n"
       "{\"time\":T,\"event\":\"request\",\"seq\":2,\"request\":\"two \\\"q\\\"\"}\n"
       "{\"time\":T,\"event\":\"error\",\"message\":\"listen: command exit status 1; no answer sent\"}\n", "...", true},
  });
}

TEST_F(Listen, StopsOnSignalsTimeAndFailures) {
  RunRows({
      {"SIGTERM", none, {"listen", "--answer", "x"}, [](Listen &t) { t.cli_->send_signal(SIGTERM); }, 0, "", "", true},
      {"SIGINT", none, {"listen", "--answer", "x"}, [](Listen &t) { t.cli_->send_signal(SIGINT); }, 0, "", "", true},
      // The daemon never acknowledges the unregistration; a second signal (the other one: both
      // were one-shot) ends the tool at once.
      {"second signal", [](CloudDaemon &d) { d.set_handler([](CloudDaemon &, const Received &r) { return r.method == "unregister_callback"; }); },
       {"listen", "--answer", "x"},
       [](Listen &t) {
         t.cli_->send_signal(SIGTERM);
         ASSERT_TRUE(t.daemon_.wait_for_message([&t](const Received &r) { return r.conn == t.conn_ && r.method == "unregister_callback"; }, kWaitMs));
         t.cli_->send_signal(SIGINT);
       }, -SIGINT, "", "", true},
      {"time up", none, {"listen", "--answer", "x", "--for", "1"}, [](Listen &) {}, 0, "", "", true},
      {"refused registration", [](CloudDaemon &d) { d.set_ack_code("register_callback", -3); }, {"listen", "--answer", "x"},
       [](Listen &) {}, 6, "", "vemo-cli: listen: registering: refused by the daemon with code -3: unknown code\n", false},
      {"refused unregistration", [](CloudDaemon &d) { d.set_ack_code("unregister_callback", -4); },
       {"listen", "--answer", "x", "--count", "1"}, [](Listen &t) { t.Ask("ping"); }, 6, "request: ping\n",
       "vemo-cli: listen: unregistering: refused by the daemon with code -4: unknown code\n", true},
      {"output reader gone", none, {"listen", "--answer", "x"},
       [](Listen &t) { t.cli_->close_out(); t.Ask("nobody reads this"); }, 1, "",
       "vemo-cli: listen: standard output cannot be written any more; stopping\n", true},
  });
}

// Both programs as built, the daemon's console playing the cloud.
class ListenWithTheDaemonProgram : public ::testing::Test {
 protected:
  void StartDaemon() {
    daemon_ = std::make_unique<ChildProcess>();
    ASSERT_TRUE(daemon_->start({VEMO_CLOUDD_PATH, "--socket", path_}, true));
  }
  bool DaemonSays(const std::string &part) {
    return daemon_->wait_for_line([&](const std::string &l) { return has(l, part); }, kWaitMs).has_value();
  }
  void SetUp() override {
    StartDaemon();
    ASSERT_TRUE(DaemonSays("listening on"));
    ASSERT_TRUE(cli_.start({VEMO_CLI_PATH, "--socket", path_, "listen", "--answer", "pong"}));
    ASSERT_TRUE(DaemonSays("\"register_callback\""));
  }
  const std::string path_ = "/tmp/vemo_cli_test_real_" + std::to_string(getpid()) + ".sock";
  std::unique_ptr<ChildProcess> daemon_;
  ChildProcess cli_;
};

// The library reconnects and registers again: listen goes on answering.
TEST_F(ListenWithTheDaemonProgram, KeepsListeningAcrossADaemonRestart) {
  ASSERT_TRUE(daemon_->send_signal(SIGTERM));
  ASSERT_EQ(0, daemon_->wait_exit(kWaitMs));
  StartDaemon();
  ASSERT_TRUE(DaemonSays("\"register_callback\"")) << cli_.err();
  ASSERT_TRUE(daemon_->write_line("cloud_request ping"));
  EXPECT_TRUE(DaemonSays("answer 1 cloud_request 1 code=0 \"pong\""));
  ASSERT_TRUE(cli_.send_signal(SIGTERM));
  EXPECT_EQ(0, cli_.wait_exit(kWaitMs).value_or(-1000));
  EXPECT_EQ("request: ping\n", cli_.out());
  EXPECT_EQ("", cli_.err());
  ASSERT_TRUE(daemon_->write_line("quit"));  // which removes its socket
  EXPECT_EQ(0, daemon_->wait_exit(kWaitMs));
}

TEST_F(ListenWithTheDaemonProgram, EndsWithStatusFourOnAnOrderedTeardown) {
  ASSERT_TRUE(daemon_->write_line("notify 1"));
  EXPECT_EQ(4, cli_.wait_exit(kWaitMs).value_or(-1000));
  EXPECT_EQ("", cli_.out());
  EXPECT_EQ("vemo-cli: listen: the daemon tore the client down; the registration is gone\n", cli_.err());
  ASSERT_TRUE(daemon_->write_line("quit"));
  EXPECT_EQ(0, daemon_->wait_exit(kWaitMs));
}

}  // namespace
}  // namespace vemo_cli_test
