// The wire shape of the client's messages and the reading rules for the daemon's.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "client/messages.h"

namespace {

using vemo::JsonPtr;
using vemo::MessageText;

std::string closed(MessageText message, int id) {
  message.close_with_id(id);
  return message.ok() ? std::string(message.c_str()) : std::string("<failed>");
}

// What cJSON's unformatted printer gives for the same object: the text builder must match it
// byte for byte.
std::string printed_by_cjson(const char *request, int timeout_ms, int flag, int id) {
  JsonPtr message(cJSON_CreateObject());
  cJSON_AddItemToObject(message.get(), "inner_method", cJSON_CreateString("device_request"));
  cJSON *params = cJSON_CreateObject();
  cJSON_AddItemToObject(message.get(), "inner_params", params);
  cJSON_AddItemToObject(params, "request", cJSON_CreateString(request));
  cJSON_AddItemToObject(params, "timeout_ms", cJSON_CreateNumber(timeout_ms));
  cJSON_AddItemToObject(params, "flag", cJSON_CreateNumber(flag));
  cJSON_AddItemToObject(message.get(), "inner_id", cJSON_CreateNumber(id));
  vemo::HeapText text(cJSON_PrintUnformatted(message.get()));
  return text.get();
}

TEST(ClientMessages, DeviceRequestIsPrintedAsCjsonPrintsIt) {
  std::string every_byte;
  for (int c = 1; c < 256; ++c) every_byte += static_cast<char>(c);
  const struct {
    std::string request;
    int timeout_ms, flag, id;
  } cases[] = {
      {"hi \"there\"", 3000, -1, 7},
      {"", -1, 0, 256},
      {"tab\tnew\nline\\back\bform\fret\r", INT_MAX, INT_MIN, 1},
      {"\x01\x1f\x7f \xc3\xa9 \xe2\x82\xac", 0, 5, 2},
      {every_byte, 100, 1, 3},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(closed(vemo::device_request_text(c.request.c_str(), c.timeout_ms, c.flag), c.id),
              printed_by_cjson(c.request.c_str(), c.timeout_ms, c.flag, c.id))
        << "request of " << c.request.size() << " bytes";
  }
}

TEST(ClientMessages, ControlMessagesAndRepliesKeepTheirKeyOrder) {
  const struct {
    std::string got, want;
  } cases[] = {
      {closed(vemo::register_text(true), 9),
       R"({"inner_method":"register_callback","inner_params":{"hello_cloud":1},"inner_id":9})"},
      {closed(vemo::register_text(false), 9),
       R"({"inner_method":"register_callback","inner_params":{"hello_cloud":0},"inner_id":9})"},
      {closed(vemo::method_only_text("reconnect_cloud"), 8),
       R"({"inner_method":"reconnect_cloud","inner_id":8})"},
      {vemo::reply_text("ok", 31).c_str(),
       R"({"inner_error_code":0,"inner_result":{"response":"ok"},"inner_id":31})"},
      // A reply to a hello request (or to an id that is not positive) carries no id.
      {vemo::reply_text("o\"k", 0).c_str(), R"({"inner_error_code":0,"inner_result":{"response":"o\"k"}})"},
      {vemo::reply_text("ok", -1).c_str(), R"({"inner_error_code":0,"inner_result":{"response":"ok"}})"},
  };
  for (const auto &c : cases) EXPECT_EQ(c.got, c.want);
}

TEST(ClientMessages, KeysAreFoundWithoutRegardToCaseFirstMatchWins) {
  JsonPtr root(cJSON_Parse("{\"INNER_METHOD\":\"a\",\"inner_method\":\"b\",\"Inner_Id\":12.9}"));
  ASSERT_TRUE(root);
  EXPECT_STREQ(vemo::json_text(root.get(), "inner_method"), "a");
  int id = 0;
  ASSERT_TRUE(vemo::json_int(root.get(), "inner_id", &id));
  EXPECT_EQ(id, 12);  // the fraction is dropped toward zero
}

TEST(ClientMessages, TextThatIsNotAStringCountsAsMissing) {
  JsonPtr root(cJSON_Parse("{\"request\":5,\"response\":null,\"other\":{\"x\":1},\"ok\":\"t\"}"));
  ASSERT_TRUE(root);
  for (const char *name : {"request", "response", "other", "absent"}) {
    EXPECT_EQ(vemo::json_text(root.get(), name), nullptr) << name;
  }
  EXPECT_STREQ(vemo::json_text(root.get(), "ok"), "t");
  int value = 1;
  EXPECT_FALSE(vemo::json_int(root.get(), "absent", &value));
  EXPECT_EQ(value, 1);
}

}  // namespace
