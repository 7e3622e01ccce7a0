// The daemon's answers to each client message, over a real socket, byte for byte.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

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

class Conversation : public ::testing::Test {
 protected:
  Conversation() : path_(cloudd_test::temp_socket_path("conv")), daemon_(path_) {}

  // Starts the daemon and connects one client past its greeting.
  void start_and_connect(bool expect_greeting = true) {
    ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
    ASSERT_EQ(0, client_.connect(path_));
    if (expect_greeting) {
      ASSERT_EQ(kGreeting0, client_.recv(kWait).value_or("<none>"));
    }
  }

  std::string next() {
    return client_.recv(kWait).value_or("<none: " + std::to_string(client_.last_code()) + ">");
  }

  std::string path_;
  CloudDaemon daemon_;
  RawClient client_;
};

TEST_F(Conversation, GreetsEveryConnectionWithServerNotifyTypeZero) {
  start_and_connect();
  RawClient second;
  ASSERT_EQ(0, second.connect(path_));
  EXPECT_EQ(kGreeting0, second.recv(kWait).value_or("<none>"));
  EXPECT_EQ(2, daemon_.connections_seen());
}

TEST_F(Conversation, GreetingTypeIsConfigurable) {
  daemon_.set_greeting(1);
  ASSERT_EQ(0, daemon_.start());
  ASSERT_EQ(0, client_.connect(path_));
  EXPECT_EQ("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":1}}", next());
}

TEST_F(Conversation, NoGreetingMeansTheFirstFrameIsTheFirstAnswer) {
  daemon_.disable_greeting();
  start_and_connect(false);
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":3}"));
  EXPECT_EQ("{\"inner_id\":3,\"inner_error_code\":0}", next());
}

TEST_F(Conversation, DelayedGreetingComesNoEarlierThanItsDelay) {
  daemon_.set_greeting(0, 200);
  ASSERT_EQ(0, daemon_.start());
  auto before = std::chrono::steady_clock::now();
  ASSERT_EQ(0, client_.connect(path_));
  EXPECT_EQ(kGreeting0, next());
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(200));
}

TEST_F(Conversation, DeviceRequestIsAcknowledgedThenEchoed) {
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(7, "hello")));
  EXPECT_EQ("{\"inner_id\":7,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}", next());
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"hello\"}}",
            next());
  // Request ids go on increasing; message ids are the client's.
  ASSERT_TRUE(client_.send(device_request(7, "again")));
  EXPECT_EQ("{\"inner_id\":7,\"inner_error_code\":0,\"inner_result\":{\"id\":1001}}", next());
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1001,\"response\":\"again\"}}",
            next());

  std::optional<Received> got = daemon_.wait_for_method("device_request", kWait);
  ASSERT_TRUE(got);
  EXPECT_EQ(1, got->conn);
  EXPECT_EQ(7, got->id);
  EXPECT_EQ("hello", got->request);
  EXPECT_EQ(3000, got->timeout_ms);
}

TEST_F(Conversation, FirstRequestIdAndFixedResponseAreConfigurable) {
  daemon_.set_next_request_id(-3);
  daemon_.set_response_fixed("{\"status\":\"ok\"}");
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(1, "ignored")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":{\"id\":-3}}", next());
  EXPECT_EQ(
      "{\"inner_error_code\":0,\"inner_result\":{\"id\":-3,\"response\":\"{\\\"status\\\":"
      "\\\"ok\\\"}\"}}",
      next());
}

TEST_F(Conversation, RefusedDeviceRequestGetsItsCodeAndNoResponse) {
  daemon_.set_ack_code("device_request", -5);
  daemon_.set_response_delay_ms(0);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(4, "x")));
  EXPECT_EQ("{\"inner_id\":4,\"inner_error_code\":-5}", next());
  // A response would have been due at once; the next frame is the answer to the next message.
  ASSERT_TRUE(client_.send("{\"inner_method\":\"unregister_callback\",\"inner_id\":5}"));
  EXPECT_EQ("{\"inner_id\":5,\"inner_error_code\":0}", next());
}

TEST_F(Conversation, DeviceRequestWithoutRequestTextIsRefusedAsMissingKey) {
  daemon_.set_response_delay_ms(0);
  start_and_connect();
  ASSERT_TRUE(
      client_.send("{\"inner_method\":\"device_request\",\"inner_params\":{},\"inner_id\":2}"));
  EXPECT_EQ("{\"inner_id\":2,\"inner_error_code\":" + std::to_string(VEMO_ERR_MISSING_KEY) + "}",
            next());
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":3}"));
  EXPECT_EQ("{\"inner_id\":3,\"inner_error_code\":0}", next());
}

TEST_F(Conversation, ResponseCodeSendsTheCodeAlone) {
  daemon_.set_response_code(-7);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(9, "x")));
  EXPECT_EQ("{\"inner_id\":9,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}", next());
  EXPECT_EQ("{\"inner_error_code\":-7}", next());
}

TEST_F(Conversation, DroppedAcknowledgementStillDeliversTheResponse) {
  daemon_.set_drop_ack(true);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(9, "lost ack")));
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"lost ack\"}}",
            next());
}

TEST_F(Conversation, DroppedResponseLeavesOnlyTheAcknowledgement) {
  daemon_.set_drop_response(true);
  daemon_.set_response_delay_ms(0);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(9, "x")));
  EXPECT_EQ("{\"inner_id\":9,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}", next());
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":10}"));
  EXPECT_EQ("{\"inner_id\":10,\"inner_error_code\":0}", next());
}

