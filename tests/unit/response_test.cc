#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "client/response_internal.h"
#include "client/response_probe.h"
#include "support/log_capture.h"
#include "support/waits.h"
#include "vemo/response.h"
#include "vemo/util.h"

namespace {

using Messages = std::vector<std::string>;
using vemo_test::eventually;

std::atomic<uint32_t> g_now{1000};  // the list's clock, driven by the tests
uint32_t fake_tick() { return g_now.load(); }

std::string collect(response_list_t *list, int id, int *code) {
  char *text = nullptr;
  *code = response_data_get_response(list, id, &text);
  std::string out = text != nullptr ? text : "";
  free(text);
  return out;
}

std::string line_cleared(int id) { return "clear the message id, id=" + std::to_string(id); }
std::string line_expired(int id, int timeout, int spent) {
  return "response info, id=" + std::to_string(id) + ", time out=" + std::to_string(timeout) +
         " ms, time spend=" + std::to_string(spent) + " ms";
}

class ResponseList : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now.store(1000);
    vemo::response_list_set_tick_source(fake_tick);
    list_ = response_list_init();
    ASSERT_NE(list_, nullptr);
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
  // Waits for id on a thread of its own; the result lands in *code and *text.
  std::thread waiter(int id, int32_t timeout, std::atomic<int> *code, std::string *text) {
    return std::thread([=] {
      char *got = nullptr;
      code->store(vemo::response_data_wait_response(list_, id, g_now.load(), timeout, &got));
      if (got != nullptr) *text = got;
      free(got);
    });
  }
  response_list_t *list_ = nullptr;
};

TEST_F(ResponseList, BadArgumentsAreRefusedAndLoggedUnderTheOperationsName) {
  char mine[] = "mine";
  char *held = mine;
  enter(1, 100, "answer");
  struct Case {
    std::function<int()> call;
    int code;
    const char *function, *level, *message;
  } cases[] = {
      {[] { return response_data_add(nullptr, 1, 1, nullptr); }, VEMO_ERR_INVALID_ARG, "response_data_add", "WARN", "the list is NULL"},
      {[] { return response_data_set_response(nullptr, 1, "x"); }, VEMO_ERR_INVALID_ARG, "response_data_set_response", "WARN", "the list or response is NULL"},
      {[&] { return response_data_set_response(list_, 1, nullptr); }, VEMO_ERR_INVALID_ARG, "response_data_set_response", "WARN", "the list or response is NULL"},
      {[&] { return response_data_get_response(nullptr, 1, &held); }, VEMO_ERR_INVALID_ARG, "response_data_get_response", "WARN", "the list or response is NULL, or *response is not NULL"},
      {[&] { return response_data_get_response(list_, 1, nullptr); }, VEMO_ERR_INVALID_ARG, "response_data_get_response", "WARN", "the list or response is NULL, or *response is not NULL"},
      {[&] { return response_data_get_response(list_, 1, &held); }, VEMO_ERR_INVALID_ARG, "response_data_get_response", "WARN", "the list or response is NULL, or *response is not NULL"},
      {[&] { return vemo::response_data_wait_response(list_, 1, 0, 9, &held); }, VEMO_ERR_INVALID_ARG, "response_data_get_response", "WARN", "the list or response is NULL, or *response is not NULL"},
      {[] { return response_data_clear(nullptr, 1), 0; }, 0, "response_data_clear", "WARN", "the list is NULL"},
      {[] { return vemo::response_data_expire(nullptr, 0), 0; }, 0, "response_data_clear", "WARN", "the list is NULL"},
      {[] { return response_list_destroy(nullptr), 0; }, 0, "response_list_destroy", "WARN", "the list is NULL"},
      {[] { return vemo::response_data_remove(nullptr, 1), 0; }, 0, "response_data_remove", "WARN", "the list is NULL"},
  };
  for (const Case &c : cases) {
    vemo_test::LogCapture capture;
    EXPECT_EQ(c.call(), c.code) << c.message;
    EXPECT_EQ(capture.messages(c.function, c.level), Messages{c.message}) << c.function;
    EXPECT_EQ(capture.lines().size(), 1u) << c.function;
  }
  EXPECT_EQ(held, mine);
  int code = 0;
  EXPECT_EQ(collect(list_, 1, &code), "answer");  // nothing above consumed or replaced it
  EXPECT_EQ(code, VEMO_OK);
}

