// Dispatch of what the daemon sends, over the real socket: every malformed or unexpected message
// gets its own code and line and changes nothing; keys are found in any letter case; method names
// are compared exactly.
#include <string.h>

#include <sstream>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

class Dispatch : public E2ETest {
 protected:
  void SetUp() override {
    E2ETest::SetUp();
    if (!HasFatalFailure()) ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  }
};

struct BadMessage {
  const char *name;
  const char *text;
  const char *lines;  // the ERROR lines before task_dispatch's, "function: message"; "" for none
  int code;
};

const BadMessage kBadMessages[] = {
    {"not JSON", "this is not json", "dispatch_message: fail to parse the message", -10100},
    {"unknown method", R"({"inner_method":"cloud_question","inner_id":1})", "", -20103},
    {"method in other letter case", R"({"inner_method":"Cloud_Request","inner_id":2,"inner_params":{"request":"x"}})",
     "", -20103},
    {"cloud request without id", R"({"inner_method":"cloud_request","inner_params":{"request":"x"}})",
     "dispatch_request: fail to get the id from the request", -20100},
    {"cloud request without params", R"({"inner_method":"cloud_request","inner_id":3})",
     "dispatch_request: fail to get the parameters from the request", -20104},
    {"cloud request without request", R"({"inner_method":"cloud_request","inner_id":3,"inner_params":{}})",
     "dispatch_request: fail to get the request form the parameters", -20104},
    {"request that is not a string", R"({"inner_method":"cloud_request","inner_id":3,"inner_params":{"request":5}})",
     "dispatch_request: fail to get the request form the parameters", -20104},
    {"hello response without params", R"({"inner_method":"response_of_hello_cloud"})",
     "dispatch_request: fail to get the parameters from the request", -20104},
    {"hello response without response", R"({"inner_method":"response_of_hello_cloud","inner_params":{}})",
     "dispatch_request: fail to get the response from the parameters", -20104},
    {"hello response not a string", R"({"inner_method":"response_of_hello_cloud","inner_params":{"response":["a"]}})",
     "dispatch_request: fail to get the response from the parameters", -20104},
    {"server notify without params", R"({"inner_method":"server_notify"})",
     "dispatch_request: fail to get the parameters from the request", -20104},
    {"server notify without type", R"({"inner_method":"server_notify","inner_params":{"kind":1}})",
     "dispatch_request: fail to get the type from the parameters", -20104},
    {"acknowledgement without code", R"({"inner_id":3})",
     "dispatch_response: fail to get the error code from the response", -10100},
    {"acknowledgement for id 300", R"({"inner_id":300,"inner_error_code":0})",
     "msg_id_pool_get_data: the message is out of range\ndispatch_response: fail to get the message data, id=300",
     -2000},
    {"acknowledgement for an idle id", R"({"inner_id":200,"inner_error_code":0})",
     "dispatch_response: fail to get the message data, id=200", -2000},
    {"response without code", R"({"other":1})", "dispatch_notify: fail to get the error code from the response", -10100},
    {"response with the daemon's code", R"({"inner_error_code":-33})", "dispatch_notify: the error code of the response=-33",
     -33},
    {"response without result", R"({"inner_error_code":0})", "dispatch_notify: fail to get the result from the response",
     -20104},
    {"response without id", R"({"inner_error_code":0,"inner_result":{"response":"x"}})",
     "dispatch_notify: fail to get the id from the result", -20104},
    {"response without response", R"({"inner_error_code":0,"inner_result":{"id":4}})",
     "dispatch_notify: fail to get the response from the result", -20104},
    {"response for an unknown id", R"({"inner_error_code":0,"inner_result":{"id":4242,"response":"x"}})",
     "response_data_set_response: can not find the message id, id=4242", -2000},
    // A method that is not a text counts as missing: without inner_id this is a response
    // notification (and not an order to tear down).
    {"method that is not a string", R"({"inner_method":1,"inner_params":{"type":1}})",
     "dispatch_notify: fail to get the error code from the response", -10100},
};

TEST_F(Dispatch, BadMessagesAreDroppedWithTheirLineAndCode) {
  for (const BadMessage &bad : kBadMessages) {
    SCOPED_TRACE(bad.name);
    log_.clear();
    ASSERT_EQ(1, daemon_.send_text(bad.text));
    const std::string dispatched = "ERROR task_dispatch: fail to dispatch the message, error=" + std::to_string(bad.code);
    ASSERT_TRUE(eventually([&] { return !log_.summary().empty() && log_.summary().back() == dispatched; }, kWaitMs));
    Strings golden;
    std::istringstream lines(bad.lines);
    for (std::string line; std::getline(lines, line);) golden.push_back("ERROR " + line);
    golden.push_back(dispatched);
    EXPECT_TRUE(golden_lines(golden, log_.summary()));
    // Nothing else changed: no handler ran, and the client is still connected and answers.
    EXPECT_TRUE(Replies().empty());
    char *text = nullptr;
    ASSERT_EQ(0, vemo_send_request_sync("still fine", 3000, 0, &text));
    EXPECT_STREQ("still fine", text);
    free(text);
  }
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_TRUE(Messages("client_destroy").empty());
}

// Keys are found in any letter case (the first of two counts), and a number with a fraction is
// read as its integer part. A server_notify of a type other than 1 changes nothing.
TEST_F(Dispatch, KeysAreMatchedWhateverTheirCase) {
  struct Row {
    const char *text;
    int id;
    const char *response;
  } rows[] = {
      {R"({"INNER_METHOD":"cloud_request","Inner_Id":41,"INNER_PARAMS":{"REQUEST":"caps"}})", 41, "caps"},
      {R"({"inner_method":"cloud_request","inner_id":12.9,"inner_params":{"request":"f"}})", 12, "f"},
      {R"({"inner_method":"cloud_request","inner_id":51,"INNER_ID":52,"inner_params":{"request":"a"},)"
       R"("Inner_Params":{"request":"b"}})", 51, "a"},
  };
  for (const Row &row : rows) {
    daemon_.send_text(row.text);
    std::optional<Received> reply = daemon_.wait_for_reply(row.id, kWaitMs);
    ASSERT_TRUE(reply.has_value()) << row.text;
    EXPECT_EQ(R"({"inner_error_code":0,"inner_result":{"response":")" + std::string(row.response) +
                  R"("},"inner_id":)" + std::to_string(row.id) + "}",
              reply->text);
  }
  ASSERT_EQ(1, daemon_.send_text(R"({"inner_method":"server_notify","inner_params":{"type":2}})"));
  EXPECT_EQ("type 2", Ask(70, "type 2"));
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("still fine", 3000, 0, &text));
  free(text);
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_TRUE(log_.summary().empty());
}

}  // namespace
}  // namespace vemo_e2e
