// The client's messages on the wire, the reading rules for the daemon's, and the memory bound of
// a received message.
#include <climits>

#include "client/json_bounds.h"
#include "client/messages.h"
#include "unit/unit.h"
#include "vemo/ipc_socket.h"

namespace {

std::string closed(vemo::MessageText message, int id) {
  message.close_with_id(id);
  return message.ok() ? std::string(message.c_str()) : std::string("<failed>");
}

// The builder's texts in their key order; a device request's text is escaped byte for byte as
// cJSON's unformatted printer escapes it.
TEST(ClientMessages, MessagesAndRepliesKeepTheirKeyOrderAndEscapes) {
  std::string every_byte;
  for (int c = 1; c < 256; ++c) every_byte += static_cast<char>(c);
  const auto device = [](const std::string &request, int timeout_ms, int flag, int id) {
    vemo::JsonPtr text(cJSON_CreateString(request.c_str()));
    return std::make_pair(closed(vemo::device_request_text(request.c_str(), timeout_ms, flag), id),
                          R"({"inner_method":"device_request","inner_params":{"request":)" +
                              std::string(vemo::HeapText(cJSON_PrintUnformatted(text.get())).get()) + ",\"timeout_ms\":" +
                              std::to_string(timeout_ms) + ",\"flag\":" + std::to_string(flag) + "},\"inner_id\":" +
                              std::to_string(id) + "}");
  };
  const std::pair<std::string, std::string> rows[] = {
      device("hi \"there\"", 3000, -1, 7), device("", -1, 0, 256), device(every_byte, INT_MAX, INT_MIN, 1),
      {closed(vemo::register_text(true), 9), R"({"inner_method":"register_callback","inner_params":{"hello_cloud":1},"inner_id":9})"},
      {closed(vemo::register_text(false), 9), R"({"inner_method":"register_callback","inner_params":{"hello_cloud":0},"inner_id":9})"},
      {closed(vemo::method_only_text("reconnect_cloud"), 8), R"({"inner_method":"reconnect_cloud","inner_id":8})"},
      {vemo::reply_text("ok", 31).c_str(), R"({"inner_error_code":0,"inner_result":{"response":"ok"},"inner_id":31})"},
      // A reply to a hello request (or to an id that is not positive) carries no id.
      {vemo::reply_text("o\"k", 0).c_str(), R"({"inner_error_code":0,"inner_result":{"response":"o\"k"}})"},
      {vemo::reply_text("ok", -1).c_str(), R"({"inner_error_code":0,"inner_result":{"response":"ok"}})"},
  };
  for (const auto &row : rows) EXPECT_EQ(row.first, row.second);
}

// Keys match without regard to case, the first match wins; a text that is not a string is missing.
TEST(ClientMessages, KeysMatchWithoutCaseAndOnlyStringsAreTexts) {
  vemo::JsonPtr root(cJSON_Parse(R"({"INNER_METHOD":"a","inner_method":"b","Inner_Id":12.9,"request":5,"r2":null})"));
  ASSERT_TRUE(root);
  EXPECT_STREQ(vemo::json_text(root.get(), "inner_method"), "a");
  for (const char *name : {"request", "r2", "inner_id", "absent"}) EXPECT_EQ(vemo::json_text(root.get(), name), nullptr);
  int id = 0;
  ASSERT_TRUE(vemo::json_int(root.get(), "inner_id", &id));
  EXPECT_EQ(id, 12);  // the fraction is dropped toward zero
  EXPECT_FALSE(vemo::json_int(root.get(), "absent", &id));
  EXPECT_EQ(id, 12);
}

// Every message the daemon sends passes, whatever the length of its texts; shapes whose parsed
// tree would cost many times their frame do not, nor nesting deeper than the cap.
TEST(JsonBounds, DaemonMessagesPassCostlyShapesDoNot) {
  const auto repeated = [](const std::string &item, size_t count) {
    std::string out = item;
    for (size_t i = 1; i < count; ++i) out.append(",").append(item);
    return out;
  };
  const auto nested = [](int depth) {
    return std::string(depth, '[') + "\"" + std::string(4000, 'x') + "\"" + std::string(depth, ']');
  };
  std::string escaped;  // \" over and over: no quote in it ends the string
  while (escaped.size() < IPC_FRAME_MAX_PAYLOAD - 100) escaped.append("\\\"");
  const struct { std::string text; bool within; } rows[] = {
      {R"({"inner_id":7,"inner_error_code":0,"inner_result":{"id":1205}})", true},
      {R"({"inner_method":"cloud_request","inner_id":31,"inner_params":{"request":")" +
           std::string(IPC_FRAME_MAX_PAYLOAD - 100, 'r') + "\"}}", true},
      {R"({"inner_error_code":0,"inner_result":{"id":9,"response":")" + escaped + "\"}}", true},
      {" { \"INNER_ID\" : 12.9 , \"inner_error_code\" : 0 } \n", true},
      {"", true},
      {nested(vemo::kJsonMaxDepth), true},
      {"{\"r\":\"" + std::string(1000, '[') + "\\\"" + std::string(1000, '{') + "\"}", true},  // text, not structure
      {"\"abc\\", true},  // a trailing escape or number is not read past the length (the sanitizers
      {"12345678901234567890", true},  // would tell)
      {nested(vemo::kJsonMaxDepth + 1), false},
      {"{\"a\":" + nested(vemo::kJsonMaxDepth) + "}", false},
      {"[" + repeated("0", IPC_FRAME_MAX_PAYLOAD / 2 - 1) + "]", false},
      {"[" + repeated("0", 1000) + "]", false},
      // A 32-bit tree node is smaller: there these shapes stay within their frame's bound.
      {"{" + repeated("\"k\":[]", 1000) + "}", sizeof(void *) < 8},
      {"[" + repeated("true", 1000) + "]", sizeof(void *) < 8},
      {"[" + repeated("\"\"", 1000) + "]", false},
      {"[" + repeated("{}", 1000) + "]", false},
  };
  for (const auto &row : rows) {
    std::vector<char> exact(row.text.begin(), row.text.end());  // no terminator to stop at
    EXPECT_EQ(vemo::json_within_bounds(exact.empty() ? "" : exact.data(), static_cast<uint32_t>(exact.size())), row.within)
        << row.text.substr(0, 60);
  }
}

}  // namespace
