// Dispatch of what the daemon sends, over the real socket: every malformed or unexpected message
// gets its own code and line and changes nothing; keys are found in any letter case; method names
// are compared exactly.
#include <string.h>

#include "client/context.h"
#include "support/e2e_fixture.h"
#include "util/task_pool_internal.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

Signal g_handled;
std::mutex g_requests_mu;
Strings g_requests;

void answer_echo(const char *request, char **response) {
  {
    std::lock_guard<std::mutex> hold(g_requests_mu);
    g_requests.push_back(request);
  }
  *response = strdup(request);
  g_handled.notify();
}

Strings requests_seen() {
  std::lock_guard<std::mutex> hold(g_requests_mu);
  return g_requests;
}

class Dispatch : public E2ETest {
 protected:
  void SetUp() override {
    E2ETest::SetUp();
    if (HasFatalFailure()) return;
    // The client is connected and registered by this thread, so reading the context's task pool
    // here is ordered after its start-up; no test of this file tears the client down.
    ASSERT_EQ(0, vemo_register_callback(answer_echo, nullptr));
  }

  // True once every dispatch task has ended: only the receiving and the timeout task remain.
  bool WaitDispatchesDone() {
    task_pool_t *pool = vemo::client().task_pool;
    return wait_until([pool] { return vemo::task_pool_count(pool) == 2; });
  }

  // Sends text and waits until the receiving task has read it (the transport logs every frame it
  // receives) and its dispatch has ended. For messages whose handling logs nothing.
  void Deliver(const std::string &text) {
    ASSERT_EQ(1, daemon_.send_text(text));
    ASSERT_TRUE(wait_until([&] {
      for (const std::string &m : Messages("ipc_socket_recv", "INFO"))
        if (m.size() >= text.size() && m.compare(m.size() - text.size(), text.size(), text) == 0)
          return true;
      return false;
    })) << "never received: " << text;
    ASSERT_TRUE(WaitDispatchesDone());
  }
};

// One malformed or unexpected message: the line it must produce and the dispatch result.
struct BadMessage {
  const char *name;
  const char *text;
  const char *function;  // the function of the one ERROR line before task_dispatch's; "" for none
  const char *message;
  int code;
};

// Test names carry the case's name, not its bytes.
void PrintTo(const BadMessage &bad, std::ostream *os) { *os << bad.name; }

class DispatchBad : public Dispatch, public ::testing::WithParamInterface<BadMessage> {};

TEST_P(DispatchBad, IsDroppedWithItsLineAndCode) {
  const BadMessage &bad = GetParam();
  ASSERT_EQ(1, daemon_.send_text(bad.text));
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR",
                         "fail to dispatch the message, error=" + std::to_string(bad.code)));
  if (bad.function[0] != '\0') {
    EXPECT_EQ(Strings{bad.message}, Messages(bad.function, "ERROR"));
  }
  for (const char *fn : {"dispatch_message", "dispatch_request", "dispatch_response", "dispatch_notify",
                         "response_data_set_response"}) {
    if (strcmp(fn, bad.function) != 0) EXPECT_TRUE(Messages(fn).empty()) << fn;
  }
  EXPECT_EQ(1u, Messages("task_dispatch").size());
  EXPECT_TRUE(requests_seen().empty());
  EXPECT_TRUE(Replies().empty());
  // Nothing else changed: the client is still connected and answers.
  EXPECT_TRUE(Messages("client_destroy").empty());
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("still fine", 3000, 0, &text));
  EXPECT_STREQ("still fine", text);
  free(text);
  EXPECT_EQ(1, daemon_.connections_seen());
}

const BadMessage kBadMessages[] = {
    {"NotJson", "this is not json", "dispatch_message", "fail to parse the message", -10100},
    {"UnknownMethod", R"({"inner_method":"cloud_question","inner_id":1})", "", "", -20103},
    {"MethodInOtherLetterCase", R"({"inner_method":"Cloud_Request","inner_id":2,"inner_params":{"request":"x"}})",
     "", "", -20103},
    {"CloudRequestWithoutId", R"({"inner_method":"cloud_request","inner_params":{"request":"x"}})",
     "dispatch_request", "fail to get the id from the request", -20100},
    {"CloudRequestWithoutParams", R"({"inner_method":"cloud_request","inner_id":3})", "dispatch_request",
     "fail to get the parameters from the request", -20104},
    {"CloudRequestWithoutRequest", R"({"inner_method":"cloud_request","inner_id":3,"inner_params":{}})",
     "dispatch_request", "fail to get the request form the parameters", -20104},
    {"CloudRequestWhoseRequestIsNotAString",
     R"({"inner_method":"cloud_request","inner_id":3,"inner_params":{"request":5}})", "dispatch_request",
     "fail to get the request form the parameters", -20104},
    {"HelloResponseWithoutParams", R"({"inner_method":"response_of_hello_cloud"})", "dispatch_request",
     "fail to get the parameters from the request", -20104},
    {"HelloResponseWithoutResponse", R"({"inner_method":"response_of_hello_cloud","inner_params":{}})",
     "dispatch_request", "fail to get the response from the parameters", -20104},
    {"HelloResponseThatIsNotAString",
     R"({"inner_method":"response_of_hello_cloud","inner_params":{"response":["a"]}})", "dispatch_request",
     "fail to get the response from the parameters", -20104},
    {"ServerNotifyWithoutParams", R"({"inner_method":"server_notify"})", "dispatch_request",
     "fail to get the parameters from the request", -20104},
    {"ServerNotifyWithoutType", R"({"inner_method":"server_notify","inner_params":{"kind":1}})",
     "dispatch_request", "fail to get the type from the parameters", -20104},
    {"AcknowledgementWithoutErrorCode", R"({"inner_id":3})", "dispatch_response",
     "fail to get the error code from the response", -10100},
    {"AcknowledgementForId300", R"({"inner_id":300,"inner_error_code":0})", "dispatch_response",
     "fail to get the message data, id=300", -2000},
    {"AcknowledgementForAnIdleId", R"({"inner_id":200,"inner_error_code":0})", "dispatch_response",
     "fail to get the message data, id=200", -2000},
    {"ResponseWithoutErrorCode", R"({"other":1})", "dispatch_notify",
     "fail to get the error code from the response", -10100},
    {"ResponseWithDaemonCode", R"({"inner_error_code":-33})", "dispatch_notify",
     "the error code of the response=-33", -33},
    {"ResponseWithoutResult", R"({"inner_error_code":0})", "dispatch_notify",
     "fail to get the result from the response", -20104},
    {"ResponseWithoutId", R"({"inner_error_code":0,"inner_result":{"response":"x"}})", "dispatch_notify",
     "fail to get the id from the result", -20104},
    {"ResponseWithoutResponse", R"({"inner_error_code":0,"inner_result":{"id":4}})", "dispatch_notify",
     "fail to get the response from the result", -20104},
    {"ResponseForAnUnknownRequestId", R"({"inner_error_code":0,"inner_result":{"id":4242,"response":"x"}})",
     "response_data_set_response", "can not find the message id, id=4242", -2000},
    // A method that is not a text counts as missing: without inner_id this is a response
    // notification (and not an order to tear down).
    {"MethodThatIsNotAString", R"({"inner_method":1,"inner_params":{"type":1}})", "dispatch_notify",
     "fail to get the error code from the response", -10100},
};

