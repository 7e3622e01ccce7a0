// Requests to the cloud over the real socket: request ids, acknowledgement values, timeouts,
// collecting responses, the response callback and the exact device_request on the wire.
#include <string.h>

#include <chrono>
#include <future>
#include <map>
#include <set>
#include <thread>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

class Request : public E2ETest {};

// What the response callbacks of a test saw (callbacks are plain functions).
struct Seen {
  std::mutex mu;
  std::vector<std::pair<int, std::string>> calls;
  Signal signal;
};
Seen g_seen;

void record_response(int id, const char *response) {
  {
    std::lock_guard<std::mutex> hold(g_seen.mu);
    g_seen.calls.emplace_back(id, response);
  }
  g_seen.signal.notify();
}

std::vector<std::pair<int, std::string>> seen_calls() {
  std::lock_guard<std::mutex> hold(g_seen.mu);
  return g_seen.calls;
}

// A handler of the twin that acknowledges every device_request with ack_body (the text after
// "inner_id":N,) instead of the twin's own acknowledgement.
CloudDaemon::Handler acknowledge_with(const std::string &ack_body) {
  return [ack_body](CloudDaemon &d, const Received &m) {
    if (m.method != "device_request") return false;
    d.send_text("{\"inner_id\":" + std::to_string(m.id) + "," + ack_body + "}", m.conn);
    return true;
  };
}

TEST_F(Request, AsyncReturnsTheRequestIdAndTheResponseIsCollectedOnce) {
  daemon_.set_next_request_id(1205);
  daemon_.set_drop_response(true);  // the test sends the response itself, when it chooses
  ASSERT_EQ(1205, vemo_send_request_async("weather?", 3000, 0, nullptr));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(1205, &text));
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(1205, &text));
  EXPECT_EQ(nullptr, text);
  daemon_.send_text(R"({"inner_error_code":0,"inner_result":{"id":1205,"response":"sunny"}})");
  ASSERT_EQ(0, collect_response(1205, &text));
  ASSERT_NE(nullptr, text);
  EXPECT_STREQ("sunny", text);
  free(text);
  text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1205, &text));
  EXPECT_EQ(nullptr, text);
}

TEST_F(Request, AcknowledgementWithErrorCodeIsReturnedAndNothingIsEntered) {
  daemon_.set_ack_code("device_request", -7);
  daemon_.set_next_request_id(1000);
  EXPECT_EQ(-7, vemo_send_request_async("refused", 3000, 0, nullptr));
  EXPECT_EQ(Strings{"fail to send the request, error=-7"}, Messages("vemo_send_request_async", "ERROR"));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(-7, &text));
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));
  char *sync_text = nullptr;
  EXPECT_EQ(-7, vemo_send_request_sync("refused too", 3000, 0, &sync_text));
  EXPECT_EQ(nullptr, sync_text);
}

TEST_F(Request, AcknowledgementWithoutResultYieldsRequestIdZero) {
  daemon_.set_handler(acknowledge_with(R"("inner_error_code":0)"));
  EXPECT_EQ(0, vemo_send_request_async("no result", 3000, 0, nullptr));
  // 0 is a request id like any other: its response is awaited.
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_ARRIVED, vemo_get_response(0, &text));
}

TEST_F(Request, AcknowledgementWithResultWithoutIdLeavesTheSenderToTimeOut) {
  daemon_.set_handler(acknowledge_with(R"("inner_error_code":0,"inner_result":{})"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("no id", 300, 0, nullptr));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(Strings{"fail to get the id from the response"}, Messages("dispatch_response", "ERROR"));
  EXPECT_EQ(Strings{"fail to dispatch the message, error=-20104"}, Messages("task_dispatch", "ERROR"));
  EXPECT_EQ(Strings{"fail to send the request, error=-20002"}, Messages("vemo_send_request_async", "ERROR"));
}

TEST_F(Request, ZeroTimeoutSendsTheRequestAndReturns20002) {
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("now", 0, 3, nullptr));
  std::optional<Received> sent = daemon_.wait_for_method("device_request", kWaitMs);
  ASSERT_TRUE(sent.has_value());
  EXPECT_EQ("now", sent->request);
  EXPECT_EQ(0, sent->timeout_ms);
  EXPECT_EQ(3, sent->flag);
  EXPECT_EQ(Strings{"fail to send the request, error=-20002"}, Messages("vemo_send_request_async", "ERROR"));
}

