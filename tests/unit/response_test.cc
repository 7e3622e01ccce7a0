#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "client/response_internal.h"
#include "client/response_probe.h"
#include "support/log_capture.h"
#include "support/waits.h"
#include "util/clock.h"
#include "vemo/response.h"
#include "vemo/util.h"

namespace {

using vemo_test::Gate;
using vemo_test::eventually;

using Messages = std::vector<std::string>;

// The list's clock, driven by the test.
std::atomic<uint32_t> g_now{1000};
uint32_t fake_tick() { return g_now.load(); }

// Collects the response of id and returns it ("" when there is none), with the code in *code.
std::string collect(response_list_t *list, int id, int *code) {
  char *text = nullptr;
  *code = response_data_get_response(list, id, &text);
  std::string out = text != nullptr ? text : "";
  free(text);
  return out;
}

class ResponseList : public ::testing::Test {
 protected:
  void SetUp() override {
    list_ = response_list_init();
    ASSERT_NE(list_, nullptr);
  }
  void TearDown() override {
    response_list_destroy(list_);
    vemo::response_list_set_tick_source(nullptr);
  }
  void use_fake_clock(uint32_t now) {
    g_now.store(now);
    vemo::response_list_set_tick_source(fake_tick);
  }
  response_list_t *list_ = nullptr;
};

// --- argument checks ----------------------------------------------------------------------

TEST_F(ResponseList, AddToNullListIsInvalidArgument) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(response_data_add(nullptr, 1, 100, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(capture.messages("response_data_add", "WARN"), Messages{"the list is NULL"});
}

TEST_F(ResponseList, SetWithNullListOrTextIsInvalidArgument) {
  ASSERT_EQ(response_data_add(list_, 1, 100, nullptr), VEMO_OK);
  vemo_test::LogCapture capture;
  EXPECT_EQ(response_data_set_response(nullptr, 1, "x"), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(response_data_set_response(list_, 1, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(capture.messages("response_data_set_response", "WARN"),
            (Messages{"the list or response is NULL", "the list or response is NULL"}));
  int code = 0;
  collect(list_, 1, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);  // nothing was stored
}

TEST_F(ResponseList, GetWithNullListOrPointerIsInvalidArgument) {
  vemo_test::LogCapture capture;
  char *text = nullptr;
  EXPECT_EQ(response_data_get_response(nullptr, 1, &text), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(response_data_get_response(list_, 1, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(capture.messages("response_data_get_response", "WARN"),
            (Messages{"the list or response is NULL, or *response is not NULL",
                      "the list or response is NULL, or *response is not NULL"}));
}

TEST_F(ResponseList, GetWithATextAlreadyInThePointerLeavesItAlone) {
  ASSERT_EQ(response_data_add(list_, 1, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 1, "answer"), VEMO_OK);
  vemo_test::LogCapture capture;
  char mine[] = "mine";
  char *text = mine;
  EXPECT_EQ(response_data_get_response(list_, 1, &text), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(text, mine);
  EXPECT_EQ(capture.messages("response_data_get_response", "WARN"),
            Messages{"the list or response is NULL, or *response is not NULL"});
  int code = 0;
  EXPECT_EQ(collect(list_, 1, &code), "answer");  // the response was not consumed
  EXPECT_EQ(code, VEMO_OK);
}

TEST_F(ResponseList, ClearOfNullListLogs) {
  vemo_test::LogCapture capture;
  response_data_clear(nullptr, 1);
  EXPECT_EQ(capture.messages("response_data_clear", "WARN"), Messages{"the list is NULL"});
}

TEST_F(ResponseList, DestroyOfNullListLogs) {
  vemo_test::LogCapture capture;
  response_list_destroy(nullptr);
  EXPECT_EQ(capture.messages("response_list_destroy", "WARN"), Messages{"the list is NULL"});
}

// --- the life of an entry -----------------------------------------------------------------

TEST_F(ResponseList, EmptyListKnowsNoIdAndClearsNothing) {
  vemo_test::LogCapture capture;
  int code = 0;
  collect(list_, 5, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("response_data_get_response", "ERROR"), Messages{"can not find the message id, id=5"});
  capture.clear();
  response_data_clear(list_, 0);
  response_data_clear(list_, 1);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(ResponseList, GetBeforeArrivalIsNotArrivedThenTheCopyThenGone) {
  ASSERT_EQ(response_data_add(list_, 11, 1000, nullptr), VEMO_OK);
  vemo_test::LogCapture capture;
  int code = 0;
  collect(list_, 11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  EXPECT_TRUE(capture.lines().empty());
  ASSERT_EQ(response_data_set_response(list_, 11, "{\"v\":1}"), VEMO_OK);
  EXPECT_EQ(collect(list_, 11, &code), "{\"v\":1}");
  EXPECT_EQ(code, VEMO_OK);
  collect(list_, 11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("response_data_get_response", "ERROR"), Messages{"can not find the message id, id=11"});
}

TEST_F(ResponseList, CollectedTextIsTheCallersOwnCopy) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  char original[] = "text";
  ASSERT_EQ(response_data_set_response(list_, 1, original), VEMO_OK);
  original[0] = 'X';  // the list copied the text when it was stored
  char *text = nullptr;
  ASSERT_EQ(response_data_get_response(list_, 1, &text), VEMO_OK);
  ASSERT_NE(text, nullptr);
  EXPECT_NE(text, original);
  EXPECT_STREQ(text, "text");
  free(text);
}

TEST_F(ResponseList, AddingAnIdTwiceReplacesTheEntryAndFreesItsResponse) {
  ASSERT_EQ(response_data_add(list_, 7, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 7, "old"), VEMO_OK);
  vemo_test::LogCapture capture;
  ASSERT_EQ(response_data_add(list_, 7, 100, nullptr), VEMO_OK);
  EXPECT_TRUE(capture.lines().empty());
  int code = 0;
  collect(list_, 7, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);  // the new, pending entry; "old" is gone (ASan: freed)
  response_data_clear(list_, 1);
  EXPECT_EQ(capture.messages("response_data_clear"), Messages{"clear the message id, id=7"});
}

std::atomic<int> g_calls{0};
std::string g_last_text;
const char *g_last_pointer = nullptr;
void counting_cb(int, const char *response) {
  g_calls.fetch_add(1);
  g_last_text = response;
  g_last_pointer = response;
}

TEST_F(ResponseList, SecondResponseBeforeCollectionReplacesTheFirstAndRestartsExpiry) {
  use_fake_clock(1000);
  ASSERT_EQ(response_data_add(list_, 4, 100, counting_cb), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 4, "first"), VEMO_OK);
  g_now.store(1080);
  const char *second = "second";
  ASSERT_EQ(response_data_set_response(list_, 4, second), VEMO_OK);
  EXPECT_EQ(g_calls.load(), 2);
  EXPECT_EQ(g_last_pointer, second);  // the caller's text, not the entry's copy
  g_now.store(1150);  // 150 ms after the first, 70 ms after the second
  response_data_clear(list_, 0);
  int code = 0;
  EXPECT_EQ(collect(list_, 4, &code), "second");
  EXPECT_EQ(code, VEMO_OK);
}

TEST_F(ResponseList, SetForAnUnknownIdIsNotFoundAndCallsNoCallback) {
  ASSERT_EQ(response_data_add(list_, 1, 100, counting_cb), VEMO_OK);
  vemo_test::LogCapture capture;
  EXPECT_EQ(response_data_set_response(list_, 9, "x"), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("response_data_set_response", "ERROR"), Messages{"can not find the message id, id=9"});
  EXPECT_EQ(g_calls.load(), 0);
}

// --- expiry ------------------------------------------------------------------------------

TEST_F(ResponseList, ArrivedResponseIsKeptAt99MsAndRemovedAt100Ms) {
  use_fake_clock(5000);
  ASSERT_EQ(response_data_add(list_, 3, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 3, "r"), VEMO_OK);
  vemo_test::LogCapture capture;
  g_now.store(5099);
  response_data_clear(list_, 0);
  EXPECT_TRUE(capture.lines().empty());
  g_now.store(5100);
  response_data_clear(list_, 0);
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"response info, id=3, time out=100 ms, time spend=100 ms", "clear the message id, id=3"}));
  int code = 0;
  collect(list_, 3, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
}

TEST_F(ResponseList, TimeSpentIsTheElapsedTimeOfTheFirstClearPastTheTimeout) {
  use_fake_clock(5000);
  ASSERT_EQ(response_data_add(list_, 3, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 3, "r"), VEMO_OK);
  vemo_test::LogCapture capture;
  g_now.store(5137);
  response_data_clear(list_, 0);
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"response info, id=3, time out=100 ms, time spend=137 ms", "clear the message id, id=3"}));
}

TEST_F(ResponseList, TimeoutZeroIsRemovedByTheNextClear) {
  use_fake_clock(5000);
  ASSERT_EQ(response_data_add(list_, 8, 0, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 8, "r"), VEMO_OK);
  vemo_test::LogCapture capture;
  response_data_clear(list_, 0);
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"response info, id=8, time out=0 ms, time spend=0 ms", "clear the message id, id=8"}));
}

TEST_F(ResponseList, PendingEntryNeverExpires) {
  use_fake_clock(5000);
  ASSERT_EQ(response_data_add(list_, 2, 0, nullptr), VEMO_OK);
  g_now.store(5000 + 1000000);
  vemo_test::LogCapture capture;
  response_data_clear(list_, 0);
  EXPECT_TRUE(capture.lines().empty());
  int code = 0;
  collect(list_, 2, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
}

TEST_F(ResponseList, ExpiryIsRightAcrossTheWrapOfTheTickCounter) {
  use_fake_clock(0xFFFFFFC0u);  // 64 ms before the wrap
  ASSERT_EQ(response_data_add(list_, 6, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 6, "r"), VEMO_OK);
  g_now.store(35);  // 99 ms later
  response_data_clear(list_, 0);
  int code = 0;
  collect(list_, 6, &code);
  EXPECT_EQ(code, VEMO_OK);
}

TEST_F(ResponseList, ResponseStoredAtTickZeroHasArrived) {
  use_fake_clock(0);
  ASSERT_EQ(response_data_add(list_, 5, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_add(list_, 6, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 5, "at zero"), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 6, "expires"), VEMO_OK);
  int code = 0;
  EXPECT_EQ(collect(list_, 5, &code), "at zero");
  EXPECT_EQ(code, VEMO_OK);
  // It also expires like any arrived response.
  g_now.store(99);
  response_data_clear(list_, 0);
  vemo_test::LogCapture capture;
  g_now.store(100);
  response_data_clear(list_, 0);
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"response info, id=6, time out=100 ms, time spend=100 ms", "clear the message id, id=6"}));
}

