// `listen` end to end: the built program registers with the in-process daemon, which plays the
// cloud's requests.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
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

class DaemonListen : public DaemonTest {
 protected:
  // Starts the tool and waits until the daemon has its registration; the handler is in place
  // before the registration is sent.
  void StartListening(CliProcess &cli, const std::vector<std::string> &args) {
    const std::size_t from = daemon_.received().size();
    ASSERT_TRUE(cli.start(args));
    auto reg = daemon_.wait_for_method("register_callback", kWaitMs, from);
    ASSERT_TRUE(reg.has_value()) << "no registration; stderr: " << cli.err();
    hello_cloud_ = reg->hello_cloud;
    conn_ = reg->conn;
  }
  void StartListening(const std::vector<std::string> &args) { StartListening(cli_, args); }

  int SendCloudRequest(const std::string &text) {
    int id = 0;
    EXPECT_EQ(1, daemon_.send_cloud_request(text, conn_, &id));
    return id;
  }

  // The exit status, once the tool has ended and the daemon has read all it sent.
  int Finish(CliProcess &cli) {
    std::optional<int> status = cli.wait_exit();
    EXPECT_TRUE(status.has_value()) << "vemo-cli did not end";
    EXPECT_TRUE(WaitDisconnected(conn_));
    return status.value_or(-1000);
  }
  int Finish() { return Finish(cli_); }

  std::vector<Received> Replies() {
    std::vector<Received> out;
    for (const Received &r : ReceivedOn(conn_))
      if (r.is_reply()) out.push_back(r);
    return out;
  }

  bool Unregistered() {
    for (const Received &r : ReceivedOn(conn_))
      if (r.method == "unregister_callback") return true;
    return false;
  }

  CliProcess cli_;
  int hello_cloud_ = -1;
  int conn_ = 0;  // the tool's connection
};

TEST_F(DaemonListen, AnswersWithTheFixedText) {
  StartListening({"listen", "--answer", "pong", "--count", "1"});
  EXPECT_EQ(0, hello_cloud_);
  int id = SendCloudRequest("ping");
  auto reply = daemon_.wait_for_reply(id, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("pong", reply->response);
  EXPECT_EQ(0, reply->error_code);
  EXPECT_EQ(0, Finish()) << cli_.err();
  EXPECT_EQ("request: ping\n", cli_.out());
  EXPECT_EQ("", cli_.err());
  EXPECT_TRUE(Unregistered());
}

TEST_F(DaemonListen, AnswersWithTheCommandsOutput) {
  StartListening({"listen", "--exec", "tr a-z A-Z", "--count", "1"});
  int id = SendCloudRequest("switch the light on");
  auto reply = daemon_.wait_for_reply(id, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("SWITCH THE LIGHT ON", reply->response);  // its trailing newline removed
  EXPECT_EQ(0, Finish()) << cli_.err();
  EXPECT_EQ("request: switch the light on\n", cli_.out());
  EXPECT_TRUE(Unregistered());
}

TEST_F(DaemonListen, ConcurrentRequestsEachGetTheirOwnAnswer) {
  StartListening({"listen", "--exec", "cat", "--count", "3"});
  int ids[3];
  for (int i = 0; i < 3; ++i) ids[i] = SendCloudRequest("request " + std::to_string(i));
  for (int i = 0; i < 3; ++i) {
    auto reply = daemon_.wait_for_reply(ids[i], kWaitMs);
    ASSERT_TRUE(reply.has_value()) << i;
    EXPECT_EQ("request " + std::to_string(i), reply->response);
  }
  EXPECT_EQ(0, Finish()) << cli_.err();
  EXPECT_EQ(3, std::count(cli_.out().begin(), cli_.out().end(), '\n'));
}

// Requests that get no answer: each is printed, and the tool still stops on its count.
TEST_F(DaemonListen, NoAnswerWhenThereIsNoneToSend) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"--exec", "echo half; exit 3"}, "vemo-cli: listen: command exit status 3; no answer sent\n"},
      {{"--exec", "sleep 30", "--exec-timeout", "200"},
       "vemo-cli: listen: command still running after 200 ms; no answer sent\n"},
      {{}, ""},  // nothing to answer with
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.second);
    std::vector<std::string> args = {"listen", "--count", "1"};
    args.insert(args.end(), row.first.begin(), row.first.end());
    CliProcess cli;
    StartListening(cli, args);
    SendCloudRequest("ping");
    EXPECT_EQ(0, Finish(cli));
    EXPECT_TRUE(Replies().empty());
    EXPECT_EQ("request: ping\n", cli.out());
    EXPECT_EQ(row.second, cli.err());
    EXPECT_TRUE(Unregistered());
  }
}

TEST_F(DaemonListen, EveryRequestTakesOneLine) {
  StartListening({"listen", "--answer", "ok", "--count", "2"});
  int first = SendCloudRequest("two\nlines");
  ASSERT_TRUE(daemon_.wait_for_reply(first, kWaitMs).has_value());
  SendCloudRequest("back\\slash\x01");
  EXPECT_EQ(0, Finish());
  EXPECT_EQ("request: two\\nlines\nrequest: back\\\\slash\\x01\n", cli_.out());
}