TEST_F(ResponseList, AnEntryIsPendingThenArrivedThenCollectedOnceAsACopyOrRemoved) {
  vemo_test::LogCapture capture;
  int code = 0;
  char *text = nullptr;
  collect(list_, 11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
  enter(11, 1000, nullptr);
  collect(list_, 11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  EXPECT_EQ(vemo::response_data_wait_response(list_, 11, g_now.load(), 0, &text), VEMO_ERR_TIMEOUT);
  char original[] = "{\"v\":1}";
  ASSERT_EQ(response_data_set_response(list_, 11, original), VEMO_OK);  // the entry stayed
  original[0] = 'X';  // the list keeps a copy of its own
  EXPECT_EQ(collect(list_, 11, &code), "{\"v\":1}");
  collect(list_, 11, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(response_data_set_response(list_, 12, "x"), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("", "ERROR"),
            (Messages{"can not find the message id, id=11", "can not find the message id, id=11",
                      "can not find the message id, id=12"}));
  enter(13, 1000);  // an arrived response is collected by a wait with no time left
  EXPECT_EQ(vemo::response_data_wait_response(list_, 13, g_now.load(), 0, &text), VEMO_OK);
  free(text);
  capture.clear();
  enter(14, 1000, nullptr);
  vemo::response_data_remove(list_, 14);
  vemo::response_data_remove(list_, 14);  // gone: nothing to tell
  EXPECT_EQ(capture.messages(), Messages{line_cleared(14)});
  EXPECT_EQ(capture.messages("response_data_remove", "DEBUG").size(), 1u);
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

TEST_F(ResponseList, ReAddingReplacesAnEntryASecondResponseRestartsExpiryCallbacksRunUnlocked) {
  g_calls.store(0);
  enter(7, 100, "old");
  ASSERT_EQ(response_data_add(list_, 7, 100, counting_cb), VEMO_OK);  // "old" freed (ASan)
  int code = 0;
  collect(list_, 7, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  ASSERT_EQ(response_data_set_response(list_, 7, "first"), VEMO_OK);
  g_now.store(1080);
  const char *second = "second";
  ASSERT_EQ(response_data_set_response(list_, 7, second), VEMO_OK);
  EXPECT_EQ(g_calls.load(), 2);
  EXPECT_EQ(g_last_text, second);  // the caller's text, not the entry's copy
  g_now.store(1150);  // 150 ms after the first response, 70 after the second
  response_data_clear(list_, 0);
  EXPECT_EQ(collect(list_, 7, &code), "second");
  g_list = list_;
  g_own_code.store(1);
  enter(12, 1000, "mine", collecting_cb);  // a callback may collect its own response
  EXPECT_EQ(g_own_code.load(), VEMO_OK);
}

TEST_F(ResponseList, ArrivedResponsesExpireAtExactlyTheirTimeoutAlsoAcrossTheTickWrap) {
  struct Case {
    uint32_t arrival;
    int timeout;
    uint32_t kept_at, gone_at;  // the last tick at which it stays, the first at which it goes
    int spent;                  // logged when gone
  } cases[] = {
      {5000, 100, 5099, 5100, 100},  {5000, 100, 5099, 5137, 137},   {5000, 0, 5000, 5000, 0},
      {5000, -5, 5000, 5000, 0},     {0xFFFFFFC0u, 100, 35, 36, 100}, {0, 100, 99, 100, 100},
      {100, 0x7FFFFFFF, 100 + 0x7FFFFFFEu, 100 + 0x7FFFFFFFu, 0x7FFFFFFF},
  };  // kept_at == gone_at: no tick before the first clear where it stays
  for (const Case &c : cases) {
    g_now.store(c.arrival);
    enter(3, c.timeout);
    vemo_test::LogCapture capture;
    g_now.store(c.kept_at);
    if (c.kept_at != c.gone_at) response_data_clear(list_, 0);
    EXPECT_TRUE(capture.lines().empty()) << c.arrival << " " << c.timeout;
    g_now.store(c.gone_at);
    response_data_clear(list_, 0);
    EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
              (Messages{line_expired(3, c.timeout, c.spent), line_cleared(3)}));
  }
}

TEST_F(ResponseList, ClearRemovesDueEntriesNewestFirstAndNeverAPendingOne) {
  enter(1, 10);  // due first, but the oldest
  g_now.store(1020);
  enter(6, 0x7FFFFFFF);  // due 24.8 days after 1 was: it must not hold 1 up
  enter(2, 0, nullptr);
  enter(3, 200);  // due last
  enter(4, 100);
  vemo_test::LogCapture capture;
  g_now.store(1000000);
  response_data_clear(list_, 0);
  EXPECT_EQ(capture.messages("response_data_clear"),
            (Messages{line_expired(4, 100, 998980), line_cleared(4), line_expired(3, 200, 998980),
                      line_cleared(3), line_expired(1, 10, 999000), line_cleared(1)}));
  int code = 0;
  collect(list_, 2, &code);
  EXPECT_EQ(code, VEMO_ERR_NOT_ARRIVED);
  enter(5, 100);
  capture.clear();
  response_data_clear(list_, 1);  // everything, newest first, without expiry lines
  EXPECT_EQ(capture.messages(), (Messages{line_cleared(5), line_cleared(2), line_cleared(6)}));
}

TEST_F(ResponseList, ExpireAlsoEndsPendingEntriesAfterTheirTimeoutAndTheGrace) {
  for (uint32_t start : {1000u, 0xFFFFFF00u}) {
    g_now.store(start);
    enter(1, 100, nullptr);
    enter(2, 100, "arrived");
    vemo_test::LogCapture capture;
    g_now.store(start + 100 + 1000 - 1);
    vemo::response_data_expire(list_, 1000);
    EXPECT_EQ(capture.messages(), (Messages{line_expired(2, 100, 1099), line_cleared(2)}));
    capture.clear();
    g_now.store(start + 100 + 1000);
    vemo::response_data_expire(list_, 1000);
    EXPECT_EQ(capture.messages("response_data_clear", "DEBUG"),
              (Messages{"no response has arrived, id=1, time out=100 ms, time spend=1100 ms",
                        line_cleared(1)}));
    // A response that comes after that is not stored for anybody.
    EXPECT_EQ(response_data_set_response(list_, 1, "late"), VEMO_ERR_NOT_FOUND);
  }
}

TEST_F(ResponseList, ExpiryFollowsAModelOfManyEntriesAndTheIndexShrinksAfterwards) {
  // Random timeouts and arrivals: each sweep must remove exactly the entries due by then.
  std::mt19937 random(7);
  struct Model {
    bool arrived;
    uint32_t stamp;  // the tick of its arrival, or of its add while pending
    int timeout;
  };
  std::map<int, Model> model;
  g_now.store(0xFFFF0000u);  // the run crosses the wrap
  for (int n = 0; n < 3000; ++n) {
    int id = n * 7919;
    int timeout = static_cast<int>(random() % 2000);
    bool arrives = random() % 4 != 0;
    g_now.store(g_now.load() + random() % 3);
    enter(id, timeout, arrives ? "r" : nullptr);
    model[id] = {arrives, g_now.load(), timeout};
  }
  EXPECT_GE(vemo::response_list_capacity(list_), 3000);
  int removed = 0;
  for (int step = 0; step < 80; ++step) {
    g_now.store(g_now.load() + 50);
    vemo_test::LogCapture capture;
    vemo::response_data_expire(list_, 500);
    std::map<int, bool> expected;
    for (const auto &m : model) {
      int32_t elapsed = static_cast<int32_t>(g_now.load() - m.second.stamp);
      if (elapsed >= m.second.timeout + (m.second.arrived ? 0 : 500)) expected[m.first] = true;
    }
    std::map<int, bool> got;
    for (const std::string &message : capture.messages("", "DEBUG")) {
      if (message.rfind("clear the message id, id=", 0) == 0) got[std::stoi(message.substr(25))] = true;
    }
    ASSERT_EQ(got, expected) << "step " << step;
    for (const auto &g : got) model.erase(g.first);
    removed += static_cast<int>(got.size());
  }
  EXPECT_EQ(removed, 3000);
  EXPECT_EQ(vemo::response_list_capacity(list_), 16);
}

TEST_F(ResponseList, AWaiterSleepsUntilItsOwnEntryChanges) {
  // Waiter 1 (timeout 100 on the list's clock) meets each end below; waiter 2 ends with code2,
  // or sleeps on (1) until its own response comes.
  struct Case {
    std::function<void()> end;
    int code;
    const char *text;
    int code2;
  } cases[] = {
      {[&] { response_data_set_response(list_, 1, "one"); }, VEMO_OK, "one", 1},
      {[&] {
         response_data_add(list_, 1, 1000, nullptr);  // the waiter moves to the new entry
         EXPECT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 2; }));
         response_data_set_response(list_, 1, "again");
       }, VEMO_OK, "again", 1},
      {[&] { vemo::response_data_remove(list_, 1); }, VEMO_ERR_NOT_FOUND, "", 1},
      {[&] { g_now.store(g_now.load() + 100); }, VEMO_ERR_TIMEOUT, "", 1},
      {[&] { response_data_clear(list_, 1); }, VEMO_ERR_NOT_FOUND, "", VEMO_ERR_NOT_FOUND},
      {[&] { vemo::response_list_close(list_); }, VEMO_ERR_DISCONNECTED, "", VEMO_ERR_DISCONNECTED},
  };
  for (const Case &c : cases) {
    std::atomic<int> code1{1}, code2{1};
    std::string text1, text2;
    enter(1, 1000, nullptr);
    enter(2, 1000, nullptr);
    std::thread w1 = waiter(1, 100, &code1, &text1);
    std::thread w2 = waiter(2, 60000, &code2, &text2);
    ASSERT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 2; }));
    vemo_test::LogCapture capture;
    c.end();
    w1.join();
    EXPECT_EQ(code1.load(), c.code) << c.text;
    EXPECT_EQ(text1, c.text);
    EXPECT_EQ(capture.contains("can not find the message id, id=1"), c.code == VEMO_ERR_NOT_FOUND);
    if (c.code2 == 1) {
      EXPECT_EQ(code2.load(), 1);
      response_data_set_response(list_, 2, "two");
    }
    w2.join();
    EXPECT_EQ(code2.load(), c.code2 == 1 ? VEMO_OK : c.code2);
    response_list_destroy(list_);
    list_ = response_list_init();
  }
  char *text = nullptr;  // a closed list: later waits fail at once
  vemo::response_list_close(list_);
  EXPECT_EQ(vemo::response_data_wait_response(list_, 1, 0, 60000, &text), VEMO_ERR_DISCONNECTED);
}

