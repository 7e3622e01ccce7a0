// The daemon's answers to each client message, over a real socket, byte for byte.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <string>
#include <vector>

#include "connection.h"
#include "test_support.h"
#include "vemo/codes.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace {

using cloudd_test::device_request;
using cloudd_test::RawClient;
using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

constexpr int kWait = 5000;  // upper bound of every wait for something that must come
const char kGreeting0[] = "{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":0}}";
const std::string kProbe = "{\"inner_method\":\"reconnect_cloud\",\"inner_id\":99}";
const std::string kProbeAck = "{\"inner_id\":99,\"inner_error_code\":0}";

std::string ack(int id, int request_id) {
  return "{\"inner_id\":" + std::to_string(id) + ",\"inner_error_code\":0,\"inner_result\":{\"id\":" +
         std::to_string(request_id) + "}}";
}
std::string refused(int id, int code) {
  return "{\"inner_id\":" + std::to_string(id) + ",\"inner_error_code\":" + std::to_string(code) + "}";
}
std::string response(int request_id, const std::string &escaped_text) {
  return "{\"inner_error_code\":0,\"inner_result\":{\"id\":" + std::to_string(request_id) +
         ",\"response\":\"" + escaped_text + "\"}}";
}

class Conversation : public ::testing::Test {
 protected:
  Conversation() : path_(cloudd_test::temp_socket_path("conv")), daemon_(path_) {}

  // Starts the daemon and connects one client past its greeting.
  void start_and_connect() {
    ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
    ASSERT_EQ(0, client_.connect(path_));
    ASSERT_EQ(kGreeting0, next());
  }

  std::string next() {
    return client_.recv(kWait).value_or("<none: " + std::to_string(client_.last_code()) + ">");
  }

  std::string path_;
  CloudDaemon daemon_;
  RawClient client_;
};

// One conversation per row, on a daemon of its own without response delay: the frames the client
// sends, and every frame the daemon answers with, in order. A probe sent last proves that nothing
// else came before its acknowledgement (rows that drop acknowledgements go without it).
TEST(Answers, EveryMessageGetsItsAnswerAndNothingMore) {
  struct Row {
    const char *name;
    std::function<void(CloudDaemon &)> setup;
    std::vector<std::string> send;
    std::vector<std::string> expect;
    bool probe;
  };
  const Row rows[] = {
      {"echo, request ids counting up", [](CloudDaemon &) {},
       {device_request(7, "hello"), device_request(7, "again")},
       {ack(7, 1000), response(1000, "hello"), ack(7, 1001), response(1001, "again")}, true},
      {"first request id and a fixed text",
       [](CloudDaemon &d) {
         d.set_next_request_id(-3);
         d.set_response_fixed("{\"status\":\"ok\"}");
       },
       {device_request(1, "ignored")},
       {ack(1, -3), response(-3, "{\\\"status\\\":\\\"ok\\\"}")}, true},
      {"refused request: its code, no response",
       [](CloudDaemon &d) { d.set_ack_code("device_request", -5); }, {device_request(4, "x")},
       {refused(4, -5)}, true},
      {"no request text: missing key, no response", [](CloudDaemon &) {},
       {"{\"inner_method\":\"device_request\",\"inner_params\":{},\"inner_id\":2}"},
       {refused(2, VEMO_ERR_MISSING_KEY)}, true},
      {"response code alone", [](CloudDaemon &d) { d.set_response_code(-7); },
       {device_request(9, "x")}, {ack(9, 1000), "{\"inner_error_code\":-7}"}, true},
      {"dropped acknowledgement, the response still comes",
       [](CloudDaemon &d) { d.set_drop_ack(true); }, {device_request(9, "lost ack")},
       {response(1000, "lost ack")}, false},
      {"dropped response", [](CloudDaemon &d) { d.set_drop_response(true); },
       {device_request(9, "x")}, {ack(9, 1000)}, true},
      {"held response",
       [](CloudDaemon &d) {
         vemo::cloudd::Behaviour b = d.behaviour();
         b.hold_responses = true;
         d.set_behaviour(b);
       },
       {device_request(9, "x")}, {ack(9, 1000)}, true},
      {"duplicates", [](CloudDaemon &d) { d.set_duplicate_responses(2); },
       {device_request(1, "dup")},
       {ack(1, 1000), response(1000, "dup"), response(1000, "dup"), response(1000, "dup")}, true},
      {"callback and reconnect methods with their codes",
       [](CloudDaemon &d) {
         d.set_ack_code("register_callback", -11);
         d.set_ack_code("unregister_callback", -12);
         d.set_ack_code("reconnect_cloud", -13);
       },
       {"{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":1},\"inner_id\":21}",
        "{\"inner_method\":\"unregister_callback\",\"inner_id\":22}",
        "{\"inner_method\":\"reconnect_cloud\",\"inner_id\":23}"},
       {refused(21, -11), refused(22, -12), refused(23, -13)}, false},
      {"dropped acknowledgement of any method", [](CloudDaemon &d) { d.set_drop_ack(true); },
       {"{\"inner_method\":\"reconnect_cloud\",\"inner_id\":1}", device_request(2, "x")},
       {response(1000, "x")}, false},
      // Method names are compared exactly; keys regardless of case.
      {"unknown method", [](CloudDaemon &) {},
       {"{\"inner_method\":\"Device_Request\",\"inner_id\":8}"},
       {refused(8, VEMO_ERR_NO_HANDLER)}, true},
      {"keys in capitals", [](CloudDaemon &) {},
       {"{\"INNER_METHOD\":\"reconnect_cloud\",\"Inner_Id\":6}"}, {refused(6, 0)}, true},
      {"requests without id, text that is not JSON, replies: no answer", [](CloudDaemon &) {},
       {"{\"inner_method\":\"reconnect_cloud\"}",
        "{\"inner_method\":\"device_request\",\"inner_params\":{\"request\":\"x\"}}",
        "not json at all", "{\"inner_error_code\":0,\"inner_result\":{\"response\":\"r\"}}"},
       {}, true},
      {"no greeting: the first frame is the first answer", [](CloudDaemon &d) { d.disable_greeting(); },
       {}, {}, true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    const std::string path = cloudd_test::temp_socket_path("answers");
    CloudDaemon daemon(path);
    daemon.set_response_delay_ms(0);
    row.setup(daemon);
    ASSERT_EQ(0, daemon.start()) << daemon.last_error();
    RawClient client;
    ASSERT_EQ(0, client.connect(path));
    if (daemon.behaviour().greeting) {
      ASSERT_EQ(kGreeting0, client.recv(kWait).value_or("<none>"));
    }
    std::vector<std::string> send = row.send;
    std::vector<std::string> expect = row.expect;
    if (row.probe) {
      send.push_back(kProbe);
      expect.push_back(kProbeAck);
    }
    for (const std::string &frame : send) ASSERT_TRUE(client.send(frame));
    for (const std::string &frame : expect) EXPECT_EQ(frame, client.recv(kWait).value_or("<none>"));
  }
}