TEST_F(ResponseList, ClearAllRemovesEveryEntryNewestFirstWithoutExpiryLines) {
  use_fake_clock(5000);
  ASSERT_EQ(response_data_add(list_, 1, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_add(list_, 2, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_add(list_, 3, 0, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 2, "arrived"), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 3, "expired"), VEMO_OK);
  g_now.store(6000);
  vemo_test::LogCapture capture;
  response_data_clear(list_, 1);
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"clear the message id, id=3", "clear the message id, id=2", "clear the message id, id=1"}));
  EXPECT_EQ(capture.lines().size(), 3u);
  int code = 0;
  collect(list_, 1, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
}

TEST_F(ResponseList, ClearRemovesOnlyTheExpiredAmongOthers) {
  use_fake_clock(5000);
  for (int id = 1; id <= 4; ++id) ASSERT_EQ(response_data_add(list_, id, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 1, "a"), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 3, "c"), VEMO_OK);
  g_now.store(5050);
  ASSERT_EQ(response_data_set_response(list_, 4, "d"), VEMO_OK);
  g_now.store(5100);
  vemo_test::LogCapture capture;
  response_data_clear(list_, 0);
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"response info, id=3, time out=100 ms, time spend=100 ms", "clear the message id, id=3",
                      "response info, id=1, time out=100 ms, time spend=100 ms", "clear the message id, id=1"}));
  int code = 0;
  collect(list_, 2, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  EXPECT_EQ(collect(list_, 4, &code), "d");
}