TEST_F(Request, NegativeTimeoutSendsTheRequestAndReturns20002) {
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("never mind", -1, 0, nullptr));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_sync("nor this", -1, 0, &text));
  EXPECT_EQ(nullptr, text);
  std::optional<Received> first = daemon_.wait_for_method("device_request", kWaitMs);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(-1, first->timeout_ms);
  EXPECT_NE(std::string::npos, first->text.find(R"("timeout_ms":-1,)"));
  std::optional<Received> second = daemon_.wait_for_method("device_request", kWaitMs, first->index + 1);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ("nor this", second->request);
}

TEST_F(Request, SyncWithoutResponseTimesOutAfterItsTimeout) {
  daemon_.set_drop_response(true);
  char *text = nullptr;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_sync("silence", 300, 0, &text));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(nullptr, text);
  EXPECT_GE(waited, std::chrono::milliseconds(300));
  EXPECT_LT(waited, std::chrono::milliseconds(3000));
  EXPECT_TRUE(Messages("vemo_send_request_sync").empty());
}

TEST_F(Request, SyncReturnsTheResponse) {
  daemon_.set_response_fixed("sunny");
  daemon_.set_next_request_id(40);
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("weather?", 3000, 0, &text));
  ASSERT_NE(nullptr, text);
  EXPECT_STREQ("sunny", text);
  free(text);
  text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(40, &text));  // collected by the call
}

TEST_F(Request, SyncWithResponseAlreadySetIsRefusedAndLeavesTheText) {
  char mine[] = "keep me";
  char *text = mine;
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_sync("x", 3000, 0, &text));
  EXPECT_EQ(mine, text);
  EXPECT_STREQ("keep me", mine);
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_sync("x", 3000, 0, nullptr));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_sync(nullptr, 3000, 0, &text));
  EXPECT_EQ(3, CountLogged("vemo_send_request_sync", "WARN",
                           "the request or response is NULL, or *response is not NULL"));
  EXPECT_EQ(0, daemon_.connections_seen());
}

TEST_F(Request, AsyncWithNullRequestIsRefusedAndSendsNothing) {
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_send_request_async(nullptr, 3000, 0, nullptr));
  EXPECT_EQ(Strings{"the request is NULL"}, Messages("vemo_send_request_async", "ERROR"));
  EXPECT_EQ(0, daemon_.connections_seen());
}

TEST_F(Request, GetResponseBeforeAnyRequestConnectsNothing) {
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(0, daemon_.connections_seen());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Request, GetResponseWithBadOutParameterIsRefused) {
  char mine[] = "mine";
  char *text = mine;
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_get_response(1000, &text));
  EXPECT_EQ(mine, text);
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_get_response(1000, nullptr));
  EXPECT_EQ(2, CountLogged("vemo_get_response", "WARN", "the response is NULL, or *response is not NULL"));
}

TEST_F(Request, CallbackGetsIdAndTextAndTheResponseStaysCollectable) {
  daemon_.set_next_request_id(1205);
  ASSERT_EQ(1205, vemo_send_request_async("ping", 3000, 0, record_response));
  ASSERT_TRUE(g_seen.signal.wait_for(1));
  EXPECT_EQ((std::vector<std::pair<int, std::string>>{{1205, "ping"}}), seen_calls());
  char *text = nullptr;
  ASSERT_EQ(0, vemo_get_response(1205, &text));
  EXPECT_STREQ("ping", text);
  free(text);
}

TEST_F(Request, EveryDuplicateResponseReachesTheCallback) {
  daemon_.set_next_request_id(9);
  daemon_.set_duplicate_responses(2);
  ASSERT_EQ(9, vemo_send_request_async("again", 3000, 0, record_response));
  ASSERT_TRUE(g_seen.signal.wait_for(3));
  for (const auto &call : seen_calls()) EXPECT_EQ(std::make_pair(9, std::string("again")), call);
  char *text = nullptr;
  ASSERT_EQ(0, vemo_get_response(9, &text));
  EXPECT_STREQ("again", text);
  free(text);
}

