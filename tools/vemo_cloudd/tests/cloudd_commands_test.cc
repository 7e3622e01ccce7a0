// Messages that the daemon starts itself, the replies it records, several clients, the
// handler hook and the log lines.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "test_support.h"
#include "vemo/codes.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace {

using cloudd_test::device_request;
using cloudd_test::RawClient;
using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;
using vemo::cloudd::Sent;

constexpr int kWait = 5000;

class Commands : public ::testing::Test {
 protected:
  Commands() : path_(cloudd_test::temp_socket_path("cmd")), daemon_(path_) {
    daemon_.set_log_sink([this](const std::string &line) {
      std::lock_guard<std::mutex> lock(lines_mu_);
      lines_.push_back(line);
    });
  }

  // Connects a client and reads its greeting.
  void connect(RawClient &client) {
    ASSERT_EQ(0, client.connect(path_));
    ASSERT_TRUE(client.recv(kWait));
  }

  void SetUp() override {
    ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
    connect(client_);
    ASSERT_TRUE(daemon_.wait_for_open_connections(1, kWait));
  }

  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(lines_mu_);
    return lines_;
  }
  bool has_line(const std::string &line) {
    for (const std::string &l : lines()) {
      if (l == line) return true;
    }
    return false;
  }

  static std::string next(RawClient &c) {
    return c.recv(kWait).value_or("<none: " + std::to_string(c.last_code()) + ">");
  }

  // Declared before the daemon: it logs into them until it has stopped.
  std::mutex lines_mu_;
  std::vector<std::string> lines_;
  std::string path_;
  CloudDaemon daemon_;
  RawClient client_;
};

// Cloud requests carry fresh ids (from a settable start) and their replies are recorded and
// logged, marked when they answer no request of ours.
TEST_F(Commands, CloudRequestsAndTheirReplies) {
  const std::string reply =
      "{\"inner_error_code\":0,\"inner_result\":{\"response\":\"pong\"},\"inner_id\":";
  int id = 0;
  EXPECT_EQ(1, daemon_.send_cloud_request("ping", vemo::cloudd::kAllConnections, &id));
  EXPECT_EQ(1, id);
  EXPECT_EQ(
      "{\"inner_method\":\"cloud_request\",\"inner_id\":1,\"inner_params\":{\"request\":\"ping\"}}",
      next(client_));
  ASSERT_TRUE(client_.send(reply + "1}"));
  std::optional<Received> got = daemon_.wait_for_reply(1, kWait);
  ASSERT_TRUE(got);
  EXPECT_EQ("pong", got->response);
  EXPECT_EQ(0, got->error_code);
  ASSERT_TRUE(client_.send(reply + "1}"));  // again: no longer outstanding
  ASSERT_TRUE(client_.send(reply + "77}"));
  ASSERT_TRUE(daemon_.wait_for_reply(77, kWait));
  EXPECT_TRUE(has_line("answer 1 cloud_request 1 code=0 \"pong\""));
  EXPECT_TRUE(has_line("answer 1 cloud_request 1 (no such request outstanding) code=0 \"pong\""));
  EXPECT_TRUE(has_line("answer 1 cloud_request 77 (no such request outstanding) code=0 \"pong\""))
      << ::testing::PrintToString(lines());
  daemon_.set_next_cloud_request_id(0);
  daemon_.send_cloud_request("zero", vemo::cloudd::kAllConnections, &id);
  EXPECT_EQ(0, id);
  daemon_.send_cloud_request("one", vemo::cloudd::kAllConnections, &id);
  EXPECT_EQ(1, id);
}

TEST_F(Commands, HelloRequestAndResponse) {
  EXPECT_EQ(1, daemon_.send_hello_request());
  EXPECT_EQ("{\"inner_method\":\"request_of_hello_cloud\"}", next(client_));
  ASSERT_TRUE(
      client_.send("{\"inner_error_code\":0,\"inner_result\":{\"response\":\"hi cloud\"}}"));
  std::optional<Received> reply = daemon_.wait_for_hello_reply(kWait);
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->has_id);
  EXPECT_EQ("hi cloud", reply->response);
  EXPECT_TRUE(has_line("answer 1 request_of_hello_cloud code=0 \"hi cloud\""));

  EXPECT_EQ(1, daemon_.send_hello_response("hi device"));
  EXPECT_EQ(
      "{\"inner_method\":\"response_of_hello_cloud\",\"inner_params\":{\"response\":\"hi "
      "device\"}}",
      next(client_));
}