TEST_F(ResponseList, DestroyFreesPendingAndArrivedEntriesWithClearLines) {
  // The leak checker of the address-sanitizer build fails the test if an entry survives.
  ASSERT_EQ(response_data_add(list_, 1, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_add(list_, 2, 100, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 2, "kept"), VEMO_OK);
  vemo_test::LogCapture capture;
  response_list_destroy(list_);
  list_ = response_list_init();
  EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
            (Messages{"clear the message id, id=2", "clear the message id, id=1"}));
}

// --- callbacks ----------------------------------------------------------------------------

response_list_t *g_list = nullptr;
std::atomic<int> g_own_code{0};
std::string g_own_text;
void collecting_cb(int id, const char *) {
  char *text = nullptr;
  g_own_code.store(response_data_get_response(g_list, id, &text));
  if (text != nullptr) g_own_text = text;
  free(text);
}

TEST_F(ResponseList, CallbackMayCollectItsOwnResponse) {
  g_list = list_;
  ASSERT_EQ(response_data_add(list_, 12, 1000, collecting_cb), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 12, "mine"), VEMO_OK);
  EXPECT_EQ(g_own_code.load(), VEMO_OK);
  EXPECT_EQ(g_own_text, "mine");
}

// --- threads ------------------------------------------------------------------------------