TEST_F(ResponseList, ConcurrentOwnersSweepersAndRemoversNeverLoseOrMixResponses) {
  vemo::response_list_set_tick_source(nullptr);
  vemo_test::LogCapture capture;  // keeps the output short
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::thread sweeper([&] {
    while (!stop.load()) vemo::response_data_expire(list_, 0);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string payload = "payload of " + std::to_string(t);
      for (int i = 0; i < 400; ++i) {
        int own = 100 + t * 1000 + i % 50;  // ids of this thread: every step must succeed
        int shared = i % 16;          // ids of all: any consistent outcome
        char *text = nullptr;
        if (response_data_add(list_, own, 60000, nullptr) != VEMO_OK) bad++;
        if (response_data_set_response(list_, own, payload.c_str()) != VEMO_OK) bad++;
        int rc = i % 2 == 0 ? response_data_get_response(list_, own, &text)
                            : vemo::response_data_wait_response(list_, own, get_tick_count(), 1000, &text);
        if (rc != VEMO_OK || text == nullptr || payload != text) bad++;
        free(text);
        response_data_add(list_, shared, i % 3, nullptr);
        response_data_set_response(list_, shared, "shared");
        int code = 0;
        std::string got = collect(list_, shared, &code);
        if (got != (code == VEMO_OK ? "shared" : "")) bad++;
        if (i % 5 == 0) vemo::response_data_remove(list_, shared);
      }
    });
  }
  for (std::thread &th : threads) th.join();
  stop.store(true);
  sweeper.join();
  EXPECT_EQ(bad.load(), 0);
}

}  // namespace
