// The reference daemon as built, driven through its options, its console and its socket, with a
// raw client that speaks frames through the library's transport.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "vemo/codes.h"
#include "vemo/ipc_socket.h"

namespace {

using tools_test::ChildProcess;

constexpr int kWait = 10000;  // only a hang reaches it

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
std::string frame_of(const std::string &text) {
  const std::size_t n = text.size();
  return std::string("\xA1\xB2", 2) + char(n >> 24) + char(n >> 16) + char(n >> 8) + char(n) + text;
}
std::string dr(int id, const std::string &text) {  // a device_request as the library prints it
  return R"({"inner_method":"device_request","inner_params":{"request":")" + text +
         R"(","timeout_ms":3000,"flag":0},"inner_id":)" + std::to_string(id) + "}";
}
std::string ack(int id, int request_id) {
  return R"({"inner_id":)" + std::to_string(id) + R"(,"inner_error_code":0,"inner_result":{"id":)" + std::to_string(request_id) + "}}";
}
std::string refused(int id, int code) {
  return R"({"inner_id":)" + std::to_string(id) + R"(,"inner_error_code":)" + std::to_string(code) + "}";
}
std::string response(int request_id, const std::string &text) {
  return R"({"inner_error_code":0,"inner_result":{"id":)" + std::to_string(request_id) + R"(,"response":")" + text + "\"}}";
}
std::string notify(int type) { return R"({"inner_method":"server_notify","inner_params":{"type":)" + std::to_string(type) + "}}"; }
std::string raw(const std::string &bytes) { return "\x01" + bytes; }
const std::string kProbe = R"({"inner_method":"reconnect_cloud","inner_id":99})", kProbeAck = refused(99, 0);

class RawClient {
 public:
  ~RawClient() { if (fd_ >= 0) close(fd_); }
  bool connect(const std::string &path) { return (fd_ = ipc_socket_init_as_client(path.c_str())) >= 0; }
  // Texts go as frames; raw(bytes) go as they are.
  bool send(const std::string &text) {
    if (text.compare(0, 1, "\x01") != 0) return ipc_socket_send(fd_, text.c_str()) == 0;
    return write(fd_, text.data() + 1, text.size() - 1) == static_cast<ssize_t>(text.size() - 1);
  }
  std::string recv(int timeout_ms = kWait) {
    char *text = nullptr;
    const int rc = ipc_socket_recv_timed(fd_, timeout_ms, &text);
    std::string out = rc == 0 ? text : "<none " + std::to_string(rc) + ">";
    free(text);
    return out;
  }
  int fd_ = -1;
};

class Cloudd : public ::testing::Test {
 protected:
  void TearDown() override {
    unlink(path_.c_str());
    unlink(ctl_.c_str());
  }
  // Starts the daemon and waits until it serves (unless it is expected to refuse).
  void Start(ChildProcess &p, std::vector<std::string> args, bool serves = true) {
    args.insert(args.begin(), {VEMO_CLOUDD_PATH, "--socket", path_});
    ASSERT_TRUE(p.start(args, true));
    ASSERT_TRUE(!serves || Says(p, "listening on " + path_)) << p.err();
  }
  static bool Says(ChildProcess &p, const std::string &part) {
    return p.wait_for_line([&](const std::string &l) { return has(l, part); }, kWait).has_value();
  }
  bool Exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
  }
  const std::string path_ = "/tmp/vemo_cloudd_test_" + std::to_string(getpid()) + ".sock";
  const std::string ctl_ = path_ + ".ctl";
};

