// The memory bound of a received message: every message the daemon sends passes, whatever the
// length of its texts; shapes whose parsed tree would cost many times their frame do not.
#include "client/json_bounds.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vemo/ipc_socket.h"

namespace {

using vemo::json_within_bounds;

// count copies of item, separated by commas.
std::string repeated(const std::string &item, size_t count) {
  std::string out = item;
  for (size_t i = 1; i < count; ++i) out.append(",").append(item);
  return out;
}

bool within(const std::string &text) {
  return json_within_bounds(text.data(), static_cast<uint32_t>(text.size()));
}

TEST(JsonBounds, EveryMessageOfTheDaemonPasses) {
  const std::string big(IPC_FRAME_MAX_PAYLOAD - 100, 'r');
  std::string escaped;  // \" over and over: no quote in it ends the string
  while (escaped.size() < IPC_FRAME_MAX_PAYLOAD - 100) escaped.append("\\\"");
  for (const std::string &text : {
           std::string("{\"inner_id\":1,\"inner_error_code\":0}"),
           std::string("{\"inner_id\":7,\"inner_error_code\":0,\"inner_result\":{\"id\":1205}}"),
           std::string("{\"inner_error_code\":0,\"inner_result\":{\"id\":1,\"response\":\"\"}}"),
           std::string("{\"inner_method\":\"server_notify\",\"inner_params\":{\"type\":1}}"),
           std::string("{\"inner_method\":\"request_of_hello_cloud\"}"),
           "{\"inner_method\":\"cloud_request\",\"inner_id\":31,\"inner_params\":{\"request\":\"" +
               big + "\"}}",
           "{\"inner_error_code\":0,\"inner_result\":{\"id\":9,\"response\":\"" + escaped + "\"}}",
           std::string(" { \"INNER_ID\" : 12.9 , \"inner_error_code\" : 0 } \n"),
           std::string(""),
       }) {
    SCOPED_TRACE(text.substr(0, 80));
    EXPECT_TRUE(within(text));
  }
}

TEST(JsonBounds, CostlyShapesAreRefused) {
  const size_t frame = IPC_FRAME_MAX_PAYLOAD;
  for (const std::string &text : {
           "[" + repeated("0", frame / 2 - 1) + "]",  // once 170 MB of tree
           "[" + repeated("0", 64) + "]",             // a small frame too, once past a few KiB of tree
           "{" + repeated("\"k\":[]", 1000) + "}",
           "[" + repeated("\"\"", 1000) + "]",
           "[" + repeated("true", 1000) + "]",
           "[" + repeated("{}", 1000) + "]",
       }) {
    SCOPED_TRACE(text.substr(0, 40));
    EXPECT_FALSE(within(text));
  }
}

TEST(JsonBounds, NestingIsCappedOutsideStringsOnly) {
  const std::string text(4000, 'x');  // keeps the cost far below the bound
  const auto nested = [&](int depth) {
    const size_t n = static_cast<size_t>(depth);
    return std::string(n, '[') + "\"" + text + "\"" + std::string(n, ']');
  };
  EXPECT_TRUE(within(nested(vemo::kJsonMaxDepth)));
  EXPECT_FALSE(within(nested(vemo::kJsonMaxDepth + 1)));
  EXPECT_FALSE(within("{\"a\":" + nested(vemo::kJsonMaxDepth) + "}"));
  // Brackets, braces and escaped quotes inside a string are text, not structure.
  EXPECT_TRUE(within("{\"request\":\"" + std::string(1000, '[') + "\\\"" +
                     std::string(1000, '{') + "\"}"));
  // A trailing escape or number is never read past the length (the sanitizers would tell).
  for (const std::string &cut : {std::string("\"abc\\"), std::string("12345678901234567890")}) {
    std::vector<char> exact(cut.begin(), cut.end());
    EXPECT_TRUE(json_within_bounds(exact.data(), static_cast<uint32_t>(exact.size())));
  }
}

}  // namespace
