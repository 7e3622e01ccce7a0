// Requests to the cloud over the real socket: acknowledgement values, the out-parameter contract,
// collecting responses, the response callback, the exact device_request on the wire, the response
// right behind its acknowledgement, and senders on several threads.
#include <string.h>

#include <algorithm>
#include <map>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

class Request : public E2ETest {};

struct AckRow {
  const char *name;
  const char *ack;  // the acknowledgement after "inner_id":N, ; nullptr: none at all
  int timeout_ms;
  bool sync;
  int code;
  Strings lines;  // every WARN and ERROR line of the call
};

// The value of the acknowledgement is the call's result, which the synchronous call passes on
// unchanged; the request goes out whatever its timeout, with the exact keys in order and a fresh
// message id, and a timeout of 0 or less returns -20002 at once.
TEST_F(Request, AcknowledgementDecidesTheResult) {
  const std::string timed_out = "ERROR vemo_send_request_async: fail to send the request, error=-20002";
  const AckRow rows[] = {
      {"daemon's \"code\"", R"("inner_error_code":-7)", 3000, false, -7,
       {"ERROR vemo_send_request_async: fail to send the request, error=-7"}},
      {"daemon's code, sync", R"("inner_error_code":-7)", 3000, true, -7,
       {"ERROR vemo_send_request_async: fail to send the request, error=-7"}},
      {"no result: request id 0", R"("inner_error_code":0)", 3000, false, 0, {}},
      {"result without id", R"("inner_error_code":0,"inner_result":{})", 300, false, VEMO_ERR_TIMEOUT,
       {"ERROR dispatch_response: fail to get the id from the response",
        "ERROR task_dispatch: fail to dispatch the message, error=-20104", timed_out}},
      {"zero timeout", nullptr, 0, false, VEMO_ERR_TIMEOUT, {timed_out}},
      {"negative timeout", nullptr, -1, false, VEMO_ERR_TIMEOUT, {timed_out}},
      {"negative timeout, sync", nullptr, -5, true, VEMO_ERR_TIMEOUT, {timed_out}},
  };
  ASSERT_NO_FATAL_FAILURE(Connect());
  int last_id = 0;
  for (const AckRow &row : rows) {
    SCOPED_TRACE(row.name);
    log_.clear();
    const std::string ack = row.ack != nullptr ? row.ack : "";
    daemon_.set_handler([ack](CloudDaemon &d, const Received &m) {
      if (m.method != "device_request") return false;
      if (!ack.empty()) d.send_text("{\"inner_id\":" + std::to_string(m.id) + "," + ack + "}", m.conn);
      return true;
    });
    const auto start = std::chrono::steady_clock::now();
    char *text = nullptr;
    EXPECT_EQ(row.code, row.sync ? vemo_send_request_sync(row.name, row.timeout_ms, -2, &text)
                                 : vemo_send_request_async(row.name, row.timeout_ms, -2, nullptr));
    if (row.code == VEMO_ERR_TIMEOUT)  // no sooner than its timeout, give or take the millisecond tick
      EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(row.timeout_ms - 2));
    EXPECT_EQ(nullptr, text);
    EXPECT_TRUE(golden_lines(row.lines, log_.summary()));
    std::optional<Received> sent =
        daemon_.wait_for_message([&row](const Received &m) { return m.request == row.name; }, kWaitMs);
    ASSERT_TRUE(sent.has_value());
    std::string escaped = row.name;
    for (size_t q = 0; (q = escaped.find('"', q)) != std::string::npos; q += 2) escaped.insert(q, "\\");
    EXPECT_TRUE(vemo_test::golden_match(R"({"inner_method":"device_request","inner_params":{"request":")" + escaped +
                                            R"(","timeout_ms":)" + std::to_string(row.timeout_ms) +
                                            R"(,"flag":-2},"inner_id":<num>})",
                                        sent->text)) << sent->text;
    EXPECT_TRUE(sent->id >= 1 && sent->id <= 256 && sent->id != last_id) << sent->id;  // ids rotate
    last_id = sent->id;
  }
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(-7, &text));  // a refusal enters nothing
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(0, &text));  // 0 is an id like any other
  // A control call returns its acknowledgement's value, positive too, without a line of its own.
  for (int code : {-9, 17, 0}) {
    daemon_.set_ack_code("reconnect_cloud", code);
    EXPECT_EQ(code, vemo_reconnect_cloud());
  }
  EXPECT_TRUE(Messages("vemo_reconnect_cloud").empty());
  EXPECT_EQ(1, daemon_.connections_seen());
}