// One daemon per row, started with its options (and no response delay): the frames a client
// sends (or bytes written as they are), and every frame the daemon answers with, in order. A
// probe sent last proves that nothing else came before its acknowledgement.
TEST_F(Cloudd, EveryMessageGetsItsAnswerAndNothingMore) {
  struct Row {
    std::vector<std::string> args, send, expect;
    bool probe = true;
    std::string closes = "";  // the reason that ends the stream, once written
  };
  const std::string a = frame_of(dr(1, "a")), b = frame_of(dr(2, "b"));
  const Row rows[] = {
      {{}, {dr(7, "hello"), dr(7, "again")}, {notify(0), ack(7, 1000), response(1000, "hello"), ack(7, 1001), response(1001, "again")}},
      {{"--first-request-id", "-3", "--response-mode", "fixed:{\"s\":1}"}, {dr(1, "x")}, {notify(0), ack(1, -3), response(-3, "{\\\"s\\\":1}")}},
      {{"--ack-code", "device_request=-5"}, {dr(4, "x")}, {notify(0), refused(4, -5)}},
      {{}, {R"({"inner_method":"device_request","inner_params":{},"inner_id":2})"}, {notify(0), refused(2, VEMO_ERR_MISSING_KEY)}},
      {{"--response-code", "-7"}, {dr(9, "x")}, {notify(0), ack(9, 1000), R"({"inner_error_code":-7})"}},
      {{"--drop-ack"}, {R"({"inner_method":"reconnect_cloud","inner_id":1})", dr(9, "x")}, {notify(0), response(1000, "x")}, false},
      {{"--drop-response"}, {dr(9, "x")}, {notify(0), ack(9, 1000)}},
      {{"--hold"}, {dr(9, "x")}, {notify(0), ack(9, 1000)}},
      {{"--duplicates", "2"}, {dr(1, "d")}, {notify(0), ack(1, 1000), response(1000, "d"), response(1000, "d"), response(1000, "d")}},
      {{"--ack-code", "register_callback=-11", "--ack-code=unregister_callback=-12", "--ack-code", "reconnect_cloud=-13"},
       {R"({"inner_method":"register_callback","inner_params":{"hello_cloud":1},"inner_id":21})",
        R"({"inner_method":"unregister_callback","inner_id":22})", R"({"inner_method":"reconnect_cloud","inner_id":23})"},
       {notify(0), refused(21, -11), refused(22, -12), refused(23, -13)}, false},
      // Method names are compared exactly; keys regardless of case.
      {{}, {R"({"inner_method":"Device_Request","inner_id":8})"}, {notify(0), refused(8, VEMO_ERR_NO_HANDLER)}},
      {{}, {R"({"INNER_METHOD":"reconnect_cloud","Inner_Id":6})"}, {notify(0), refused(6, 0)}},
      // No id, no JSON, replies: no answer.
      {{}, {R"({"inner_method":"reconnect_cloud"})", "not json", R"({"inner_error_code":0,"inner_result":{"response":"r"}})"}, {notify(0)}},
      {{"--no-greeting"}, {}, {}},
      {{"--greeting-type", "6"}, {}, {notify(6)}},
      // Frames as a socket may deliver them: two in one write, one in pieces, a zero byte inside
      // (the text ends there, as with the transport).
      {{"--drop-response"}, {raw(a + b)}, {notify(0), ack(1, 1000), ack(2, 1001)}},
      {{"--drop-response"}, {raw(a.substr(0, 1)), raw(a.substr(1, 5)), raw(a.substr(6) + b.substr(0, 3)), raw(b.substr(3))},
       {notify(0), ack(1, 1000), ack(2, 1001)}},
      {{}, {raw(frame_of(std::string(R"({"inner_method":"reconnect_cloud","inner_id":5})" "\0tail", 53)))}, {notify(0), refused(5, 0)}},
      // A stream that breaks or ends closes the connection, with the reason in the trace.
      {{}, {raw(frame_of(kProbe).substr(0, 8))}, {notify(0)}, false, "receive failed, code=-10101"},
      {{}, {kProbe}, {notify(0), kProbeAck}, false, "closed by the client"},
      {{}, {raw("\x12\x34" + frame_of(kProbe).substr(2))}, {notify(0)}, false, "receive failed, code=-10100"},
      {{}, {raw(std::string("\xA1\xB2\x7f\xff\xff\xff", 6))}, {notify(0)}, false, "receive failed, code=-10100"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args) + " " + ::testing::PrintToString(row.send));
    std::vector<std::string> args = {"--delay", "0"};
    args.insert(args.end(), row.args.begin(), row.args.end());
    ChildProcess daemon;
    Start(daemon, args);
    RawClient client;
    ASSERT_TRUE(client.connect(path_));
    std::vector<std::string> send = row.send, expect = row.expect;
    if (row.probe) {
      send.push_back(kProbe);
      expect.push_back(kProbeAck);
    }
    for (const std::string &frame : send) ASSERT_TRUE(client.send(frame));
    for (const std::string &frame : expect) EXPECT_EQ(frame, client.recv());
    if (!row.closes.empty()) {
      shutdown(client.fd_, SHUT_WR);
      EXPECT_TRUE(Says(daemon, "disconnected 1 (" + row.closes + ")"));
    }
  }
}