TEST_F(DaemonListen, HelloHandlers) {
  StartListening({"listen", "--hello", "hi from the field", "--answer", "x", "--count", "1"});
  EXPECT_EQ(1, hello_cloud_);
  EXPECT_EQ(1, daemon_.send_hello_request(conn_));
  auto hello = daemon_.wait_for_hello_reply(kWaitMs);
  ASSERT_TRUE(hello.has_value());
  EXPECT_EQ("hi from the field", hello->response);
  EXPECT_EQ(1, daemon_.send_hello_response("welcome\nback", conn_));
  ASSERT_TRUE(cli_.wait_for_line([](const std::string &l) { return l == "hello response: welcome\\nback"; }));
  SendCloudRequest("last");
  EXPECT_EQ(0, Finish());
  EXPECT_EQ("hello request\nhello response: welcome\\nback\nrequest: last\n", cli_.out());
}

TEST_F(DaemonListen, StopsOnSigtermOrSigintAndUnregisters) {
  for (int sig : {SIGTERM, SIGINT}) {
    CliProcess cli;
    StartListening(cli, {"listen", "--answer", "x"});
    ASSERT_TRUE(cli.send_signal(sig));
    EXPECT_EQ(0, Finish(cli)) << cli.err();
    EXPECT_TRUE(Unregistered());
    EXPECT_EQ("", cli.out());
  }
}

TEST_F(DaemonListen, JsonLinesNumberTheRequests) {
  StartListening({"--json", "listen", "--hello", "hi", "--exec", "exit 1", "--count", "2"});
  EXPECT_EQ(1, daemon_.send_hello_request(conn_));
  ASSERT_TRUE(daemon_.wait_for_hello_reply(kWaitMs).has_value());
  EXPECT_EQ(1, daemon_.send_hello_response("welcome\nback", conn_));
  ASSERT_TRUE(cli_.wait_for_line([](const std::string &l) { return contains(l, "hello_response"); }));
  SendCloudRequest("one");
  ASSERT_TRUE(cli_.wait_for_line([](const std::string &l) { return contains(l, "exit status 1"); }));
  SendCloudRequest("two \"quoted\"");
  EXPECT_EQ(0, Finish());
  const std::regex stamp("\"time\":\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z\"");
  EXPECT_EQ(
      "{\"time\":T,\"event\":\"hello_request\"}\n"
      "{\"time\":T,\"event\":\"hello_response\",\"response\":\"welcome\\nback\"}\n"
      "{\"time\":T,\"event\":\"request\",\"seq\":1,\"request\":\"one\"}\n"
      "{\"time\":T,\"event\":\"error\",\"message\":\"listen: command exit status 1; no answer "
      "sent\"}\n"
      "{\"time\":T,\"event\":\"request\",\"seq\":2,\"request\":\"two \\\"quoted\\\"\"}\n"
      "{\"time\":T,\"event\":\"error\",\"message\":\"listen: command exit status 1; no answer "
      "sent\"}\n",
      std::regex_replace(cli_.out(), stamp, "\"time\":T"));
}

TEST_F(DaemonListen, SecondSignalEndsAtOnce) {
  // The daemon never acknowledges the unregistration: the orderly stop hangs for 5 s.
  daemon_.set_handler([](CloudDaemon &, const Received &r) { return r.method == "unregister_callback"; });
  StartListening({"listen", "--answer", "x"});
  ASSERT_TRUE(cli_.send_signal(SIGTERM));
  ASSERT_TRUE(daemon_.wait_for_message(
      [this](const Received &r) { return r.conn == conn_ && r.method == "unregister_callback"; },
      kWaitMs));
  ASSERT_TRUE(cli_.send_signal(SIGINT));  // the other one: both were one-shot
  EXPECT_EQ(-SIGINT, cli_.wait_exit(3000).value_or(-1000));
}

TEST_F(DaemonListen, StopsWhenItsTimeIsUp) {
  StartListening({"listen", "--answer", "x", "--for", "1"});
  EXPECT_EQ(0, Finish()) << cli_.err();
  EXPECT_TRUE(Unregistered());
}

TEST_F(DaemonListen, RefusedRegistrationGivesStatusSix) {
  daemon_.set_ack_code("register_callback", -3);
  StartListening({"listen", "--answer", "x"});
  EXPECT_EQ(6, Finish());
  EXPECT_EQ("vemo-cli: listen: registering: refused by the daemon with code -3: unknown code\n",
            cli_.err());
  EXPECT_FALSE(Unregistered());
}

TEST_F(DaemonListen, RefusedUnregistrationGivesStatusSix) {
  daemon_.set_ack_code("unregister_callback", -4);
  StartListening({"listen", "--answer", "x", "--count", "1"});
  SendCloudRequest("ping");
  EXPECT_EQ(6, Finish());
  EXPECT_EQ("vemo-cli: listen: unregistering: refused by the daemon with code -4: unknown code\n",
            cli_.err());
}

TEST_F(DaemonListen, OutputReaderGoneStopsWithStatusOne) {
  StartListening({"listen", "--answer", "x"});
  cli_.close_out();
  SendCloudRequest("nobody reads this");
  EXPECT_EQ(1, Finish());
  EXPECT_TRUE(contains(cli_.err(), "vemo-cli: listen: standard output cannot be written any more; stopping\n"))
      << cli_.err();
  EXPECT_TRUE(Unregistered());
}

}  // namespace
}  // namespace vemo_cli_test