// Each command's bytes on the wire (a frame's text, or raw bytes) and its log line.
TEST_F(Commands, CommandsSendTheirBytes) {
  struct Row {
    std::function<int(CloudDaemon &)> command;
    std::string wire;
    bool raw;
    std::string line;
  };
  const std::string bytes("\xA1\xB3\x00\x00\x00\x01x", 7);
  const Row rows[] = {
      {[](CloudDaemon &d) { return d.send_server_notify(1); },
       "{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":1}}", false,
       "send 1 {\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":1}}"},
      {[](CloudDaemon &d) { return d.send_server_notify(-4); },
       "{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":-4}}", false, ""},
      {[](CloudDaemon &d) { return d.send_text("this is {not json"); }, "this is {not json", false,
       "send 1 (not json) \"this is {not json\""},
      {[](CloudDaemon &d) { return d.send_text(""); }, "", false, "send 1 (not json) \"\""},
      {[&bytes](CloudDaemon &d) { return d.send_bytes(bytes); }, bytes, true,
       "send 1 (bytes) a1b30000000178"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.line);
    const std::size_t from = daemon_.sent().size();
    EXPECT_EQ(1, row.command(daemon_));
    EXPECT_EQ(row.wire, row.raw ? client_.recv_bytes(row.wire.size(), kWait).value_or("<none>")
                                : next(client_));
    std::optional<Sent> sent = daemon_.wait_for_sent([](const Sent &) { return true; }, kWait, from);
    ASSERT_TRUE(sent);
    EXPECT_EQ(row.wire, sent->text);
    EXPECT_EQ(row.raw, sent->raw_bytes);
    EXPECT_TRUE(row.line.empty() || has_line(row.line)) << ::testing::PrintToString(lines());
  }
}

TEST_F(Commands, DelayedTextArrivesLater) {
  EXPECT_EQ(1, daemon_.send_text("{\"later\":1}", vemo::cloudd::kAllConnections, 100));
  EXPECT_EQ(1, daemon_.send_text("{\"now\":1}"));
  EXPECT_EQ("{\"now\":1}", next(client_));
  EXPECT_EQ("{\"later\":1}", next(client_));
}

TEST_F(Commands, CloseConnectionsClosesThemAndLogsIt) {
  EXPECT_EQ(1, daemon_.close_connections());
  EXPECT_TRUE(client_.wait_closed(kWait));
  EXPECT_EQ(0, daemon_.open_connections());
  EXPECT_TRUE(has_line("disconnected 1 (closed by the daemon)"));
  // The daemon goes on accepting.
  RawClient again;
  connect(again);
  EXPECT_EQ(2, daemon_.connections_seen());
}

TEST_F(Commands, CommandsWithNobodyToSendToReturnZero) {
  EXPECT_EQ(0, daemon_.send_server_notify(0, 42));
  client_.close();
  ASSERT_TRUE(daemon_.wait_for_open_connections(0, kWait));
  EXPECT_TRUE(has_line("disconnected 1 (closed by the client)"));
  for (bool stopped : {false, true}) {
    if (stopped) daemon_.stop();
    EXPECT_EQ(0, daemon_.send_hello_request());
    EXPECT_EQ(0, daemon_.send_cloud_request("x"));
    EXPECT_EQ(0, daemon_.send_text("x"));
    EXPECT_EQ(0, daemon_.send_bytes("x"));
    EXPECT_EQ(0, daemon_.close_connections());
  }
}