// The console, line by line: what each command sends to the client, prints or refuses.
TEST_F(Cloudd, ConsoleCommandsSendPrintAndRefuse) {
  struct Row {
    std::string line, frame, says, error;  // empty: nothing expected there
  };
  const Row rows[] = {
      {"cloud_request ping me", R"({"inner_method":"cloud_request","inner_id":5,"inner_params":{"request":"ping me"}})", "cloud_request 5 to 1 connection(s)", ""},
      {"hello_request", R"({"inner_method":"request_of_hello_cloud"})", "", ""},
      {"hello_response hi\r", R"({"inner_method":"response_of_hello_cloud","inner_params":{"response":"hi"}})", "", ""},
      {"  @1 notify -2", notify(-2), "", ""},
      {"raw not json", "not json", "send 1 (not json) \"not json\"", ""},
      {"bytes a1B2 0000 0002 7b7d", "{}", "send 1 (bytes) a1b2000000027b7d", ""},
      {"held", "", "  1000 from connection 1: \"held one\"", ""},
      {"respond 1000 by  hand", response(1000, "by  hand"), "", ""},
      {"respond 1000 again", "", "respond 1000: no such request held", ""},
      {"fail 1001 -42", R"({"inner_error_code":-42,"inner_result":{"id":1001}})", "", ""},
      {"set hold off", "", "", ""},
      {"set response-mode fixed:changed", "", "", ""},
      {"set ack-code device_request=-9", "", "", ""},
      {"show", "", "behaviour: --delay 10 --ack-delay 0 --response-mode fixed:changed --response-code 0 --ack-code device_request=-9 --duplicates 0 --greeting-type 0 --greeting-delay 0", ""},
      {"status", "", "status: 1 open (1), 1 seen", ""},
      {"help", "", "commands ([@N] addresses connection N only):", ""},
      {"frobnicate now", "", "", "unknown command 'frobnicate' (type help)"},
      {"notify one", "", "", "notify expects a type number, got 'one'"},
      {"bytes abc", "", "", "bytes expects pairs of hex digits, got 'abc'"},
      {"quit now", "", "", "quit takes no argument"},
      {"@2   ", "", "", "expected a command after @2"},
      {"respond x hi", "", "", "respond expects a request id and a text, got 'x hi'"},
      {"set drop-ack maybe", "", "", "set drop-ack expects on or off, got 'maybe'"},
      {"set socket /tmp/x", "", "", "set socket: no such behaviour option"},
  };
  ChildProcess daemon;
  Start(daemon, {"--first-cloud-id", "5", "--hold"});
  RawClient client;
  ASSERT_TRUE(client.connect(path_));
  ASSERT_EQ(notify(0), client.recv());
  for (const std::string &text : {std::string("held one"), std::string("held two")}) {
    ASSERT_TRUE(client.send(dr(1, text)));
    client.recv();  // its acknowledgement
  }
  ASSERT_TRUE(Says(daemon, "held 1 response to request 1001"));
  for (const Row &row : rows) {
    SCOPED_TRACE(row.line);
    ASSERT_TRUE(daemon.write_line(row.line));
    EXPECT_EQ(row.frame, row.frame.empty() ? "" : client.recv());
    EXPECT_TRUE(row.says.empty() || Says(daemon, row.says));
    if (!row.error.empty()) {
      // The error is on standard error before the answer to the next command is printed.
      const std::string marker = "respond " + std::to_string(90000 + (&row - rows));
      ASSERT_TRUE(daemon.write_line(marker + " x"));
      ASSERT_TRUE(Says(daemon, marker + ": no such request held"));
      EXPECT_TRUE(has(daemon.err(), "vemo_cloudd: " + row.error + "\n")) << daemon.err();
    }
  }
  // The acknowledgement's code as set.
  ASSERT_TRUE(client.send(dr(3, "x")));
  EXPECT_EQ(refused(3, -9), client.recv());
  // A last line without its newline still counts.
  ASSERT_TRUE(daemon.write_text("quit"));
  daemon.close_stdin();
  EXPECT_EQ(0, daemon.wait_exit(kWait));
  EXPECT_FALSE(Exists(path_));
  EXPECT_EQ("<none -1102>", client.recv());
}

