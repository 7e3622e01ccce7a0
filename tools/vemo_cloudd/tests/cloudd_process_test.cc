// The vemo_cloudd executable run as a child process: options, standard-input commands, the
// control FIFO, its output lines, signals and the socket file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

int exit_code(const std::optional<int> &status) {
  if (!status) return -1000;
  return WIFEXITED(*status) ? WEXITSTATUS(*status) : -WTERMSIG(*status);
}

class Process : public ::testing::Test {
 protected:
  Process() : path_(cloudd_test::temp_socket_path("proc")) {}
  ~Process() override { unlink(path_.c_str()); }

  // Waits until the daemon serves, then connects a client past the greeting.
  void serve_and_connect(DaemonProcess &p, RawClient &client, bool greeting = true) {
    ASSERT_TRUE(p.started());
    ASSERT_TRUE(p.wait_for_line_starting("listening on " + path_, kWait)) << p.all_stderr();
    ASSERT_EQ(0, client.connect(path_));
    if (greeting) {
      ASSERT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":0}}",
                client.recv(kWait).value_or("<none>"));
    }
  }

  std::string path_;
};

TEST_F(Process, HelpPrintsUsageAndExitsZero) {
  DaemonProcess p({"--help"});
  EXPECT_EQ(0, exit_code(p.wait_exit(kWait)));
  EXPECT_EQ(0u, p.all_stdout().find("Usage: vemo_cloudd [OPTION]..."));
  EXPECT_NE(std::string::npos, p.all_stdout().find("--response-mode MODE"));
  EXPECT_EQ("", p.all_stderr());
}

TEST_F(Process, BadOptionExitsTwoWithAClearMessage) {
  DaemonProcess p({"--socket", path_, "--delay", "soon"});
  EXPECT_EQ(2, exit_code(p.wait_exit(kWait)));
  EXPECT_EQ(
      "vemo_cloudd: option --delay expects milliseconds (0 or more), got 'soon'\n"
      "Try 'vemo_cloudd --help' for more information.\n",
      p.all_stderr());
  EXPECT_EQ("", p.all_stdout());
  EXPECT_FALSE(exists(path_));
}

TEST_F(Process, RegularFileAtTheSocketPathExitsOne) {
  { std::ofstream(path_) << "data"; }
  DaemonProcess p({"--socket", path_});
  EXPECT_EQ(1, exit_code(p.wait_exit(kWait)));
  EXPECT_EQ("vemo_cloudd: refusing to replace " + path_ + ": it exists and is not a socket\n",
            p.all_stderr());
  EXPECT_TRUE(exists(path_));
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

  ASSERT_TRUE(p.write_line("hello_request"));
  EXPECT_EQ("{\"inner_method\":\"request_of_hello_cloud\"}", client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("hello_response hi"));
  EXPECT_EQ("{\"inner_method\":\"response_of_hello_cloud\",\"inner_params\":{\"response\":\"hi\"}}",
            client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("@1 notify 2"));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":2}}",
            client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("raw not json"));
  EXPECT_EQ("not json", client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("bytes a1b2 0000 0002 7b7d"));
  EXPECT_EQ("{}", client.recv(kWait).value_or("<none>"));
  ASSERT_TRUE(p.write_line("help"));
  EXPECT_TRUE(p.wait_for_line_starting("commands ([@N] addresses connection N only):", kWait));
  ASSERT_TRUE(p.write_line("no_such_command"));
  ASSERT_TRUE(p.write_line("status"));
  EXPECT_TRUE(p.wait_for_line_starting("status: 1 open (1), 1 seen", kWait));
  EXPECT_NE(std::string::npos,
            p.all_stderr().find("vemo_cloudd: unknown command 'no_such_command' (type help)"));

  ASSERT_TRUE(p.write_line("quit"));
  EXPECT_EQ(0, exit_code(p.wait_exit(kWait)));
  EXPECT_FALSE(exists(path_));
  EXPECT_TRUE(client.wait_closed(kWait));
  const std::string out = p.all_stdout();
  EXPECT_NE(std::string::npos, out.find("\ndisconnected 1 (daemon stopping)\nstopped\n")) << out;
  // Standard output holds the daemon's own lines only; the library's log goes to stderr.
  EXPECT_EQ(std::string::npos, out.find("|  INFO |"));
  EXPECT_NE(std::string::npos, p.all_stderr().find("|  INFO |"));
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
    EXPECT_EQ(0, exit_code(p.wait_exit(kWait))) << sig;
    EXPECT_FALSE(exists(path_)) << sig;
    EXPECT_NE(std::string::npos,
              p.all_stdout().find(sig == SIGINT ? "stopping on SIGINT" : "stopping on SIGTERM"));
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
  EXPECT_EQ(0, exit_code(p.wait_exit(kWait)));
}

TEST_F(Process, LastLineWithoutNewlineStillCounts) {
  DaemonProcess p({"--socket", path_});
  RawClient client;
  serve_and_connect(p, client);
  ASSERT_TRUE(p.write_text("notify 4\nquit"));
  p.close_stdin();
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":4}}",
            client.recv(kWait).value_or("<none>"));
  EXPECT_EQ(0, exit_code(p.wait_exit(kWait)));
}

TEST_F(Process, ControlFifoTakesCommands) {
  const std::string fifo = path_ + ".ctl";
  unlink(fifo.c_str());
  DaemonProcess p({"--socket", path_, "--control", fifo});
  RawClient client;
  serve_and_connect(p, client);
  struct stat st;
  ASSERT_EQ(0, lstat(fifo.c_str(), &st));
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  {
    int fd = open(fifo.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const std::string line = "notify 7\n";
    ASSERT_EQ(static_cast<ssize_t>(line.size()), write(fd, line.data(), line.size()));
    close(fd);  // the daemon keeps the FIFO open: one writer leaving is no end of input
  }
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":7}}",
            client.recv(kWait).value_or("<none>"));
  {
    int fd = open(fifo.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, write(fd, "quit\n", 5));
    close(fd);
  }
  EXPECT_EQ(0, exit_code(p.wait_exit(kWait)));
  EXPECT_FALSE(exists(fifo));
  EXPECT_FALSE(exists(path_));
}

TEST_F(Process, ControlPathThatIsNoFifoIsRefused) {
  const std::string ctl = path_ + ".ctl";
  { std::ofstream(ctl) << "x"; }
  DaemonProcess p({"--socket", path_, "--control", ctl});
  EXPECT_EQ(1, exit_code(p.wait_exit(kWait)));
  EXPECT_NE(std::string::npos, p.all_stderr().find("vemo_cloudd: the control path " + ctl +
                                                   " exists and is not a FIFO"));
  EXPECT_FALSE(exists(path_));
  unlink(ctl.c_str());
}

TEST_F(Process, ControlFifoIsRemovedWhenTheSocketCannotBeServed) {
  const std::string ctl = path_ + ".ctl";
  unlink(ctl.c_str());
  { std::ofstream(path_) << "not a socket"; }
  DaemonProcess p({"--socket", path_, "--control", ctl});
  EXPECT_EQ(1, exit_code(p.wait_exit(kWait)));
  EXPECT_FALSE(exists(ctl));
  EXPECT_TRUE(exists(path_));
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
  EXPECT_EQ(0, exit_code(p.wait_exit(kWait)));
  // Only the answer to the command; no message lines, no library log lines.
  EXPECT_EQ("status: 0 open (none), 0 seen\n", p.all_stdout());
  EXPECT_EQ("", p.all_stderr());
}

}  // namespace
