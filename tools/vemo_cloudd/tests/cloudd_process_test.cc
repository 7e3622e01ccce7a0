// The vemo_cloudd executable run as a child process: options, standard-input commands, the
// control FIFO, its output lines, signals and the socket file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "test_support.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace {

using cloudd_test::DaemonProcess;
using cloudd_test::device_request;
using cloudd_test::RawClient;

constexpr int kWait = 10000;

bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class Process : public ::testing::Test {
 protected:
  Process() : path_(cloudd_test::temp_socket_path("proc")) {}
  ~Process() override {
    unlink(path_.c_str());
    unlink(ctl_.c_str());
  }

  // Waits until the daemon serves, then connects a client past the greeting.
  void serve_and_connect(DaemonProcess &p, RawClient &client, bool greeting = true) {
    ASSERT_GT(p.pid(), 0);
    ASSERT_TRUE(p.wait_for_line_starting("listening on " + path_, kWait)) << p.err();
    ASSERT_EQ(0, client.connect(path_));
    if (greeting) {
      ASSERT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":0}}",
                client.recv(kWait).value_or("<none>"));
    }
  }

  std::string path_;
  std::string ctl_ = path_ + ".ctl";
};

TEST_F(Process, HelpAndVersionPrintAndExitZero) {
  const std::pair<const char *, const char *> cases[] = {{"--help", "Usage: vemo_cloudd [OPTION]..."},
                                                         {"--version", "vemo_cloudd 1."}};
  for (const auto &c : cases) {
    DaemonProcess p({c.first});
    EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000));
    EXPECT_EQ(0u, p.out().find(c.second)) << p.out();
    EXPECT_EQ("", p.err());
  }
}

// Each refusal exits with its status and message, and leaves the files as they were.
TEST_F(Process, StartupRefusals) {
  struct Case {
    std::vector<std::string> args;
    bool file_at_socket, file_at_control;
    int status;
    std::string error;
  };
  const Case cases[] = {
      {{"--delay", "soon"}, false, false, 2,
       "vemo_cloudd: option --delay expects milliseconds (0 or more), got 'soon'\n"
       "Try 'vemo_cloudd --help' for more information.\n"},
      {{}, true, false, 1,
       "vemo_cloudd: refusing to replace " + path_ + ": it exists and is not a socket\n"},
      {{"--control", ctl_}, false, true, 1,
       "vemo_cloudd: the control path " + ctl_ + " exists and is not a FIFO\n"},
      // The FIFO made for the run is removed again.
      {{"--control", ctl_}, true, false, 1,
       "vemo_cloudd: refusing to replace " + path_ + ": it exists and is not a socket\n"},
  };
  for (const Case &c : cases) {
    unlink(path_.c_str());
    unlink(ctl_.c_str());
    if (c.file_at_socket) std::ofstream(path_) << "data";
    if (c.file_at_control) std::ofstream(ctl_) << "data";
    std::vector<std::string> args = {"--socket", path_};
    args.insert(args.end(), c.args.begin(), c.args.end());
    DaemonProcess p(args);
    EXPECT_EQ(c.status, p.wait_exit(kWait).value_or(-1000)) << c.error;
    EXPECT_EQ(c.error, p.err());
    EXPECT_EQ("", p.out());
    EXPECT_EQ(c.file_at_socket, exists(path_)) << c.error;
    EXPECT_EQ(c.file_at_control, exists(ctl_)) << c.error;
  }
}

