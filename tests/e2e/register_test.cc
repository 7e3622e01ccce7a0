// Registration of the application's handlers over the real socket: what the daemon hears, which
// handler answers a cloud request or a hello, refusals, replacement, and reconnect.
#include <string.h>

#include <chrono>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

class Register : public E2ETest {};

// Calls of the application's handlers (plain functions), by handler.
struct Calls {
  std::mutex mu;
  Strings texts;
  Signal signal;
  void add(const std::string &text) {
    {
      std::lock_guard<std::mutex> hold(mu);
      texts.push_back(text);
    }
    signal.notify();
  }
  Strings all() {
    std::lock_guard<std::mutex> hold(mu);
    return texts;
  }
};
Calls g_pong;
Calls g_other;
Calls g_silent;
Calls g_hello_request;
Calls g_hello_response;

void answer_pong(const char *request, char **response) {
  g_pong.add(request);
  *response = strdup(("pong:" + std::string(request)).c_str());
}
void answer_other(const char *request, char **response) {
  g_other.add(request);
  *response = strdup("other");
}
void answer_nothing(const char *request, char **) { g_silent.add(request); }
void hello_request(char **response) {
  g_hello_request.add("");
  *response = strdup("hello!");
}
void other_hello_request(char **response) { *response = strdup("not this one"); }
void hello_response(const char *response) { g_hello_response.add(response); }

const vemo_hello_cloud_cb_t kHello = {hello_request, hello_response};

std::string reply_text(const std::string &response, int id) {
  std::string text = R"({"inner_error_code":0,"inner_result":{"response":")" + response + "\"}";
  if (id > 0) text += ",\"inner_id\":" + std::to_string(id);
  return text + "}";
}

TEST_F(Register, WithoutHelloAnnouncesHelloCloud0) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, nullptr));
  std::optional<Received> sent = daemon_.wait_for_method("register_callback", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_EQ(R"({"inner_method":"register_callback","inner_params":{"hello_cloud":0},"inner_id":)" +
                std::to_string(sent->id) + "}",
            sent->text);
  // No hello pair is stored: a hello request finds no handler.
  daemon_.send_hello_request();
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(Strings{"the function is NULL"}, Messages("dispatch_request", "WARN"));
}

TEST_F(Register, WithHelloAnnouncesHelloCloud1) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  std::optional<Received> sent = daemon_.wait_for_method("register_callback", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_EQ(1, sent->hello_cloud);
  EXPECT_NE(std::string::npos, sent->text.find(R"("inner_params":{"hello_cloud":1})"));
}

TEST_F(Register, CloudRequestGetsExactlyOneReplyWithItsId) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, nullptr));
  daemon_.set_next_cloud_request_id(31);
  int id = 0;
  ASSERT_EQ(1, daemon_.send_cloud_request("ping", vemo::cloudd::kAllConnections, &id));
  ASSERT_EQ(31, id);
  std::optional<Received> reply = daemon_.wait_for_reply(31, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply_text("pong:ping", 31), reply->text);
  // A later request and its reply mark the point by which a second reply to 31 would be in.
  daemon_.send_cloud_request("ping2");
  ASSERT_TRUE(daemon_.wait_for_reply(32, kWaitMs).has_value());
  int replies_to_31 = 0;
  for (const Received &r : Replies()) replies_to_31 += r.has_id && r.id == 31 ? 1 : 0;
  EXPECT_EQ(1, replies_to_31);
  EXPECT_EQ((Strings{"ping", "ping2"}), g_pong.all());
}

TEST_F(Register, CloudRequestWithIdZeroOrNegativeIsAnsweredWithoutId) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, nullptr));
  daemon_.send_text(R"({"inner_method":"cloud_request","inner_id":0,"inner_params":{"request":"zero"}})");
  std::optional<Received> first = daemon_.wait_for_hello_reply(kWaitMs);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(reply_text("pong:zero", 0), first->text);
  daemon_.send_text(R"({"inner_method":"cloud_request","inner_id":-4,"inner_params":{"request":"neg"}})");
  std::optional<Received> second = daemon_.wait_for_hello_reply(kWaitMs, first->index + 1);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(reply_text("pong:neg", 0), second->text);
}