TEST_F(ResponseList, ConcurrentOwnersOfDistinctIdsEachGetTheirOwnResponse) {
  // Every thread adds, fills and collects ids of its own while the others relink the list
  // around them and a sweeper walks it: every step must succeed, and nothing is logged.
  vemo_test::LogCapture capture;
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::thread sweeper([&] {
    while (!stop.load()) response_data_clear(list_, 0);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string payload = "payload of " + std::to_string(t);
      for (int i = 0; i < 300; ++i) {
        int id = t * 100 + i % 8;
        if (response_data_add(list_, id, 60000, nullptr) != VEMO_OK) bad.fetch_add(1);
        if (response_data_set_response(list_, id, payload.c_str()) != VEMO_OK) bad.fetch_add(1);
        char *text = nullptr;
        int rc = i % 2 == 0 ? response_data_get_response(list_, id, &text)
                            : vemo::response_data_wait_response(list_, id, get_tick_count(), 1000, &text);
        if (rc != VEMO_OK || text == nullptr || payload != text) bad.fetch_add(1);
        free(text);
      }
    });
  }
  for (std::thread &th : threads) th.join();
  stop.store(true);
  sweeper.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(ResponseList, ConcurrentAddSetGetAndClearOnSharedIds) {
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  auto worker = [&](int seed) {
    for (int i = 0; i < 2000; ++i) {
      int id = (i * 7 + seed) % 16;
      switch ((i + seed) % 4) {
        case 0:
          if (response_data_add(list_, id, i % 3, nullptr) != VEMO_OK) bad.fetch_add(1);
          break;
        case 1: {
          int rc = response_data_set_response(list_, id, "payload");
          if (rc != VEMO_OK && rc != VEMO_ERR_NOT_FOUND) bad.fetch_add(1);
          break;
        }
        case 2: {
          int code = 0;
          std::string text = collect(list_, id, &code);
          if (code == VEMO_OK && text != "payload") bad.fetch_add(1);
          break;
        }
        default:
          response_data_clear(list_, 0);
      }
    }
  };
  vemo_test::LogCapture capture;  // keeps the test's output short
  std::thread sweeper([&] {
    while (!stop.load()) response_data_clear(list_, 0);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(worker, t);
  for (std::thread &th : threads) th.join();
  stop.store(true);
  sweeper.join();
  EXPECT_EQ(bad.load(), 0);
}

// --- the synchronous wait -----------------------------------------------------------------

TEST_F(ResponseList, WaitIsWokenByTheResponseOfItsIdOnly) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_add(list_, 2, 1000, nullptr), VEMO_OK);
  std::atomic<int> code1{1}, code2{1};
  std::string text1, text2;
  uint32_t start = get_tick_count();
  auto waiter = [&](int id, std::atomic<int> *code, std::string *out) {
    char *text = nullptr;
    // Long timeouts: only a delivery can end these waits in time for the test.
    code->store(vemo::response_data_wait_response(list_, id, get_tick_count(), 60000, &text));
    if (text != nullptr) *out = text;
    free(text);
  };
  std::thread w1(waiter, 1, &code1, &text1);
  std::thread w2(waiter, 2, &code2, &text2);
  ASSERT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 2; }));
  ASSERT_EQ(response_data_set_response(list_, 1, "one"), VEMO_OK);
  w1.join();
  EXPECT_EQ(code1.load(), VEMO_OK);
  EXPECT_EQ(text1, "one");
  EXPECT_EQ(vemo::response_list_waiters(list_), 1);
  EXPECT_EQ(code2.load(), 1);
  ASSERT_EQ(response_data_set_response(list_, 2, "two"), VEMO_OK);
  w2.join();
  EXPECT_EQ(code2.load(), VEMO_OK);
  EXPECT_EQ(text2, "two");
  EXPECT_LT(vemo::tick_elapsed(get_tick_count(), start), 30000);
}