TEST_F(Conversation, ReceivedMessagesAreClassified) {
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(7, "hello", 1500, -4)));
  ASSERT_TRUE(client_.send(
      "{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":1},\"inner_id\":8}"));
  ASSERT_TRUE(client_.send("not json"));
  ASSERT_TRUE(daemon_.wait_for_message([](const Received &r) { return !r.json; }, kWait));
  std::vector<Received> log = daemon_.received();
  ASSERT_EQ(3u, log.size());
  EXPECT_EQ("device_request", log[0].method);
  EXPECT_EQ(1, log[0].conn);
  EXPECT_EQ(7, log[0].id);
  EXPECT_EQ("hello", log[0].request);
  EXPECT_EQ(1500, log[0].timeout_ms);
  EXPECT_EQ(-4, log[0].flag);
  EXPECT_EQ(1, log[1].hello_cloud);
  EXPECT_EQ(2u, log[2].index);
  EXPECT_EQ("not json", log[2].text);
}

// The response carries the request text escaped exactly as cJSON prints it, every byte value.
TEST_F(Conversation, ResponseTextIsEscapedAsCJsonPrintsIt) {
  daemon_.set_response_delay_ms(0);
  start_and_connect();
  std::string raw, escaped_in;
  for (int c = 1; c < 256; ++c) {
    raw.push_back(static_cast<char>(c));
    char u[8];
    snprintf(u, sizeof u, "\\u%04x", c);
    escaped_in += c < 0x20 || c == '"' || c == '\\' ? std::string(u) : std::string(1, static_cast<char>(c));
  }
  ASSERT_TRUE(client_.send(device_request(1, escaped_in)));
  next();
  cJSON *expected = cJSON_CreateObject();
  cJSON_AddNumberToObject(expected, "inner_error_code", 0);
  cJSON *result = cJSON_AddObjectToObject(expected, "inner_result");
  cJSON_AddNumberToObject(result, "id", 1000);
  cJSON_AddStringToObject(result, "response", raw.c_str());
  char *printed = cJSON_PrintUnformatted(expected);
  EXPECT_EQ(std::string(printed), next());
  cJSON_free(printed);
  cJSON_Delete(expected);
}