// A refused call leaves the caller's pointer as it was, sends nothing and says why.
TEST_F(Request, BadArgumentsAreRefused) {
  char *none = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &none));  // before any request: no line
  EXPECT_TRUE(log_.lines().empty());
  char mine[] = "keep me";
  char *text = mine;
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_sync("x", 3000, 0, &text));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_sync("x", 3000, 0, nullptr));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_sync(nullptr, 3000, 0, &none));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_async(nullptr, 3000, 0, nullptr));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_get_response(1000, &text));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_get_response(1000, nullptr));
  EXPECT_EQ(mine, text);
  EXPECT_STREQ("keep me", mine);
  const std::string sync = "WARN vemo_send_request_sync: the request or response is NULL, or *response is not NULL";
  const std::string get = "WARN vemo_get_response: the response is NULL, or *response is not NULL";
  EXPECT_TRUE(golden_lines({sync, sync, sync, "ERROR vemo_send_request_async: the request is NULL", get, get},
                           log_.summary()));
  EXPECT_EQ(0, daemon_.connections_seen());
}

TEST_F(Request, ResponsesAreCollectedOnce) {
  daemon_.set_next_request_id(1205);
  daemon_.set_drop_response(true);  // the test sends the response itself, when it chooses
  ASSERT_EQ(1205, vemo_send_request_async("weather?", 3000, 0, nullptr));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(1205, &text));
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(1205, &text));
  EXPECT_EQ(nullptr, text);
  daemon_.send_text(R"({"inner_error_code":0,"inner_result":{"id":1205,"response":"sunny"}})");
  ASSERT_EQ(0, collect_response(1205, &text));
  EXPECT_STREQ("sunny", text);
  free(text);
  text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1205, &text));
  EXPECT_EQ(nullptr, text);

  // A synchronous call without a response times out after its timeout, quietly; with one, it
  // returns the text and collects it.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_sync("silence", 300, 0, &text));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(298));  // the tick is 1 ms
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
  EXPECT_EQ(nullptr, text);
  EXPECT_TRUE(Messages("vemo_send_request_sync").empty());
  daemon_.set_drop_response(false);
  daemon_.set_response_fixed("sunny");
  daemon_.set_next_request_id(40);
  ASSERT_EQ(0, vemo_send_request_sync("weather?", 3000, 0, &text));
  EXPECT_STREQ("sunny", text);
  free(text);
  text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(40, &text));
}

Recorder g_responses;  // "id text" of every response callback
void record_response(int id, const char *response) { g_responses.add(std::to_string(id) + " " + response); }

// The acknowledgement and the response come back to back: the request id must be in the list
// before the response is dispatched, or the response is dropped. Every copy of a response
// reaches the callback, and the response stays collectable.
TEST_F(Request, ResponseRightBehindItsAcknowledgementIsNeverDropped) {
  daemon_.set_response_delay_ms(0);
  daemon_.set_duplicate_responses(1);
  constexpr int kRequests = 200;
  std::map<int, std::string> texts;
  Strings want;
  for (int i = 0; i < kRequests; ++i) {
    const std::string text = "r" + std::to_string(i);
    const int id = vemo_send_request_async(text.c_str(), 5000, 0, record_response);
    ASSERT_GE(id, 0) << "request " << i;
    texts[id] = text;
    want.insert(want.end(), 2, std::to_string(id) + " " + text);
  }
  EXPECT_TRUE(g_responses.count.wait_for(2 * kRequests)) << g_responses.count.count() << " responses arrived";
  Strings seen = g_responses.all();
  std::sort(want.begin(), want.end());
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(want, seen);
  for (const auto &entry : texts) {
    char *text = nullptr;
    ASSERT_EQ(0, vemo_get_response(entry.first, &text)) << "request id " << entry.first;
    EXPECT_EQ(entry.second, text);
    free(text);
  }
  EXPECT_TRUE(Messages("response_data_set_response").empty());
}

// Each thread gets its own responses; frames larger than the socket's buffer go out in several
// pieces, and the pieces of two threads' frames never interleave.
TEST_F(Request, ThreadsSendingAtOnceEachGetTheirOwnResponses) {
  constexpr int kThreads = 4;
  constexpr int kEach = 12;
  std::vector<std::future<int>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [t] {
      int mismatches = 0;
      for (int i = 0; i < kEach; ++i) {
        const std::string mine = i % 3 == 0 ? std::string(512 * 1024, static_cast<char>('a' + t * kEach + i))
                                            : "t" + std::to_string(t) + "-" + std::to_string(i);
        char *text = nullptr;
        const int rc = vemo_send_request_sync(mine.c_str(), 60000, t, &text);  // integrity, not speed
        mismatches += rc != 0 || text == nullptr || mine != text;
        free(text);
      }
      return mismatches;
    }));
  }
  for (auto &w : workers) EXPECT_EQ(0, FinishOrDie(w, 60000, "a thread of synchronous requests"));
  EXPECT_EQ(1, daemon_.connections_seen()) << "the daemon dropped a connection over a broken frame";
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), ReceivedMethod("device_request").size());
}

}  // namespace
}  // namespace vemo_e2e