INSTANTIATE_TEST_SUITE_P(Messages, DispatchBad, ::testing::ValuesIn(kBadMessages),
                         [](const ::testing::TestParamInfo<BadMessage> &info) { return info.param.name; });

TEST_F(Dispatch, KeysInCapitalsAreFound) {
  daemon_.send_text(R"({"INNER_METHOD":"cloud_request","Inner_Id":41,"INNER_PARAMS":{"REQUEST":"caps"}})");
  std::optional<Received> reply = daemon_.wait_for_reply(41, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(R"({"inner_error_code":0,"inner_result":{"response":"caps"},"inner_id":41})", reply->text);
}

TEST_F(Dispatch, NumberWithFractionIsReadAsItsIntegerPart) {
  daemon_.send_text(R"({"inner_method":"cloud_request","inner_id":12.9,"inner_params":{"request":"f"}})");
  std::optional<Received> reply = daemon_.wait_for_reply(12, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_NE(std::string::npos, reply->text.find(R"("inner_id":12})"));
}

TEST_F(Dispatch, FirstOfTwoKeysCounts) {
  daemon_.send_text(
      R"({"inner_method":"cloud_request","inner_id":51,"INNER_ID":52,"inner_params":{"request":"a"},)"
      R"("Inner_Params":{"request":"b"}})");
  std::optional<Received> reply = daemon_.wait_for_reply(51, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("a", reply->response);
}

TEST_F(Dispatch, ServerNotifyOfType2ChangesNothing) {
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(600);
  ASSERT_EQ(600, vemo_send_request_async("pending", 5000, 0, nullptr));
  ASSERT_NO_FATAL_FAILURE(Deliver(R"({"inner_method":"server_notify","inner_params":{"type":2}})"));
  EXPECT_TRUE(Messages("client_destroy").empty());
  EXPECT_TRUE(Messages("task_dispatch").empty());
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(600, &text));
  daemon_.set_next_cloud_request_id(70);
  daemon_.send_cloud_request("registered still");
  EXPECT_TRUE(daemon_.wait_for_reply(70, kWaitMs).has_value());
  EXPECT_EQ(1, daemon_.connections_seen());
}

TEST_F(Dispatch, FramesArrivingTogetherAreAllHandled) {
  auto frame = [](const std::string &text) {
    std::string f = "\xA1\xB2";
    const uint32_t n = static_cast<uint32_t>(text.size());
    for (int shift = 24; shift >= 0; shift -= 8) f += static_cast<char>((n >> shift) & 0xFF);
    return f + text;
  };
  ASSERT_EQ(1, daemon_.send_bytes(
                   frame(R"({"inner_method":"cloud_request","inner_id":91,"inner_params":{"request":"one"}})") +
                   frame(R"({"inner_method":"cloud_request","inner_id":92,"inner_params":{"request":"two"}})")));
  EXPECT_TRUE(daemon_.wait_for_reply(91, kWaitMs).has_value());
  EXPECT_TRUE(daemon_.wait_for_reply(92, kWaitMs).has_value());
  EXPECT_TRUE(g_handled.wait_for(2));
}

TEST_F(Dispatch, ResponseWithDaemonCodeLeavesTheRequestWaiting) {
  daemon_.set_response_code(-33);
  daemon_.set_next_request_id(610);
  ASSERT_EQ(610, vemo_send_request_async("fails in the cloud", 5000, 0, nullptr));
  ASSERT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-33"));
  EXPECT_EQ(Strings{"the error code of the response=-33"}, Messages("dispatch_notify", "ERROR"));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(610, &text));
}

}  // namespace
}  // namespace vemo_e2e