TEST_F(Commands, TwoClientsAreServedApart) {
  RawClient second;
  connect(second);
  ASSERT_TRUE(daemon_.wait_for_open_connections(2, kWait));
  EXPECT_EQ((std::vector<int>{1, 2}), daemon_.open_connection_ids());

  ASSERT_TRUE(second.send(device_request(5, "from two")));
  ASSERT_TRUE(client_.send(device_request(5, "from one")));
  std::string two_ack = next(second);
  std::string one_ack = next(client_);
  EXPECT_NE(two_ack, one_ack);  // distinct request ids
  EXPECT_NE(std::string::npos, next(second).find("\"response\":\"from two\""));
  EXPECT_NE(std::string::npos, next(client_).find("\"response\":\"from one\""));

  // A command for all reaches both; one for connection 2 reaches it alone.
  EXPECT_EQ(2, daemon_.send_server_notify(3));
  EXPECT_EQ(1, daemon_.send_server_notify(4, 2));
  EXPECT_EQ(1, daemon_.send_server_notify(5, 1));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":3}}", next(client_));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":5}}", next(client_));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":3}}", next(second));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":4}}", next(second));

  std::optional<Received> from_two =
      daemon_.wait_for_message([](const Received &r) { return r.request == "from two"; }, kWait);
  ASSERT_TRUE(from_two);
  EXPECT_EQ(2, from_two->conn);
}

TEST_F(Commands, HandlerScriptsItsOwnAnswer) {
  daemon_.set_handler([](CloudDaemon &d, const Received &msg) {
    if (msg.method != "device_request") return false;
    d.send_text("{\"inner_id\":" + std::to_string(msg.id) + ",\"inner_error_code\":-99}", msg.conn);
    return true;
  });
  ASSERT_TRUE(client_.send(device_request(3, "scripted")));
  EXPECT_EQ("{\"inner_id\":3,\"inner_error_code\":-99}", next(client_));
  // Messages the handler declines get the daemon's own answer.
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":4}"));
  EXPECT_EQ("{\"inner_id\":4,\"inner_error_code\":0}", next(client_));
  daemon_.set_handler(nullptr);
  ASSERT_TRUE(client_.send(device_request(5, "own")));
  EXPECT_EQ("{\"inner_id\":5,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}",
            next(client_));
}

TEST_F(Commands, HandlerMayStopTheDaemon) {
  daemon_.set_handler([](CloudDaemon &d, const Received &) {
    d.stop();
    return true;
  });
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":1}"));
  EXPECT_TRUE(client_.wait_closed(kWait));
  daemon_.stop();  // collects the loop thread
  EXPECT_FALSE(daemon_.running());
  EXPECT_NE(0, access(path_.c_str(), F_OK));
}

TEST_F(Commands, LogLinesNameEveryEvent) {
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":2}"));
  next(client_);
  client_.close();
  ASSERT_TRUE(daemon_.wait_for_open_connections(0, kWait));
  std::vector<std::string> expected = {
      "listening on " + path_,
      "connected 1",
      "send 1 {\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":0}}",
      "recv 1 {\"inner_method\":\"reconnect_cloud\",\"inner_id\":2}",
      "send 1 {\"inner_id\":2,\"inner_error_code\":0}",
      "disconnected 1 (closed by the client)",
  };
  EXPECT_EQ(expected, lines());
}

TEST_F(Commands, ReceivedTextWithLineBreaksStaysOnOneLogLine) {
  ASSERT_TRUE(client_.send("{\n\"inner_method\":\"reconnect_cloud\",\n\"inner_id\":2}"));
  next(client_);
  ASSERT_TRUE(client_.send("two\nlines"));
  ASSERT_TRUE(daemon_.wait_for_message([](const Received &r) { return !r.json; }, kWait));
  EXPECT_TRUE(has_line("recv 1 {\"inner_method\":\"reconnect_cloud\",\"inner_id\":2}"));
  EXPECT_TRUE(has_line("recv 1 (not json) \"two\\nlines\""));
}

TEST_F(Commands, ResponseForAClosedConnectionIsDroppedQuietly) {
  daemon_.set_response_delay_ms(100);
  ASSERT_TRUE(client_.send(device_request(1, "gone")));
  next(client_);  // the acknowledgement
  client_.close();
  ASSERT_TRUE(daemon_.wait_for_open_connections(0, kWait));
  // The response's timer fires into a closed connection; the daemon serves on.
  RawClient again;
  connect(again);
  ASSERT_TRUE(again.send(device_request(2, "here")));
  EXPECT_EQ("{\"inner_id\":2,\"inner_error_code\":0,\"inner_result\":{\"id\":1001}}", next(again));
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1001,\"response\":\"here\"}}",
            next(again));
}

}  // namespace