TEST_F(Request, DeviceRequestOnTheWireHasTheExactKeysInOrder) {
  ASSERT_GE(vemo_send_request_async("say \"hi\"", 3000, 7, nullptr), 0);
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("again", -5, -2, nullptr));
  std::vector<Received> sent;
  for (size_t from = 0; sent.size() < 2; from = sent.back().index + 1) {
    std::optional<Received> next = daemon_.wait_for_method("device_request", kWaitMs, from);
    ASSERT_TRUE(next.has_value()) << "request " << sent.size() + 1 << " never arrived";
    sent.push_back(*next);
  }
  EXPECT_EQ(R"({"inner_method":"device_request","inner_params":{"request":"say \"hi\"",)"
            R"("timeout_ms":3000,"flag":7},"inner_id":)" + std::to_string(sent[0].id) + "}",
            sent[0].text);
  EXPECT_EQ(R"({"inner_method":"device_request","inner_params":{"request":"again",)"
            R"("timeout_ms":-5,"flag":-2},"inner_id":)" + std::to_string(sent[1].id) + "}",
            sent[1].text);
  EXPECT_GE(sent[0].id, 1);
  EXPECT_LE(sent[0].id, 256);
  EXPECT_NE(sent[0].id, sent[1].id);  // message ids rotate
}

// The acknowledgement and the response come back to back: the request id must be in the list
// before the response is dispatched, or the response is dropped.
TEST_F(Request, ResponseRightBehindItsAcknowledgementIsNeverDropped) {
  daemon_.set_response_delay_ms(0);
  constexpr int kRequests = 200;
  std::map<int, std::string> texts;
  for (int i = 0; i < kRequests; ++i) {
    std::string text = "r" + std::to_string(i);
    int id = vemo_send_request_async(text.c_str(), 5000, 0, record_response);
    ASSERT_GE(id, 0) << "request " << i;
    texts[id] = text;
  }
  EXPECT_TRUE(g_seen.signal.wait_for(kRequests)) << g_seen.signal.count() << " responses arrived";
  std::set<int> ids;
  for (const auto &call : seen_calls()) {
    ids.insert(call.first);
    EXPECT_EQ(texts[call.first], call.second);
  }
  EXPECT_EQ(static_cast<size_t>(kRequests), ids.size());
  for (const auto &entry : texts) {
    char *text = nullptr;
    ASSERT_EQ(0, vemo_get_response(entry.first, &text)) << "request id " << entry.first;
    EXPECT_EQ(entry.second, text);
    free(text);
  }
  EXPECT_TRUE(Messages("response_data_set_response").empty());
}

TEST_F(Request, ConcurrentSyncRequestsEachGetTheirOwnResponse) {
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::vector<std::future<int>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [t] {
      int mismatches = 0;
      for (int i = 0; i < kEach; ++i) {
        std::string mine = "t" + std::to_string(t) + "-" + std::to_string(i);
        char *text = nullptr;
        int rc = vemo_send_request_sync(mine.c_str(), 5000, t, &text);
        if (rc != 0 || text == nullptr || mine != text) ++mismatches;
        free(text);
      }
      return mismatches;
    }));
  }
  for (auto &w : workers) EXPECT_EQ(0, FinishOrDie(w, 30000, "a thread of synchronous requests"));
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), ReceivedMethod("device_request").size());
}

// Frames larger than the socket's buffer go out in several pieces; the pieces of two threads'
// frames must never interleave.
TEST_F(Request, LargeRequestsFromSeveralThreadsArriveWhole) {
  constexpr int kThreads = 4;
  constexpr int kEach = 4;
  constexpr size_t kSize = 512 * 1024;
  std::vector<std::future<int>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [t] {
      int mismatches = 0;
      for (int i = 0; i < kEach; ++i) {
        const std::string mine(kSize, static_cast<char>('a' + t * kEach + i));
        char *text = nullptr;
        int rc = vemo_send_request_sync(mine.c_str(), 60000, 0, &text);  // integrity, not speed
        if (rc != 0 || text == nullptr || mine != text) ++mismatches;
        free(text);
      }
      return mismatches;
    }));
  }
  for (auto &w : workers) EXPECT_EQ(0, FinishOrDie(w, 60000, "a thread of large requests"));
  EXPECT_EQ(1, daemon_.connections_seen()) << "the daemon dropped a connection over a broken frame";
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), ReceivedMethod("device_request").size());
}

}  // namespace
}  // namespace vemo_e2e