TEST_F(ResponseList, WaitCollectsAnArrivedResponseAtOnceEvenWithTimeoutZero) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_set_response(list_, 1, "here"), VEMO_OK);
  char *text = nullptr;
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, get_tick_count(), 0, &text), VEMO_OK);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "here");
  free(text);
}

TEST_F(ResponseList, WaitTimesOutAndLeavesThePendingEntry) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  char *text = nullptr;
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, get_tick_count(), 0, &text), VEMO_ERR_TIMEOUT);
  uint32_t start = get_tick_count();
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, start, 20, &text), VEMO_ERR_TIMEOUT);
  EXPECT_GE(vemo::tick_elapsed(get_tick_count(), start), 20);
  EXPECT_EQ(text, nullptr);
  int code = 0;
  collect(list_, 1, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
}

TEST_F(ResponseList, WaitForAnUnknownIdIsNotFoundAndLoggedAsTheCollection) {
  vemo_test::LogCapture capture;
  char *text = nullptr;
  EXPECT_EQ(vemo::response_data_wait_response(list_, 4, get_tick_count(), 1000, &text), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("response_data_get_response", "ERROR"), Messages{"can not find the message id, id=4"});
}

TEST_F(ResponseList, WaitWithBadArgumentsIsInvalidArgument) {
  vemo_test::LogCapture capture;
  char mine[] = "mine";
  char *text = mine;
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, 0, 1000, &text), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(vemo::response_data_wait_response(nullptr, 1, 0, 1000, &text), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, 0, 1000, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(text, mine);
  EXPECT_EQ(capture.messages("response_data_get_response", "WARN").size(), 3u);
}

TEST_F(ResponseList, WaitEndsAtOnceWhenItsEntryIsCleared) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  std::atomic<int> code{1};
  std::thread waiter([&] {
    char *text = nullptr;
    code.store(vemo::response_data_wait_response(list_, 1, get_tick_count(), 60000, &text));
    free(text);
  });
  ASSERT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 1; }));
  vemo_test::LogCapture capture;
  response_data_clear(list_, 1);
  waiter.join();
  EXPECT_EQ(code.load(), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("response_data_get_response", "ERROR"), Messages{"can not find the message id, id=1"});
}

TEST_F(ResponseList, WaitFollowsAReplacementEntryOfItsId) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  std::atomic<int> code{1};
  std::string got;
  std::thread waiter([&] {
    char *text = nullptr;
    code.store(vemo::response_data_wait_response(list_, 1, get_tick_count(), 60000, &text));
    if (text != nullptr) got = text;
    free(text);
  });
  ASSERT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 1; }));
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  // The waiter looks again, finds the new pending entry and sleeps on it.
  ASSERT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 1; }));
  ASSERT_EQ(response_data_set_response(list_, 1, "again"), VEMO_OK);
  waiter.join();
  EXPECT_EQ(code.load(), VEMO_OK);
  EXPECT_EQ(got, "again");
}

TEST_F(ResponseList, CloseWakesEveryWaiterAndLaterWaitsFailAtOnce) {
  ASSERT_EQ(response_data_add(list_, 1, 1000, nullptr), VEMO_OK);
  ASSERT_EQ(response_data_add(list_, 2, 1000, nullptr), VEMO_OK);
  std::atomic<int> code1{1}, code2{1};
  auto waiter = [&](int id, std::atomic<int> *code) {
    char *text = nullptr;
    code->store(vemo::response_data_wait_response(list_, id, get_tick_count(), 60000, &text));
    free(text);
  };
  std::thread w1(waiter, 1, &code1);
  std::thread w2(waiter, 2, &code2);
  ASSERT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 2; }));
  vemo::response_list_close(list_);
  w1.join();
  w2.join();
  EXPECT_EQ(code1.load(), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(code2.load(), VEMO_ERR_DISCONNECTED);

  ASSERT_EQ(response_data_set_response(list_, 1, "late"), VEMO_OK);
  char *text = nullptr;
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, get_tick_count(), 60000, &text), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(text, nullptr);
}

}  // namespace
