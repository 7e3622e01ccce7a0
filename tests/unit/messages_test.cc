// The wire shape of the client's messages and the reading rules for the daemon's.
#include <gtest/gtest.h>

#include <string>

#include "client/messages.h"

namespace {

using vemo::JsonPtr;

std::string printed(const JsonPtr &message) {
  vemo::HeapText text = vemo::print_message(message.get());
  return text ? std::string(text.get()) : std::string("<null>");
}

TEST(ClientMessages, DeviceRequestKeysInOrderUnformatted) {
  JsonPtr message = vemo::build_device_request("hi \"there\"", 3000, -1);
  ASSERT_TRUE(message);
  ASSERT_TRUE(vemo::add_message_id(message.get(), 7));
  EXPECT_EQ(printed(message),
            "{\"inner_method\":\"device_request\",\"inner_params\":{\"request\":\"hi \\\"there\\\"\","
            "\"timeout_ms\":3000,\"flag\":-1},\"inner_id\":7}");
}

TEST(ClientMessages, NegativeTimeoutIsPassedUnchanged) {
  JsonPtr message = vemo::build_device_request("", -1, 0);
  EXPECT_EQ(printed(message),
            "{\"inner_method\":\"device_request\",\"inner_params\":{\"request\":\"\",\"timeout_ms\":-1,"
            "\"flag\":0}}");
}

TEST(ClientMessages, RegisterAnnouncesHello) {
  EXPECT_EQ(printed(vemo::build_register(true)),
            "{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":1}}");
  EXPECT_EQ(printed(vemo::build_register(false)),
            "{\"inner_method\":\"register_callback\",\"inner_params\":{\"hello_cloud\":0}}");
}

TEST(ClientMessages, MethodOnlyMessagesHaveNoParams) {
  JsonPtr message = vemo::build_method_only("reconnect_cloud");
  ASSERT_TRUE(vemo::add_message_id(message.get(), 8));
  EXPECT_EQ(printed(message), "{\"inner_method\":\"reconnect_cloud\",\"inner_id\":8}");
}

TEST(ClientMessages, ReplyEchoesOnlyPositiveIds) {
  EXPECT_EQ(printed(vemo::build_reply("ok", 31)),
            "{\"inner_error_code\":0,\"inner_result\":{\"response\":\"ok\"},\"inner_id\":31}");
  EXPECT_EQ(printed(vemo::build_reply("ok", 0)),
            "{\"inner_error_code\":0,\"inner_result\":{\"response\":\"ok\"}}");
  EXPECT_EQ(printed(vemo::build_reply("ok", -1)),
            "{\"inner_error_code\":0,\"inner_result\":{\"response\":\"ok\"}}");
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
  EXPECT_EQ(vemo::json_text(root.get(), "request"), nullptr);
  EXPECT_EQ(vemo::json_text(root.get(), "response"), nullptr);
  EXPECT_EQ(vemo::json_text(root.get(), "other"), nullptr);
  EXPECT_EQ(vemo::json_text(root.get(), "absent"), nullptr);
  EXPECT_STREQ(vemo::json_text(root.get(), "ok"), "t");
  int value = 1;
  EXPECT_FALSE(vemo::json_int(root.get(), "absent", &value));
  EXPECT_EQ(value, 1);
}

}  // namespace