// The socket file: what start-up refuses (leaving what is there), what it replaces, and what the
// daemon removes when it ends.
TEST_F(Cloudd, SocketFileOwnership) {
  struct Row {
    std::vector<std::string> args;
    const char *at_socket;  // what lies at the socket path before: "file", "live" or ""
    bool fifo_at_control;
    int status;
    std::string out, err;  // the beginning of standard output; standard error holds err
  };
  const std::string not_socket = "vemo_cloudd: refusing to replace " + path_ + ": it exists and is not a socket\n";
  const Row rows[] = {
      {{"--help"}, "", false, 0, "Usage: vemo_cloudd [OPTION]...", ""},
      {{"--delay", "soon"}, "", false, 2, "", "vemo_cloudd: option --delay expects milliseconds (0 or more), got 'soon'\nTry 'vemo_cloudd --help' for more information.\n"},
      {{"--ack-code", "cloud_request=1"}, "", false, 2, "", "vemo_cloudd: option --ack-code: unknown method 'cloud_request' (device_request, register_callback, unregister_callback, reconnect_cloud)\n"},
      {{}, "file", false, 1, "", not_socket},
      {{"--control", ctl_}, "", true, 1, "", "vemo_cloudd: the control path " + ctl_ + " exists and is not a FIFO\n"},
      {{"--control", ctl_}, "file", false, 1, "", not_socket},  // the FIFO made for the run goes again
      {{}, "live", false, 1, "", "vemo_cloudd: another daemon is already listening on " + path_ + "\n"},
      {{"--socket", "/tmp/vemo_cloudd_no_such_dir/s"}, "", false, 1, "", "vemo_cloudd: cannot listen on /tmp/vemo_cloudd_no_such_dir/s: No such file or directory\n"},
      {{"--socket", "/tmp/" + std::string(103, 'x')}, "", false, 1, "", "vemo_cloudd: the socket path /tmp/" + std::string(103, 'x') + " is too long (at most 107 characters)\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args) + " " + row.at_socket);
    TearDown();
    const std::string what = row.at_socket;
    ChildProcess other;
    if (what == "file") std::ofstream(path_) << "precious";
    if (row.fifo_at_control) std::ofstream(ctl_) << "data";
    if (what == "live") Start(other, {});
    ChildProcess daemon;
    Start(daemon, row.args, false);
    EXPECT_EQ(row.status, daemon.wait_exit(kWait).value_or(-1000));
    EXPECT_EQ(0u, daemon.out().find(row.out)) << daemon.out();
    EXPECT_TRUE(row.err.empty() ? daemon.err().empty() : has(daemon.err(), row.err)) << daemon.err();
    EXPECT_EQ(what != "", Exists(path_));
    EXPECT_EQ(row.fifo_at_control, Exists(ctl_));
    std::string content;
    EXPECT_TRUE(what != "file" || (std::ifstream(path_) >> content && content == "precious"));
  }
}

// A socket nobody listens on, as a killed daemon leaves it, is replaced. A daemon removes its own
// socket when it ends, and leaves alone one that another daemon has taken over.
TEST_F(Cloudd, StaleSocketReplacedAndOnlyItsOwnRemoved) {
  ChildProcess killed, first, second;
  Start(killed, {});
  ASSERT_TRUE(killed.send_signal(SIGKILL));
  killed.wait_exit(kWait);
  ASSERT_TRUE(Exists(path_));
  Start(first, {});
  ASSERT_EQ(0, unlink(path_.c_str()));
  Start(second, {});
  ASSERT_TRUE(first.send_signal(SIGINT));
  EXPECT_EQ(0, first.wait_exit(kWait));
  EXPECT_TRUE(Says(first, "stopping on SIGINT"));
  RawClient client;
  ASSERT_TRUE(client.connect(path_));
  EXPECT_EQ(notify(0), client.recv());
  ASSERT_TRUE(second.send_signal(SIGTERM));
  EXPECT_EQ(0, second.wait_exit(kWait));
  EXPECT_TRUE(Says(second, "stopping on SIGTERM"));
  EXPECT_FALSE(Exists(path_));
}

}  // namespace