TEST_F(Register, HandlerLeavingTheAnswerNullSendsNoReply) {
  ASSERT_EQ(0, vemo_register_callback(answer_nothing, nullptr));
  daemon_.send_cloud_request("quiet please");
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1"));
  EXPECT_EQ(1, CountLogged("", "ERROR", "fail to get the response of the request"));
  EXPECT_EQ(Strings{"quiet please"}, g_silent.all());
  EXPECT_TRUE(Replies().empty());
}

// Every line of the request branch names dispatch_request, helpers or not.
TEST_F(Register, NullAnswerIsLoggedUnderDispatchRequest) {
  ASSERT_EQ(0, vemo_register_callback(answer_nothing, nullptr));
  daemon_.send_cloud_request("quiet please");
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1"));
  EXPECT_EQ(Strings{"fail to get the response of the request"}, Messages("dispatch_request", "ERROR"));
}

TEST_F(Register, CloudRequestWithoutHandlerIsDroppedWithAWarning) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.send_cloud_request("anyone?");
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(Strings{"the function is NULL"}, Messages("dispatch_request", "WARN"));
  EXPECT_TRUE(Replies().empty());
}

TEST_F(Register, HelloRequestIsAnsweredWithoutId) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  daemon_.send_hello_request();
  std::optional<Received> reply = daemon_.wait_for_hello_reply(kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply_text("hello!", 0), reply->text);
  EXPECT_EQ(1, g_hello_request.signal.count());
}

TEST_F(Register, HelloResponseReachesItsHandlerAndIsNotAnswered) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  daemon_.send_hello_response("welcome");
  ASSERT_TRUE(g_hello_response.signal.wait_for(1));
  EXPECT_EQ(Strings{"welcome"}, g_hello_response.all());
  // A cloud request sent after it is answered; by then a reply to the hello would be in too.
  daemon_.set_next_cloud_request_id(5);
  daemon_.send_cloud_request("after");
  ASSERT_TRUE(daemon_.wait_for_reply(5, kWaitMs).has_value());
  EXPECT_EQ(1u, Replies().size());
  EXPECT_TRUE(Messages("task_dispatch").empty());
}

TEST_F(Register, HelloPairWithoutRequestHandlerRefusesHelloRequests) {
  const vemo_hello_cloud_cb_t half = {nullptr, hello_response};
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &half));
  daemon_.send_hello_request();
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(Strings{"the function is NULL"}, Messages("dispatch_request", "WARN"));
  daemon_.send_hello_response("still heard");
  ASSERT_TRUE(g_hello_response.signal.wait_for(1));
  EXPECT_TRUE(Replies().empty());
}

TEST_F(Register, DaemonRefusingTheRegistrationLeavesNoHandler) {
  daemon_.set_ack_code("register_callback", -3);
  EXPECT_EQ(-3, vemo_register_callback(answer_pong, &kHello));
  EXPECT_EQ(Strings{"fail to register the client to the server, error=-3"},
            Messages("vemo_register_callback", "ERROR"));
  daemon_.send_cloud_request("ping");
  daemon_.send_hello_request();
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103", 2));
  EXPECT_EQ(0, g_pong.signal.count());
  EXPECT_EQ(0, g_hello_request.signal.count());
  EXPECT_TRUE(Replies().empty());
}

// The second and last test that waits the full 5000 ms: a control message never acknowledged.
TEST_F(Register, UnacknowledgedRegistrationTimesOutAndLeavesNoHandler) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_ack(true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_register_callback(answer_pong, &kHello));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5000));
  EXPECT_EQ(Strings{"fail to register the client to the server, error=-20002"},
            Messages("vemo_register_callback", "ERROR"));
  daemon_.send_cloud_request("ping");
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(0, g_pong.signal.count());
}