TEST_F(Process, SessionDrivenFromStandardInput) {
  DaemonProcess p({"--socket", path_, "--first-cloud-id", "5"});
  RawClient client;
  serve_and_connect(p, client);

  ASSERT_TRUE(client.send(device_request(7, "hello")));
  EXPECT_EQ("{\"inner_id\":7,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}",
            client.recv(kWait).value_or("<none>"));
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"hello\"}}",
            client.recv(kWait).value_or("<none>"));
  EXPECT_TRUE(p.wait_for_line_starting("recv 1 " + device_request(7, "hello"), kWait));

  ASSERT_TRUE(p.write_line("cloud_request ping me"));
  EXPECT_EQ(
      "{\"inner_method\":\"cloud_request\",\"inner_id\":5,\"inner_params\":{\"request\":\"ping "
      "me\"}}",
      client.recv(kWait).value_or("<none>"));
  EXPECT_TRUE(p.wait_for_line_starting("cloud_request 5 to 1 connection(s)", kWait));
  ASSERT_TRUE(client.send(
      "{\"inner_error_code\":0,\"inner_result\":{\"response\":\"pong\"},\"inner_id\":5}"));
  EXPECT_TRUE(p.wait_for_line_starting("answer 1 cloud_request 5 code=0 \"pong\"", kWait));

  const std::pair<const char *, const char *> sends[] = {
      {"hello_request", "{\"inner_method\":\"request_of_hello_cloud\"}"},
      {"hello_response hi",
       "{\"inner_method\":\"response_of_hello_cloud\",\"inner_params\":{\"response\":\"hi\"}}"},
      {"@1 notify 2", "{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":2}}"},
      {"raw not json", "not json"},
      {"bytes a1b2 0000 0002 7b7d", "{}"},
  };
  for (const auto &s : sends) {
    ASSERT_TRUE(p.write_line(s.first));
    EXPECT_EQ(s.second, client.recv(kWait).value_or("<none>")) << s.first;
  }
  ASSERT_TRUE(p.write_line("help"));
  EXPECT_TRUE(p.wait_for_line_starting("commands ([@N] addresses connection N only):", kWait));
  ASSERT_TRUE(p.write_line("no_such_command"));
  ASSERT_TRUE(p.write_line("status"));
  EXPECT_TRUE(p.wait_for_line_starting("status: 1 open (1), 1 seen", kWait));
  EXPECT_NE(std::string::npos,
            p.err().find("vemo_cloudd: unknown command 'no_such_command' (type help)"));

  ASSERT_TRUE(p.write_line("quit"));
  EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000));
  EXPECT_FALSE(exists(path_));
  EXPECT_TRUE(client.wait_closed(kWait));
  // Trace lines carry the local time; the answers to commands do not.
  const std::string out = p.out();
  EXPECT_TRUE(cloudd_test::untimed(out.substr(0, out.find('\n'))).has_value()) << out;
  EXPECT_NE(std::string::npos, out.find("\nstatus: 1 open (1), 1 seen\n")) << out;
  EXPECT_TRUE(p.wait_for_line([](const std::string &l) { return l == "stopped"; }, kWait));
}

// The behaviour changed while the daemon runs, and a held request answered by hand.
TEST_F(Process, BehaviourChangedAndHeldRequestsAnsweredFromTheConsole) {
  DaemonProcess p({"--socket", path_, "--hold"});
  RawClient client;
  serve_and_connect(p, client);
  ASSERT_TRUE(client.send(device_request(1, "first")));
  ASSERT_TRUE(client.send(device_request(2, "second")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}",
            client.recv(kWait).value_or("<none>"));
  EXPECT_EQ("{\"inner_id\":2,\"inner_error_code\":0,\"inner_result\":{\"id\":1001}}",
            client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.wait_for_line_starting("held 1 response to request 1001", kWait));
  ASSERT_TRUE(p.write_line("held"));
  EXPECT_TRUE(p.wait_for_line_starting("  1001 from connection 1: \"second\"", kWait));
  ASSERT_TRUE(p.write_line("respond 1001 by hand"));
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1001,\"response\":\"by hand\"}}",
            client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("fail 1000 -42"));
  EXPECT_EQ("{\"inner_error_code\":-42,\"inner_result\":{\"id\":1000}}",
            client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("respond 1000 again"));
  EXPECT_TRUE(p.wait_for_line_starting("respond 1000: no such request held", kWait));

  ASSERT_TRUE(p.write_line("set hold off"));
  ASSERT_TRUE(p.write_line("set response-mode fixed:changed"));
  ASSERT_TRUE(p.write_line("set ack-code device_request=-9"));
  ASSERT_TRUE(p.write_line("show"));
  EXPECT_TRUE(p.wait_for_line_starting(
      "behaviour: --delay 10 --ack-delay 0 --response-mode fixed:changed --response-code 0 "
      "--ack-code device_request=-9 --duplicates 0 --greeting-type 0 --greeting-delay 0",
      kWait));
  ASSERT_TRUE(client.send(device_request(3, "x")));
  EXPECT_EQ("{\"inner_id\":3,\"inner_error_code\":-9}", client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("set ack-code device_request=0"));
  ASSERT_TRUE(p.wait_for_line(
      [](const std::string &l) { return l.find("device_request=0") != std::string::npos; }, kWait));
  ASSERT_TRUE(client.send(device_request(4, "x")));
  client.recv(kWait);
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1002,\"response\":\"changed\"}}",
            client.recv(kWait).value_or("<none>"));
}

