// `listen` end to end: the built program registers with a daemon that plays the cloud's requests.
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "cli_support.h"

namespace vemo_cli_test {
namespace {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;
using tools_test::ChildProcess;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

struct Row;

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
  // The exit status once the tool has ended and the daemon has read all it sent.
  int Finish() {
    const int status = cli_->wait_exit(kWaitMs).value_or(-1000);
    EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
    return status;
  }
  bool Unregistered() {
    for (const Received &r : daemon_.received())
      if (r.conn == conn_ && r.method == "unregister_callback") return true;
    return false;
  }
  void RunRows(const std::vector<Row> &rows);
  std::unique_ptr<ChildProcess> cli_;
  int hello_cloud_ = -1;
  int conn_ = 0;
};

// One listen: started with args, driven by the row, then its status, outputs (with "..." for any
// text) and whether it withdrew its registration.
struct Row {
  const char *name;
  std::function<void(CloudDaemon &)> setup;
  std::vector<std::string> args;
  std::function<void(Listen &)> drive;
  int status;
  std::string out, err;
  bool unregistered;
};

void Listen::RunRows(const std::vector<Row> &rows) {
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    daemon_.set_behaviour(vemo::cloudd::Behaviour());
    daemon_.set_response_delay_ms(0);
    row.setup(daemon_);
    Start(row.args);
    row.drive(*this);
    EXPECT_EQ(row.status, Finish()) << cli_->err();
    EXPECT_TRUE(matches(cli_->out(), row.out)) << cli_->out();
    EXPECT_TRUE(matches(cli_->err(), row.err)) << cli_->err();
    EXPECT_EQ(row.unregistered, Unregistered());
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
      {"command over its time", none, {"listen", "--count", "1", "--exec", "sleep 30", "--exec-timeout", "200"}, unanswered, 0,
       "request: ping\n", "vemo-cli: listen: command still running after 200 ms; no answer sent\n", true},
      {"nothing to answer with", none, {"listen", "--count", "1"}, unanswered, 0, "request: ping\n", "", true},
      {"every request on one line", none, {"listen", "--answer", "ok", "--count", "2"},
       [](Listen &t) { t.Ask("two\nlines"); t.Ask("back\\slash\x01"); }, 0,
       "request: two\\nlines\nrequest: back\\\\slash\\x01\n", "", true},
      {"hello handlers", none, {"listen", "--hello", "hi from the field", "--answer", "x", "--count", "1"},
       [](Listen &t) {
         EXPECT_EQ(1, t.hello_cloud_);
         EXPECT_EQ(1, t.daemon_.send_hello_request(t.conn_));
         EXPECT_EQ("hi from the field", t.daemon_.wait_for_hello_reply(kWaitMs).value_or(Received()).response);
         EXPECT_EQ(1, t.daemon_.send_hello_response("welcome\nback", t.conn_));
         ASSERT_TRUE(t.cli_->wait_for_line([](const std::string &l) { return has(l, "hello response"); }, kWaitMs));
         t.Ask("last");
       }, 0, "hello request\nhello response: welcome\\nback\nrequest: last\n", "", true},
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

TEST_F(Listen, SecondSignalEndsAtOnce) {
  // The daemon never acknowledges the unregistration: the orderly stop would hang for 5 s.
  daemon_.set_handler([](CloudDaemon &, const Received &r) { return r.method == "unregister_callback"; });
  Start({"listen", "--answer", "x"});
  ASSERT_TRUE(cli_->send_signal(SIGTERM));
  ASSERT_TRUE(daemon_.wait_for_method("unregister_callback", kWaitMs));
  ASSERT_TRUE(cli_->send_signal(SIGINT));  // the other one: both were one-shot
  EXPECT_EQ(-SIGINT, cli_->wait_exit(3000).value_or(-1000));
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
  void TearDown() override {
    daemon_.reset();
    unlink(path_.c_str());
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