// Frames as a socket may deliver them, fed to one connection step by step: several in one read,
// one in pieces, a zero byte inside (the text ends there, as with the transport), broken ones.
TEST(Framing, ConnectionTakesWholeFramesAsTheyArrive) {
  using vemo::cloudd::Connection;
  const std::string a = cloudd_test::frame_of("{\"a\":1}"), b = cloudd_test::frame_of("{\"b\":2}");
  struct Row {
    const char *name;
    std::vector<std::string> writes;  // each followed by one read and every frame it completes
    std::vector<std::vector<std::string>> frames;  // per write; "!CODE" for a broken stream
  };
  const Row rows[] = {
      {"two frames in one read", {a + b}, {{"{\"a\":1}", "{\"b\":2}"}}},
      {"one frame in three reads", {a.substr(0, 1), a.substr(1, 5), a.substr(6) + b.substr(0, 3)},
       {{}, {}, {"{\"a\":1}"}}},
      {"zero byte inside the text", {cloudd_test::frame_of(std::string("{}\0tail", 7))}, {{"{}"}}},
      {"wrong magic, told by its two bytes", {std::string("\xA1\x00", 2)}, {{"!-10100"}}},
      {"length over the limit", {std::string("\xA1\xB2\x7f\xff\xff\xff", 6)}, {{"!-10100"}}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds));
    Connection conn(fds[0]);
    for (std::size_t i = 0; i < row.writes.size(); ++i) {
      const std::string &w = row.writes[i];
      ASSERT_EQ(static_cast<ssize_t>(w.size()), write(fds[1], w.data(), w.size()));
      ASSERT_EQ(Connection::ReadResult::kData, conn.read_some());
      std::vector<std::string> got;
      std::string text;
      for (int rc; (rc = conn.next_frame(&text)) != 0;) {
        got.push_back(rc > 0 ? text : "!" + std::to_string(rc));
        if (rc < 0) break;
      }
      EXPECT_EQ(row.frames[i], got) << "after write " << i;
    }
    close(fds[1]);
    EXPECT_EQ(Connection::ReadResult::kClosed, conn.read_some());
  }
}

TEST(Framing, QueuedOutputLeavesAsFramesInOneSend) {
  int fds[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds));
  vemo::cloudd::Connection conn(fds[0]);
  conn.queue_frame("{\"a\":1}");
  conn.queue_bytes("raw");
  conn.queue_frame("");
  EXPECT_EQ(22u, conn.pending_output());
  ASSERT_TRUE(conn.flush());
  EXPECT_EQ(0u, conn.pending_output());
  char buf[64];
  const std::string expected = cloudd_test::frame_of("{\"a\":1}") + "raw" + cloudd_test::frame_of("");
  ASSERT_EQ(static_cast<ssize_t>(expected.size()), read(fds[1], buf, sizeof buf));
  EXPECT_EQ(expected, std::string(buf, expected.size()));
  close(fds[1]);
  conn.queue_frame("x");
  EXPECT_FALSE(conn.flush());  // the peer has gone: a failure, never a SIGPIPE
}

// How the daemon ends a connection whose stream ends or breaks, in its trace line.
TEST(Framing, BrokenStreamsCloseTheConnectionWithTheirReason) {
  const std::pair<std::string, std::string> rows[] = {
      {cloudd_test::frame_of(kProbe).substr(0, 8), "receive failed, code=-10101"},
      {cloudd_test::frame_of(kProbe), "closed by the client"},
      {"\x12\x34" + cloudd_test::frame_of(kProbe).substr(2), "receive failed, code=-10100"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.second);
    const std::string path = cloudd_test::temp_socket_path("broken");
    std::vector<std::string> lines;  // before the daemon: it logs into them until it stops
    std::mutex mu;
    CloudDaemon daemon(path);
    daemon.set_log_sink([&](const std::string &l) {
      std::lock_guard<std::mutex> hold(mu);
      lines.push_back(l);
    });
    ASSERT_EQ(0, daemon.start());
    RawClient client;
    ASSERT_EQ(0, client.connect(path));
    ASSERT_TRUE(client.recv(kWait));
    ASSERT_EQ(static_cast<ssize_t>(row.first.size()),
              write(client.fd(), row.first.data(), row.first.size()));
    shutdown(client.fd(), SHUT_WR);
    ASSERT_TRUE(daemon.wait_for_open_connections(0, kWait));
    std::lock_guard<std::mutex> hold(mu);
    EXPECT_EQ("disconnected 1 (" + row.second + ")", lines.back());
  }
}

