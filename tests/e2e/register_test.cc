// Registration of the application's handlers over the real socket: what the daemon hears, which
// handler answers a cloud request or a hello, replacement, refusals and unregistering.
#include <string.h>

#include <algorithm>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

class Register : public E2ETest {};

Recorder g_calls;  // what the handlers below were handed
// Sorted: handlers run on several threads at once.
Strings calls() {
  Strings sorted = g_calls.all();
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

void answer_pong(const char *request, char **response) {
  g_calls.add(request);
  *response = strdup(("pong:" + std::string(request)).c_str());
}
void answer_other(const char *, char **response) { *response = strdup("other"); }
void answer_nothing(const char *request, char **) { g_calls.add(request); }
void hello_request(char **response) { *response = strdup("hello!"); }
void other_hello_request(char **response) { *response = strdup("not this one"); }
void hello_response(const char *response) { g_calls.add("hello response " + std::string(response)); }
const vemo_hello_cloud_cb_t kHello = {hello_request, hello_response};

const char kReply[] = R"({"inner_error_code":0,"inner_result":{"response":"%s"}%s})";
std::string reply_text(const std::string &response, const std::string &id) {
  char text[256];
  snprintf(text, sizeof text, kReply, response.c_str(), id.empty() ? "" : (",\"inner_id\":" + id).c_str());
  return text;
}

// One registration's whole life: announced, answering each message kind once with the right
// id, the application's pair copied, then replaced, a null handler refused, and unregistered.
TEST_F(Register, HandlersAnswerUntilReplacedOrUnregistered) {
  vemo_hello_cloud_cb_t mine = kHello;
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &mine));
  mine.on_hello_request = other_hello_request;  // changing the pair afterwards has no effect
  mine.on_hello_response = nullptr;
  std::optional<Received> sent = daemon_.wait_for_method("register_callback", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_TRUE(vemo_test::golden_match(
      R"({"inner_method":"register_callback","inner_params":{"hello_cloud":1},"inner_id":<num>})", sent->text));

  daemon_.set_next_cloud_request_id(31);
  daemon_.send_cloud_request("ping");
  std::optional<Received> reply = daemon_.wait_for_reply(31, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply_text("pong:ping", "31"), reply->text);
  // An id of 0 or below is answered without one.
  daemon_.send_text(R"({"inner_method":"cloud_request","inner_id":0,"inner_params":{"request":"zero"}})");
  daemon_.send_text(R"({"inner_method":"cloud_request","inner_id":-4,"inner_params":{"request":"neg"}})");
  daemon_.send_hello_request();
  for (const char *want : {"pong:zero", "pong:neg", "hello!"}) {
    std::optional<Received> unnumbered = daemon_.wait_for_message(
        [want](const Received &m) { return m.is_reply() && m.response == want; }, kWaitMs);
    ASSERT_TRUE(unnumbered.has_value()) << want;
    EXPECT_EQ(reply_text(want, ""), unnumbered->text);
  }
  // A hello response reaches its handler and is not answered; the request after it marks the
  // point by which a second reply to 31 or a reply to the hello response would be in.
  daemon_.send_hello_response("welcome");
  EXPECT_EQ("pong:later", Ask(32, "later"));
  EXPECT_EQ((Strings{"hello response welcome", "later", "neg", "ping", "zero"}), calls());
  EXPECT_EQ(5u, Replies().size());
  EXPECT_TRUE(log_.summary().empty());

  // A second registration replaces the handler and the pair.
  ASSERT_EQ(0, vemo_register_callback(answer_other, nullptr));
  EXPECT_EQ(0, ReceivedMethod("register_callback").back().hello_cloud);
  EXPECT_EQ("other", Ask(3, "who?"));
  EXPECT_TRUE(Unhandled(Incoming::kHelloRequest));

  // A null handler is refused and keeps the registration before it, without its pair.
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_register_callback(nullptr, &kHello));
  EXPECT_EQ(Strings{"the vemo_cloud_request_cb is NULL"}, Messages("vemo_register_callback", "ERROR"));
  EXPECT_EQ(2u, ReceivedMethod("register_callback").size());
  EXPECT_EQ("other", Ask(12, "ping"));
  EXPECT_TRUE(Unhandled(Incoming::kHelloRequest));

  ASSERT_EQ(0, vemo_unregister_callback());
  sent = daemon_.wait_for_method("unregister_callback", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_TRUE(vemo_test::golden_match(R"({"inner_method":"unregister_callback","inner_id":<num>})", sent->text));
  for (Incoming what : {Incoming::kCloudRequest, Incoming::kHelloRequest, Incoming::kHelloResponse})
    EXPECT_TRUE(Unhandled(what));
}

// A handler pair without its request half refuses hello requests and still hears responses;
// a handler that leaves its answer null sends no reply, logged under dispatch_request.
TEST_F(Register, HalfPairsAndMissingAnswersSendNoReply) {
  const vemo_hello_cloud_cb_t half = {nullptr, hello_response};
  ASSERT_EQ(0, vemo_register_callback(answer_nothing, &half));
  EXPECT_TRUE(Unhandled(Incoming::kHelloRequest));
  daemon_.send_hello_response("still heard");
  ASSERT_TRUE(g_calls.count.wait_for(1));
  daemon_.send_cloud_request("quiet please");
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1"));
  EXPECT_TRUE(golden_lines({"WARN dispatch_request: the function is NULL",
                            "ERROR task_dispatch: fail to dispatch the message, error=-20103",
                            "ERROR dispatch_request: fail to get the response of the request",
                            "ERROR task_dispatch: fail to dispatch the message, error=-1"},
                           log_.summary()));
  EXPECT_EQ((Strings{"hello response still heard", "quiet please"}), calls());
  EXPECT_TRUE(Replies().empty());
}

// A registration that the daemon refuses, or never acknowledges, leaves no handler; a refused
// unregistration keeps them.
TEST_F(Register, RefusedCallsChangeNoHandler) {
  daemon_.set_ack_code("register_callback", -3);
  EXPECT_EQ(-3, vemo_register_callback(answer_pong, &kHello));
  EXPECT_EQ(Strings{"fail to register the client to the server, error=-3"}, Messages("vemo_register_callback", "ERROR"));
  EXPECT_TRUE(Unhandled(Incoming::kCloudRequest));
  EXPECT_TRUE(Unhandled(Incoming::kHelloRequest));

  daemon_.set_ack_code("register_callback", 0);
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &kHello));
  daemon_.set_ack_code("unregister_callback", -4);
  EXPECT_EQ(-4, vemo_unregister_callback());
  EXPECT_EQ(Strings{"fail to clear the client from the server, error=-4"}, Messages("vemo_unregister_callback", "ERROR"));
  EXPECT_EQ("pong:still there?", Ask(8, "still there?"));
  daemon_.send_hello_request();
  EXPECT_TRUE(daemon_.wait_for_hello_reply(kWaitMs).has_value());

  // The second and last test that waits the full 5000 ms: a control message never acknowledged.
  daemon_.set_ack_code("unregister_callback", 0);
  ASSERT_EQ(0, vemo_unregister_callback());
  daemon_.set_drop_ack(true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_register_callback(answer_pong, &kHello));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4990));
  EXPECT_EQ("fail to register the client to the server, error=-20002", Messages("vemo_register_callback", "ERROR").back());
  EXPECT_TRUE(Unhandled(Incoming::kCloudRequest));
  EXPECT_EQ(Strings{"still there?"}, calls());
}

}  // namespace
}  // namespace vemo_e2e
