// The response list: a response is copied once and collected once, expires counted from its
// arrival (at the exact boundary and across the tick wrap), and its callback runs unlocked.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <functional>
#include <thread>

#include "client/response_internal.h"
#include "client/response_probe.h"
#include "support/waits.h"
#include "unit/golden.h"
#include "vemo/response.h"

namespace {

using vemo_unit::golden;
using vemo_unit::Lines;

std::atomic<uint32_t> g_now{1000};  // the list's clock, driven by the tests
uint32_t fake_tick() { return g_now.load(); }

std::string cleared(int id) { return "DEBUG response_data_clear: clear the message id, id=" + std::to_string(id); }
std::string expired(int id, int timeout, int spent, const char *what = "response info") {
  return "DEBUG response_data_clear: " + std::string(what) + ", id=" + std::to_string(id) + ", time out=" +
         std::to_string(timeout) + " ms, time spend=" + std::to_string(spent) + " ms";
}

class ResponseList : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now.store(1000);
    vemo::response_list_set_tick_source(fake_tick);
    list_ = response_list_init();
  }
  void TearDown() override {
    response_list_destroy(list_);
    vemo::response_list_set_tick_source(nullptr);
  }
  // Adds id and, unless response is null, delivers it at the current tick.
  void enter(int id, int timeout, const char *response = "r", vemo_response_cb cb = nullptr) {
    ASSERT_EQ(response_data_add(list_, id, timeout, cb), VEMO_OK);
    if (response != nullptr) ASSERT_EQ(response_data_set_response(list_, id, response), VEMO_OK);
  }
  std::string collect(int id, int *code) {
    char *text = nullptr;
    *code = response_data_get_response(list_, id, &text);
    std::string out = text != nullptr ? text : "";
    free(text);
    return out;
  }
  response_list_t *list_ = nullptr;
};

TEST_F(ResponseList, RefusalsLogUnderTheOperationsName) {
  char mine[] = "mine";
  char *held = mine;
  enter(1, 100, "answer");
  const std::string out = "the list or response is NULL, or *response is not NULL";
  const struct {
    std::function<int()> call;
    int code;
    std::string line;
  } rows[] = {
      {[] { return response_data_add(nullptr, 1, 1, nullptr); }, VEMO_ERR_INVALID_ARG, "response_data_add: the list is NULL"},
      {[] { return response_data_set_response(nullptr, 1, "x"); }, VEMO_ERR_INVALID_ARG,
       "response_data_set_response: the list or response is NULL"},
      {[&] { return response_data_set_response(list_, 1, nullptr); }, VEMO_ERR_INVALID_ARG,
       "response_data_set_response: the list or response is NULL"},
      {[&] { return response_data_get_response(nullptr, 1, &held); }, VEMO_ERR_INVALID_ARG, "response_data_get_response: " + out},
      {[&] { return response_data_get_response(list_, 1, nullptr); }, VEMO_ERR_INVALID_ARG, "response_data_get_response: " + out},
      {[&] { return response_data_get_response(list_, 1, &held); }, VEMO_ERR_INVALID_ARG, "response_data_get_response: " + out},
      {[&] { return vemo::response_data_wait_response(list_, 1, 0, 9, &held); }, VEMO_ERR_INVALID_ARG,
       "response_data_get_response: " + out},
      {[] { return response_data_clear(nullptr, 1), 0; }, 0, "response_data_clear: the list is NULL"},
      {[] { return vemo::response_data_expire(nullptr, 0), 0; }, 0, "response_data_clear: the list is NULL"},
      {[] { return response_list_destroy(nullptr), 0; }, 0, "response_list_destroy: the list is NULL"},
      {[] { return vemo::response_data_remove(nullptr, 1), 0; }, 0, "response_data_remove: the list is NULL"},
  };
  for (const auto &row : rows) {
    vemo_test::LogCapture log;
    EXPECT_EQ(row.call(), row.code) << row.line;
    EXPECT_EQ(golden(log), Lines{"WARN " + row.line});
  }
  EXPECT_EQ(held, mine);
  int code = 0;
  EXPECT_EQ(collect(1, &code), "answer");  // nothing above consumed or replaced it
  EXPECT_EQ(code, VEMO_OK);
}

std::atomic<int> g_calls{0};
const char *g_last_text = nullptr;
void counting_cb(int, const char *response) {
  g_calls.fetch_add(1);
  g_last_text = response;
}
response_list_t *g_list = nullptr;
std::atomic<int> g_own_code{1};
void collecting_cb(int id, const char *) {
  char *text = nullptr;
  g_own_code.store(response_data_get_response(g_list, id, &text));  // deadlocks if called locked
  free(text);
}