TEST_F(Process, OptionsShapeTheConversation) {
  DaemonProcess p({"--socket", path_, "--no-greeting", "--ack-code", "device_request=-3",
                   "--ack-code", "register_callback=-4"});
  RawClient client;
  serve_and_connect(p, client, false);
  ASSERT_TRUE(client.send(device_request(1, "x")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":-3}", client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(
      client.send("{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":0},"
                  "\"inner_id\":2}"));
  EXPECT_EQ("{\"inner_id\":2,\"inner_error_code\":-4}", client.recv(kWait).value_or("<none>"));
}

TEST_F(Process, ResponseOptions) {
  DaemonProcess p({"--socket", path_, "--response-mode", "fixed:canned", "--duplicates", "1",
                   "--delay", "0", "--greeting-type", "6"});
  ASSERT_TRUE(p.wait_for_line_starting("listening on", kWait));
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":6}}",
            client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(client.send(device_request(1, "x")));
  client.recv(kWait);
  const std::string canned =
      "{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"canned\"}}";
  EXPECT_EQ(canned, client.recv(kWait).value_or("<none>"));
  EXPECT_EQ(canned, client.recv(kWait).value_or("<none>"));
}

TEST_F(Process, SigtermAndSigintStopAndRemoveTheSocket) {
  for (int sig : {SIGTERM, SIGINT}) {
    DaemonProcess p({"--socket", path_});
    RawClient client;
    serve_and_connect(p, client);
    ASSERT_EQ(0, kill(p.pid(), sig));
    EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000)) << sig;
    EXPECT_FALSE(exists(path_)) << sig;
    EXPECT_TRUE(p.wait_for_line_starting(
        sig == SIGINT ? "stopping on SIGINT" : "stopping on SIGTERM", kWait));
  }
}

TEST_F(Process, ClosedStandardInputKeepsServing) {
  DaemonProcess p({"--socket", path_});
  ASSERT_TRUE(p.wait_for_line_starting("listening on", kWait));
  p.close_stdin();
  EXPECT_TRUE(p.wait_for_line_starting(
      "standard input closed; serving until quit, SIGINT or SIGTERM", kWait));
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  EXPECT_TRUE(client.recv(kWait));
  ASSERT_EQ(0, kill(p.pid(), SIGTERM));
  EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000));
}

TEST_F(Process, LastLineWithoutNewlineStillCounts) {
  DaemonProcess p({"--socket", path_});
  RawClient client;
  serve_and_connect(p, client);
  ASSERT_TRUE(p.write_text("notify 4\nquit"));
  p.close_stdin();
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":4}}",
            client.recv(kWait).value_or("<none>"));
  EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000));
}

TEST_F(Process, ControlFifoTakesCommands) {
  DaemonProcess p({"--socket", path_, "--control", ctl_});
  RawClient client;
  serve_and_connect(p, client);
  struct stat st;
  ASSERT_EQ(0, lstat(ctl_.c_str(), &st));
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  // The daemon keeps the FIFO open: one writer leaving is no end of its input.
  for (const std::string line : {"notify 7\n", "quit\n"}) {
    int fd = open(ctl_.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(line.size()), write(fd, line.data(), line.size()));
    close(fd);
  }
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":7}}",
            client.recv(kWait).value_or("<none>"));
  EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000));
  EXPECT_FALSE(exists(ctl_));
  EXPECT_FALSE(exists(path_));
}

TEST_F(Process, QuietPrintsNoMessageLines) {
  DaemonProcess p({"--socket", path_, "--quiet"});
  // Commands are read only once the socket is served, so the answer to one tells readiness.
  ASSERT_TRUE(p.write_line("status"));
  ASSERT_TRUE(p.wait_for_line_starting("status: 0 open (none), 0 seen", kWait));
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  EXPECT_TRUE(client.recv(kWait));
  ASSERT_TRUE(p.write_line("quit"));
  EXPECT_EQ(0, p.wait_exit(kWait).value_or(-1000));
  // Only the answer to the command; no message lines, no library log lines.
  EXPECT_EQ("status: 0 open (none), 0 seen\n", p.out());
  EXPECT_EQ("", p.err());
}

}  // namespace