TEST_F(Conversation, DelayedGreetingComesNoEarlierThanItsDelay) {
  daemon_.set_greeting(0, 200);
  ASSERT_EQ(0, daemon_.start());
  auto before = std::chrono::steady_clock::now();
  ASSERT_EQ(0, client_.connect(path_));
  EXPECT_EQ(kGreeting0, next());
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(200));
}

TEST_F(Conversation, AcknowledgementComesBeforeResponseWhateverTheDelays) {
  // A long acknowledgement delay and no response delay: the response still waits for the ack.
  daemon_.set_ack_delay_ms(150);
  daemon_.set_response_delay_ms(0);
  start_and_connect();
  auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(client_.send(device_request(1, "a")));
  ASSERT_TRUE(client_.send(device_request(2, "b")));
  ASSERT_TRUE(client_.send(kProbe));
  EXPECT_EQ(ack(1, 1000), next());
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
  std::vector<std::string> rest = {next(), next(), next(), next()};
  auto at = [&rest](const std::string &f) { return std::find(rest.begin(), rest.end(), f) - rest.begin(); };
  EXPECT_LT(at(ack(2, 1001)), at(response(1001, "b")));
  EXPECT_LT(at(response(1000, "a")), 4);
  EXPECT_LT(at(kProbeAck), 4);
}

TEST_F(Conversation, ResponseWaitsItsDelayAfterTheAcknowledgement) {
  daemon_.set_response_delay_ms(200);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(1, "slow")));
  EXPECT_EQ(ack(1, 1000), next());
  auto acked = std::chrono::steady_clock::now();
  EXPECT_EQ(response(1000, "slow"), next());
  EXPECT_GE(std::chrono::steady_clock::now() - acked, std::chrono::milliseconds(150));
}

TEST_F(Conversation, HeldResponsesAreAnsweredByHandOnTheirConnection) {
  daemon_.set_response_delay_ms(0);
  vemo::cloudd::Behaviour b = daemon_.behaviour();
  b.hold_responses = true;
  daemon_.set_behaviour(b);
  start_and_connect();
  RawClient other;
  ASSERT_EQ(0, other.connect(path_));
  ASSERT_TRUE(other.recv(kWait));
  ASSERT_TRUE(client_.send(device_request(1, "mine")));
  EXPECT_EQ(ack(1, 1000), next());
  ASSERT_TRUE(other.send(device_request(1, "theirs")));
  EXPECT_EQ(ack(1, 1001), other.recv(kWait).value_or("<none>"));
  std::vector<vemo::cloudd::HeldRequest> held = daemon_.held_requests();
  ASSERT_EQ(2u, held.size());
  EXPECT_EQ(1001, held[1].request_id);
  EXPECT_EQ(2, held[1].conn);
  EXPECT_EQ("theirs", held[1].request);

  EXPECT_EQ(1, daemon_.fail_held(1000, -8));
  EXPECT_EQ("{\"inner_error_code\":-8,\"inner_result\":{\"id\":1000}}", next());
  EXPECT_EQ(0, daemon_.respond_held(1000, "twice"));
  other.close();  // its held request goes with it
  ASSERT_TRUE(daemon_.wait_for_open_connections(1, kWait));
  EXPECT_TRUE(daemon_.held_requests().empty());
  EXPECT_EQ(0, daemon_.respond_held(1001, "gone"));
}

// A client that sends without reading never holds up the daemon: once enough output waits for
// it the daemon stops reading from it, and the others are served meanwhile.
TEST_F(Conversation, ClientThatDoesNotReadHoldsUpNobody) {
  daemon_.set_response_delay_ms(0);
  daemon_.set_keep_log(false);
  start_and_connect();
  // Far more answers than the socket buffers and the daemon's bound on waiting output hold: the
  // sender blocks until this test reads.
  constexpr int kRequests = 3000;
  std::thread sender([this] {
    const std::string request = device_request(1, std::string(1000, 'x'));
    for (int i = 0; i < kRequests; ++i) ASSERT_TRUE(client_.send(request));
  });
  RawClient other;
  ASSERT_EQ(0, other.connect(path_));
  ASSERT_TRUE(other.recv(kWait));
  ASSERT_TRUE(other.send(kProbe));
  EXPECT_EQ(kProbeAck, other.recv(kWait).value_or("<none>"));
  // Everything the stalled client asked for is answered once it reads.
  int frames = 0;
  while (frames < 2 * kRequests && client_.recv(kWait)) ++frames;
  sender.join();
  EXPECT_EQ(2 * kRequests, frames);
}

}  // namespace