TEST_F(Conversation, DuplicateResponsesFollowTheFirst) {
  daemon_.set_duplicate_responses(2);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(1, "dup")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}", next());
  const std::string response =
      "{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"dup\"}}";
  EXPECT_EQ(response, next());
  EXPECT_EQ(response, next());
  EXPECT_EQ(response, next());
}

TEST_F(Conversation, AcknowledgementComesBeforeResponseWhateverTheDelays) {
  // A long acknowledgement delay and no response delay: the response still waits for the ack.
  daemon_.set_ack_delay_ms(150);
  daemon_.set_response_delay_ms(0);
  start_and_connect();
  auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(client_.send(device_request(1, "a")));
  ASSERT_TRUE(client_.send(device_request(2, "b")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}", next());
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
  // The second ack and the first response are due together; each response follows its ack.
  std::string frames[3] = {next(), next(), next()};
  std::size_t ack2 = 3, resp1 = 3, resp2 = 3;
  for (std::size_t i = 0; i < 3; ++i) {
    if (frames[i] == "{\"inner_id\":2,\"inner_error_code\":0,\"inner_result\":{\"id\":1001}}")
      ack2 = i;
    if (frames[i] == "{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"a\"}}")
      resp1 = i;
    if (frames[i] == "{\"inner_error_code\":0,\"inner_result\":{\"id\":1001,\"response\":\"b\"}}")
      resp2 = i;
  }
  ASSERT_LT(ack2, 3u);
  ASSERT_LT(resp1, 3u);
  ASSERT_LT(resp2, 3u);
  EXPECT_LT(ack2, resp2);
}

TEST_F(Conversation, ResponseWaitsItsDelayAfterTheAcknowledgement) {
  daemon_.set_response_delay_ms(200);
  start_and_connect();
  ASSERT_TRUE(client_.send(device_request(1, "slow")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}", next());
  auto acked = std::chrono::steady_clock::now();
  EXPECT_EQ("{\"inner_error_code\":0,\"inner_result\":{\"id\":1000,\"response\":\"slow\"}}",
            next());
  EXPECT_GE(std::chrono::steady_clock::now() - acked, std::chrono::milliseconds(150));
}

TEST_F(Conversation, CallbackAndReconnectMethodsAreAcknowledgedWithTheirCodes) {
  daemon_.set_ack_code("register_callback", -11);
  daemon_.set_ack_code("unregister_callback", -12);
  daemon_.set_ack_code("reconnect_cloud", -13);
  start_and_connect();
  ASSERT_TRUE(
      client_.send("{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":1},"
                   "\"inner_id\":21}"));
  EXPECT_EQ("{\"inner_id\":21,\"inner_error_code\":-11}", next());
  ASSERT_TRUE(client_.send("{\"inner_method\":\"unregister_callback\",\"inner_id\":22}"));
  EXPECT_EQ("{\"inner_id\":22,\"inner_error_code\":-12}", next());
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":23}"));
  EXPECT_EQ("{\"inner_id\":23,\"inner_error_code\":-13}", next());

  std::optional<Received> reg = daemon_.wait_for_method("register_callback", kWait);
  ASSERT_TRUE(reg);
  EXPECT_EQ(1, reg->hello_cloud);
}

TEST_F(Conversation, AcknowledgementDelayAppliesToEveryMethod) {
  daemon_.set_ack_delay_ms(150);
  start_and_connect();
  auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(
      client_.send("{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":0},"
                   "\"inner_id\":1}"));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0}", next());
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
}

TEST_F(Conversation, DroppedAcknowledgementAppliesToEveryMethod) {
  daemon_.set_drop_ack(true);
  start_and_connect();
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":1}"));
  ASSERT_TRUE(daemon_.wait_for_method("reconnect_cloud", kWait));
  daemon_.set_drop_ack(false);
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":2}"));
  EXPECT_EQ("{\"inner_id\":2,\"inner_error_code\":0}", next());
}

TEST_F(Conversation, UnknownMethodIsAcknowledgedAsUnknown) {
  start_and_connect();
  // Method names are compared exactly.
  ASSERT_TRUE(client_.send("{\"inner_method\":\"Device_Request\",\"inner_id\":8}"));
  EXPECT_EQ("{\"inner_id\":8,\"inner_error_code\":" + std::to_string(VEMO_ERR_NO_HANDLER) + "}",
            next());
}

TEST_F(Conversation, KeysAreFoundRegardlessOfCase) {
  start_and_connect();
  ASSERT_TRUE(client_.send("{\"INNER_METHOD\":\"reconnect_cloud\",\"Inner_Id\":6}"));
  EXPECT_EQ("{\"inner_id\":6,\"inner_error_code\":0}", next());
}

TEST_F(Conversation, TextThatIsNotJsonIsRecordedAndNotAnswered) {
  start_and_connect();
  ASSERT_TRUE(client_.send("not json at all"));
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":1}"));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0}", next());
  std::vector<Received> log = daemon_.received();
  ASSERT_EQ(2u, log.size());
  EXPECT_FALSE(log[0].json);
  EXPECT_EQ("not json at all", log[0].text);
  EXPECT_EQ(0u, log[0].index);
  EXPECT_EQ(1u, log[1].index);
}

TEST_F(Conversation, RequestWithoutIdIsNotAnswered) {
  start_and_connect();
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\"}"));
  ASSERT_TRUE(
      client_.send("{\"inner_method\":\"device_request\",\"inner_params\":{\"request\":\"x\"}}"));
  ASSERT_TRUE(client_.send("{\"inner_method\":\"reconnect_cloud\",\"inner_id\":2}"));
  EXPECT_EQ("{\"inner_id\":2,\"inner_error_code\":0}", next());
}

}  // namespace