TEST_F(Register, RefusedUnregisterKeepsTheHandlers) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  daemon_.set_ack_code("unregister_callback", -4);
  EXPECT_EQ(-4, vemo_unregister_callback());
  EXPECT_EQ(Strings{"fail to clear the client from the server, error=-4"},
            Messages("vemo_unregister_callback", "ERROR"));
  daemon_.set_next_cloud_request_id(8);
  daemon_.send_cloud_request("still there?");
  std::optional<Received> reply = daemon_.wait_for_reply(8, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("pong:still there?", reply->response);
  daemon_.send_hello_request();
  EXPECT_TRUE(daemon_.wait_for_hello_reply(kWaitMs).has_value());
}

TEST_F(Register, AcceptedUnregisterRemovesTheHandlers) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  ASSERT_EQ(0, vemo_unregister_callback());
  std::optional<Received> sent = daemon_.wait_for_method("unregister_callback", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_EQ(R"({"inner_method":"unregister_callback","inner_id":)" + std::to_string(sent->id) + "}",
            sent->text);
  daemon_.send_cloud_request("gone?");
  daemon_.send_hello_request();
  daemon_.send_hello_response("gone?");
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103", 3));
  EXPECT_EQ(3, CountLogged("dispatch_request", "WARN", "the function is NULL"));
  EXPECT_EQ(0, g_pong.signal.count());
  EXPECT_EQ(0, g_hello_response.signal.count());
}

TEST_F(Register, RegisteringTwiceReplacesHandlerAndPair) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  ASSERT_EQ(0, vemo_register_callback(answer_other, nullptr));
  daemon_.set_next_cloud_request_id(3);
  daemon_.send_cloud_request("who?");
  std::optional<Received> reply = daemon_.wait_for_reply(3, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("other", reply->response);
  EXPECT_EQ(0, g_pong.signal.count());
  daemon_.send_hello_request();  // the first pair went with the first registration
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(0, g_hello_request.signal.count());
}

TEST_F(Register, ChangingTheApplicationsPairAfterwardsHasNoEffect) {
  vemo_hello_cloud_cb_t mine = {hello_request, hello_response};
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &mine));
  mine.on_hello_request = other_hello_request;
  mine.on_hello_response = nullptr;
  daemon_.send_hello_request();
  std::optional<Received> reply = daemon_.wait_for_hello_reply(kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("hello!", reply->response);
  daemon_.send_hello_response("kept");
  EXPECT_TRUE(g_hello_response.signal.wait_for(1));
}

TEST_F(Register, NullHandlerIsRefusedAndKeepsTheEarlierRegistration) {
  ASSERT_EQ(0, vemo_register_callback(answer_pong, nullptr));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_register_callback(nullptr, &kHello));
  EXPECT_EQ(Strings{"the vemo_cloud_request_cb is NULL"}, Messages("vemo_register_callback", "ERROR"));
  daemon_.set_next_cloud_request_id(12);
  daemon_.send_cloud_request("ping");
  std::optional<Received> reply = daemon_.wait_for_reply(12, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("pong:ping", reply->response);
  EXPECT_EQ(1u, ReceivedMethod("register_callback").size());
  daemon_.send_hello_request();  // the refused call's pair was not taken either
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
}

TEST_F(Register, ReconnectReturnsTheAcknowledgementValue) {
  EXPECT_EQ(0, vemo_reconnect_cloud());
  std::optional<Received> sent = daemon_.wait_for_method("reconnect_cloud", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_EQ(R"({"inner_method":"reconnect_cloud","inner_id":)" + std::to_string(sent->id) + "}",
            sent->text);
  daemon_.set_ack_code("reconnect_cloud", -9);
  EXPECT_EQ(-9, vemo_reconnect_cloud());
  daemon_.set_ack_code("reconnect_cloud", 17);
  EXPECT_EQ(17, vemo_reconnect_cloud());
  EXPECT_TRUE(Messages("vemo_reconnect_cloud").empty());
  EXPECT_EQ(1, daemon_.connections_seen());
}

}  // namespace
}  // namespace vemo_e2e