// Pending, then arrived (a copy of its own), then collected once; a re-add replaces the entry, a
// second response restarts its expiry, and the callbacks run unlocked with the caller's text.
TEST_F(ResponseList, AResponseIsCopiedOnceCollectedOnceAndItsCallbackRunsUnlocked) {
  vemo_test::LogCapture log;
  int code = 0;
  collect(11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
  enter(11, 1000, nullptr);
  collect(11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  char original[] = "{\"v\":1}";
  ASSERT_EQ(response_data_set_response(list_, 11, original), VEMO_OK);
  original[0] = 'X';
  EXPECT_EQ(collect(11, &code), "{\"v\":1}");
  collect(11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(response_data_set_response(list_, 12, "x"), VEMO_ERR_NOT_FOUND);
  enter(14, 1000, nullptr);
  vemo::response_data_remove(list_, 14);
  vemo::response_data_remove(list_, 14);  // gone: nothing to tell
  EXPECT_EQ(golden(log), (Lines{"ERROR response_data_get_response: can not find the message id, id=11",
                                "ERROR response_data_get_response: can not find the message id, id=11",
                                "ERROR response_data_set_response: can not find the message id, id=12",
                                "DEBUG response_data_remove: clear the message id, id=14"}));
  enter(7, 100, "old");
  ASSERT_EQ(response_data_add(list_, 7, 100, counting_cb), VEMO_OK);  // "old" freed (ASan)
  collect(7, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  ASSERT_EQ(response_data_set_response(list_, 7, "first"), VEMO_OK);
  g_now.store(1080);
  const char *second = "second";
  ASSERT_EQ(response_data_set_response(list_, 7, second), VEMO_OK);
  EXPECT_EQ(g_calls.load(), 2);
  EXPECT_EQ(g_last_text, second);  // the caller's text, not the entry's copy
  g_now.store(1150);  // 150 ms after the first response, 70 after the second
  response_data_clear(list_, 0);
  EXPECT_EQ(collect(7, &code), "second");
  g_list = list_;
  enter(12, 1000, "mine", collecting_cb);  // a callback may collect its own response
  EXPECT_EQ(g_own_code.load(), VEMO_OK);
}

TEST_F(ResponseList, ArrivedResponsesExpireAtExactlyTheirTimeoutAlsoAcrossTheTickWrap) {
  const struct {
    uint32_t arrival;
    int timeout;
    uint32_t kept_at, gone_at;  // the last tick at which it stays (none when equal), the first it goes
    int spent;                  // logged when gone
  } rows[] = {
      {5000, 100, 5099, 5100, 100},  {5000, 100, 5099, 5137, 137},   {5000, 0, 5000, 5000, 0},
      {5000, -5, 5000, 5000, 0},     {0xFFFFFFC0u, 100, 35, 36, 100}, {0, 100, 99, 100, 100},
      {100, 0x7FFFFFFF, 100 + 0x7FFFFFFEu, 100 + 0x7FFFFFFFu, 0x7FFFFFFF},
  };
  for (const auto &row : rows) {
    g_now.store(row.arrival);
    enter(3, row.timeout);
    vemo_test::LogCapture log;
    g_now.store(row.kept_at);
    if (row.kept_at != row.gone_at) response_data_clear(list_, 0);
    g_now.store(row.gone_at);
    response_data_clear(list_, 0);
    EXPECT_EQ(golden(log), (Lines{expired(3, row.timeout, row.spent), cleared(3)})) << row.arrival << " " << row.timeout;
  }
}

// Due entries go newest first, a long timeout holds none up, a pending entry stays under clear
// and goes under expire only after its timeout and the grace.
TEST_F(ResponseList, ClearAndExpireRemoveDueEntriesNewestFirst) {
  enter(1, 10);
  g_now.store(1020);
  enter(6, 0x7FFFFFFF);
  enter(2, 0, nullptr);
  enter(3, 200);
  vemo_test::LogCapture log;
  g_now.store(1020 + 1000 - 1);
  response_data_clear(list_, 0);
  EXPECT_EQ(golden(log), (Lines{expired(3, 200, 999), cleared(3), expired(1, 10, 1019), cleared(1)}));
  log.clear();
  vemo::response_data_expire(list_, 1000);  // entry 2 was added at 1020 with no time of its own
  EXPECT_EQ(golden(log), Lines{});
  g_now.store(1020 + 1000);
  vemo::response_data_expire(list_, 1000);
  EXPECT_EQ(golden(log), (Lines{expired(2, 0, 1000, "no response has arrived"), cleared(2)}));
  EXPECT_EQ(response_data_set_response(list_, 2, "late"), VEMO_ERR_NOT_FOUND);  // stored for nobody
  enter(5, 100);
  log.clear();
  response_data_clear(list_, 1);  // everything, without expiry lines
  EXPECT_EQ(golden(log), (Lines{cleared(5), cleared(6)}));
}

// A waiter sleeps until its own entry changes: its response, a replacement, a removal, its
// timeout on the list's clock, or a close.
TEST_F(ResponseList, AWaiterSleepsUntilItsOwnEntryChanges) {
  const struct {
    std::function<void()> event;
    int code;
    const char *text;
  } rows[] = {
      {[&] { response_data_set_response(list_, 1, "one"); }, VEMO_OK, "one"},
      {[&] {
         response_data_add(list_, 1, 1000, nullptr);  // the waiter moves to the new entry
         EXPECT_TRUE(vemo_test::eventually([&] { return vemo::response_list_waiters(list_) == 1; }));
         response_data_set_response(list_, 1, "again");
       }, VEMO_OK, "again"},
      {[&] { vemo::response_data_remove(list_, 1); }, VEMO_ERR_NOT_FOUND, ""},
      {[&] { g_now.store(g_now.load() + 100); }, VEMO_ERR_TIMEOUT, ""},
      {[&] { vemo::response_list_close(list_); }, VEMO_ERR_DISCONNECTED, ""},
  };
  for (const auto &row : rows) {
    enter(1, 1000, nullptr);
    enter(2, 1000, "other");  // another entry's response wakes nobody
    std::atomic<int> code{1};
    std::string text;
    std::thread waiter([&] {
      char *got = nullptr;
      code.store(vemo::response_data_wait_response(list_, 1, g_now.load(), 100, &got));
      if (got != nullptr) text = got;
      free(got);
    });
    ASSERT_TRUE(vemo_test::eventually([&] { return vemo::response_list_waiters(list_) == 1; }));
    response_data_set_response(list_, 2, "other again");
    row.event();
    waiter.join();
    EXPECT_EQ(code.load(), row.code) << row.text;
    EXPECT_EQ(text, row.text);
    response_list_destroy(list_);
    list_ = response_list_init();
  }
}

}  // namespace
