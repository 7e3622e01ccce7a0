// The message-id pool (rotation, a full pool blocking and handing over, quarantine, hooks ordered
// before the holder wakes, late answers) and the response list (copy once, collect once, expiry
// from arrival at the exact boundary and across the tick wrap, the callback unlocked).
#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "client/response_internal.h"
#include "client/response_probe.h"
#include "unit/unit.h"
#include "vemo/msg_id_pool.h"
#include "vemo/response.h"
#include "vemo/util.h"

namespace {

using namespace vemo_unit;
const msg_data_t kFresh = {VEMO_ERR_NOT_ARRIVED};

class Lists : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now.store(1000);
    vemo::msg_id_pool_set_tick_source(fake_tick);
    vemo::response_list_set_tick_source(fake_tick);
    list_ = response_list_init();
  }
  void TearDown() override {
    if (pool_ != nullptr) msg_id_pool_destroy(pool_);  // frees the records still held (leak check)
    response_list_destroy(list_);
    vemo::msg_id_pool_set_tick_source(nullptr);
    vemo::response_list_set_tick_source(nullptr);
  }
  void make(int size, int held = 0) {
    if (pool_ != nullptr) msg_id_pool_destroy(pool_);
    pool_ = msg_id_pool_init(size);
    for (int i = 1; i <= held; ++i) EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), i);
  }
  int take(uint32_t start, int32_t ms, const vemo::MsgDeliverHook *hook = nullptr) {
    return vemo::msg_id_take(pool_, &kFresh, hook, vemo::Deadline{start, ms});
  }
  void give_up() {  // an id whose wait ended without an answer, returned: a quarantine
    const int id = take(0, 600000);
    EXPECT_EQ(vemo::msg_id_wait_result(pool_, id, g_now.load(), 0, nullptr), VEMO_ERR_TIMEOUT);
    vemo::msg_id_release(pool_, id);
  }
  // Adds id and, unless response is null, delivers it at the current tick.
  void enter(int id, int timeout, const char *response = "r", vemo_response_cb cb = nullptr) {
    ASSERT_EQ(response_data_add(list_, id, timeout, cb), VEMO_OK);
    if (response != nullptr) ASSERT_EQ(response_data_set_response(list_, id, response), VEMO_OK);
  }
  std::string collect(int id, int code) {  // the response, collected with code
    char *text = nullptr;
    EXPECT_EQ(response_data_get_response(list_, id, &text), code) << id;
    std::string out = text != nullptr ? text : "";
    free(text);
    return out;
  }
  msg_id_pool_t *pool_ = nullptr;
  response_list_t *list_ = nullptr;
};

TEST_F(Lists, RefusalsLogUnderTheExportedOperations) {
  char mine[] = "mine";
  char *held = mine;
  const std::string pool = "DEBUG msg_id_pool_", null = ": the msg_id_pool_t is NULL",
                    range = ": the message is out of range",
                    set_null = "WARN response_data_set_response: the list or response is NULL",
                    out = "WARN response_data_get_response: the list or response is NULL, or *response is not NULL";
  expect_calls({
      {[&] { return make(256, 1), msg_id_pool_destroy(pool_), pool_ = nullptr, 0; }, 0,
       {pool + "init: begin to initialize the message id pool...", pool + "init: end to initialize the message id pool...",
        pool + "destroy: begin to destroy the message id pool...", pool + "destroy: free the data in the message id pool",
        pool + "destroy: end to destroy the message id pool..."}},
      {[&] { return make(256, 1), enter(1, 100, "answer"), msg_id_pool_get_max_size(pool_); }, 256,
       {pool + "init: begin to initialize the message id pool...", pool + "init: end to initialize the message id pool..."}},
      {[] { return msg_id_pool_init(0) != nullptr; }, 0, {"ERROR msg_id_pool_init: the size is not available"}},
      {[] { return msg_id_pool_destroy(nullptr), 0; }, 0, {"ERROR msg_id_pool_destroy" + null}},
      {[] { return msg_id_pool_get_max_size(nullptr); }, 0, {"ERROR msg_id_pool_get_max_size" + null}},
      {[] { return msg_id_pool_get_data(nullptr, 1) != nullptr; }, 0, {"ERROR msg_id_pool_get_data" + null}},
      {[&] { return msg_id_pool_get_data(pool_, 0) != nullptr; }, 0, {"ERROR msg_id_pool_get_data" + range}},
      {[&] { return msg_id_pool_get_data(pool_, 257) != nullptr; }, 0, {"ERROR msg_id_pool_get_data" + range}},
      {[&] { return vemo::msg_id_deliver(pool_, 300, 1); }, VEMO_ERR_NOT_FOUND, {"ERROR msg_id_pool_get_data" + range}},
      {[] { return msg_id_put_to_idle(nullptr, 1), 0; }, 0, {"ERROR msg_id_put_to_idle" + null}},
      {[&] { return msg_id_put_to_idle(pool_, 0), 0; }, 0, {"ERROR msg_id_put_to_idle" + range}},
      {[] { return msg_id_get_from_idle(nullptr, &kFresh); }, VEMO_ERR_INVALID_ARG,
       {"ERROR msg_id_get_from_idle: the msg_id_pool_t or msg_data_t is NULL"}},
      {[&] { return msg_id_pool_get_data(pool_, 2) != nullptr; }, 0, {}},  // idle: silently
      {[] { return response_data_add(nullptr, 1, 1, nullptr); }, VEMO_ERR_INVALID_ARG,
       {"WARN response_data_add: the list is NULL"}},
      {[] { return response_data_set_response(nullptr, 1, "x"); }, VEMO_ERR_INVALID_ARG, {set_null}},
      {[&] { return response_data_set_response(list_, 1, nullptr); }, VEMO_ERR_INVALID_ARG, {set_null}},
      {[&] { return response_data_get_response(nullptr, 1, &held); }, VEMO_ERR_INVALID_ARG, {out}},
      {[&] { return response_data_get_response(list_, 1, nullptr); }, VEMO_ERR_INVALID_ARG, {out}},
      {[&] { return response_data_get_response(list_, 1, &held); }, VEMO_ERR_INVALID_ARG, {out}},
      {[&] { return vemo::response_data_wait_response(list_, 1, 0, 9, &held); }, VEMO_ERR_INVALID_ARG, {out}},
      {[] { return response_data_clear(nullptr, 1), 0; }, 0, {"WARN response_data_clear: the list is NULL"}},
      {[] { return vemo::response_data_expire(nullptr, 0), 0; }, 0, {"WARN response_data_clear: the list is NULL"}},
      {[] { return response_list_destroy(nullptr), 0; }, 0, {"WARN response_list_destroy: the list is NULL"}},
      {[] { return vemo::response_data_remove(nullptr, 1), 0; }, 0, {"WARN response_data_remove: the list is NULL"}},
  });
  EXPECT_NE(msg_id_pool_get_data(pool_, 1), nullptr);  // nothing above returned id 1,
  EXPECT_EQ(held, mine);
  EXPECT_EQ(collect(1, VEMO_OK), "answer");  // nor consumed or replaced the response
}

TEST_F(Lists, IdsRotateSkippingThoseInUseAndTheRecordIsThePoolsOwnCopy) {
  // A step n > 0: a take returns n; n < 0: id -n is returned; 0: the pool is full.
  const struct { int size; std::vector<int> steps; } rows[] = {
      {256, {1, 2, 3, -2, 4, 5}},
      {4, {1, 2, 3, -2, 4, 2}},      // wrapped past 1, still held
      {3, {1, 2, 3, -3, -1, 1, 3}},  // after the last id, the lowest free one
      {2, {1, 2, -2, -2, 2, 0}},     // an idle id returned twice counts once
  };
  for (const auto &row : rows) {
    make(row.size);
    for (int step : row.steps) {
      if (step < 0) msg_id_put_to_idle(pool_, -step);
      if (step > 0) EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), step) << row.size;
      if (step == 0) EXPECT_EQ(take(0, 0), VEMO_ERR_TIMEOUT);
    }
  }
  msg_data_t mine = {VEMO_ERR_NOT_ARRIVED};
  make(4);
  ASSERT_EQ(msg_id_get_from_idle(pool_, &mine), 1);
  mine.result = 99;
  EXPECT_EQ(msg_id_pool_get_data(pool_, 1)->result, VEMO_ERR_NOT_ARRIVED);
}

// A pool of 2 with id 1 held and id 2 held or quarantined: a taker sleeps until the event of
// its row, which hands it an id or ends its wait.
TEST_F(Lists, AFullPoolBlocksTheTakerUntilAnIdComesFreeOrItsDeadline) {
  const struct { bool quarantine, exported; uint32_t start; int32_t deadline_ms; std::function<void()> event; int expected; }
      rows[] = {
      {false, true, 1000, 0, [&] { msg_id_put_to_idle(pool_, 2); }, 2},
      {false, false, 1000, 60000, [&] { vemo::msg_id_release(pool_, 1); }, 1},
      {false, false, 1000, 100, [&] {
         g_now.store(1099);
         EXPECT_EQ(vemo::msg_id_pool_waiting_takers(pool_), 1);
         g_now.store(1100);
       }, VEMO_ERR_TIMEOUT},
      {true, false, 1000, 60000, [&] { EXPECT_EQ(vemo::msg_id_deliver(pool_, 2, 1), VEMO_ERR_NOT_FOUND); }, 2},
      // Nobody signals the end of a quarantine: the taker's own wait must end there.
      {true, false, 1000 + vemo::kIdQuarantineMs - 5, 30000, [&] { g_now.store(1000 + vemo::kIdQuarantineMs); }, 2},
      {true, true, 1000, 0, [&] { vemo::msg_id_pool_close(pool_); }, VEMO_ERR_DISCONNECTED},
  };
  for (const auto &row : rows) {
    g_now.store(1000);
    make(2, 1);
    if (row.quarantine) give_up();
    else msg_id_get_from_idle(pool_, &kFresh);
    g_now.store(row.start);
    EXPECT_EQ(woken([&] { return row.exported ? msg_id_get_from_idle(pool_, &kFresh) : take(row.start, row.deadline_ms); },
                    [&] { return vemo::msg_id_pool_waiting_takers(pool_); }, row.event),
              row.expected) << row.start << " " << row.deadline_ms;
  }
  make(1, 1);  // past its deadline, a take still takes a free id: the look comes first
  msg_id_put_to_idle(pool_, 1);
  EXPECT_EQ(take(0, 0), 1);
}

// A hook that waits at its gate and returns 7, noting whether the holder returned meanwhile.
struct HookProbe {
  Gate gate;
  std::atomic<int> calls{0};
  std::atomic<bool> holder_returned{false}, returned_during_hook{false};
  vemo::MsgDeliverHook hook{run, this};
  static int run(void *ctx, int) {
    auto *p = static_cast<HookProbe *>(ctx);
    p->calls.fetch_add(1);
    p->gate.wait();
    if (p->holder_returned.load()) p->returned_during_hook.store(true);
    return 7;
  }
};

// A hook held at its gate while the holder's timeout passes (and the pool closes): the holder
// still gets the answer the hook saw, with its status, and only afterwards.
TEST_F(Lists, TheHookRunsOnceBeforeTheHolderWakesWhateverTheClockOrACloseSay) {
  for (bool close : {false, true}) {
    make(4);
    HookProbe probe;
    const int id = take(0, 600000, &probe.hook);
    std::atomic<int> got{0};
    int status = 0;
    std::thread holder([&] {
      got.store(vemo::msg_id_wait_result(pool_, id, g_now.load(), 100, &status));
      probe.holder_returned.store(true);
    });
    ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
    std::thread deliverer([&] { vemo::msg_id_deliver(pool_, id, 42); });
    ASSERT_TRUE(eventually([&] { return probe.calls.load() == 1; }));
    g_now.store(g_now.load() + 1000);
    if (close) vemo::msg_id_pool_close(pool_);
    probe.gate.open();
    holder.join();
    deliverer.join();
    EXPECT_EQ(vemo::msg_id_deliver(pool_, id, 43), VEMO_OK);  // a duplicate: no second hook
    EXPECT_FALSE(probe.returned_during_hook.load());
    EXPECT_EQ(probe.calls.load(), 1);
    EXPECT_EQ(got.load(), 42);
    EXPECT_EQ(status, 7);
  }
}

// Real clock: holders give up after at most 2 ms while answers keep coming for every id; the
// sanitizer builds catch a write to a freed record.
TEST_F(Lists, ConcurrentHoldersNeverShareAnIdAndLateAnswersNeverReachAFreedRecord) {
  vemo::msg_id_pool_set_tick_source(nullptr);
  constexpr int kSize = 8;
  make(kSize);
  std::atomic<int> owner[kSize + 1] = {};
  std::atomic<int> clashes{0};
  std::atomic<bool> stop{false};
  std::thread deliverer([&] {
    for (int n = 0; !stop.load(); ++n) vemo::msg_id_deliver(pool_, n % kSize + 1, n);
  });
  std::vector<std::thread> holders;
  for (int t = 1; t <= 6; ++t)
    holders.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        msg_data_t mine = {-100 - t};
        const int id = vemo::msg_id_take(pool_, &mine, nullptr, vemo::Deadline{get_tick_count(), 60000});
        int expected = 0;
        if (id < 1 || id > kSize || !owner[id].compare_exchange_strong(expected, t)) {
          clashes.fetch_add(1);
          continue;
        }
        vemo::msg_id_wait_result(pool_, id, get_tick_count(), i % 3, nullptr);
        owner[id].store(0);
        if (i % 2 == 0) msg_id_put_to_idle(pool_, id);
        else vemo::msg_id_release(pool_, id);
      }
    });
  for (std::thread &th : holders) th.join();
  stop.store(true);
  deliverer.join();
  EXPECT_EQ(clashes.load(), 0);
  for (int id = 1; id <= kSize; ++id) EXPECT_EQ(msg_id_pool_get_data(pool_, id), nullptr);
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
TEST_F(Lists, AResponseIsCopiedOnceCollectedOnceAndItsCallbackRunsUnlocked) {
  LogCapture log;
  collect(11, VEMO_ERR_NOT_FOUND);
  enter(11, 1000, nullptr);
  collect(11, VEMO_ERR_NOT_ARRIVED);
  char original[] = "{\"v\":1}";
  ASSERT_EQ(response_data_set_response(list_, 11, original), VEMO_OK);
  original[0] = 'X';
  EXPECT_EQ(collect(11, VEMO_OK), "{\"v\":1}");
  collect(11, VEMO_ERR_NOT_FOUND);
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
  collect(7, VEMO_ERR_NOT_ARRIVED);
  ASSERT_EQ(response_data_set_response(list_, 7, "first"), VEMO_OK);
  g_now.store(1080);
  const char *second = "second";
  ASSERT_EQ(response_data_set_response(list_, 7, second), VEMO_OK);
  EXPECT_EQ(g_calls.load(), 2);
  EXPECT_EQ(g_last_text, second);  // the caller's text, not the entry's copy
  g_now.store(1150);  // 150 ms after the first response, 70 after the second
  response_data_clear(list_, 0);
  EXPECT_EQ(collect(7, VEMO_OK), "second");
  // A response after the cloud failed the id wins, and its text is handed over (ASan: not lost).
  ASSERT_EQ(response_data_add(list_, 8, 100, nullptr), VEMO_OK);
  vemo::ResponseCallbacks callbacks;
  ASSERT_TRUE(vemo::response_data_fail(list_, 8, -5, &callbacks));
  ASSERT_EQ(response_data_set_response(list_, 8, "after the failure"), VEMO_OK);
  EXPECT_EQ(collect(8, VEMO_OK), "after the failure");
  g_list = list_;
  enter(12, 1000, "mine", collecting_cb);  // a callback may collect its own response
  EXPECT_EQ(g_own_code.load(), VEMO_OK);
}

std::string cleared(int id) { return "DEBUG response_data_clear: clear the message id, id=" + std::to_string(id); }
std::string expired(int id, int timeout, int spent, const char *what = "response info") {
  return "DEBUG response_data_clear: " + std::string(what) + ", id=" + std::to_string(id) + ", time out=" +
         std::to_string(timeout) + " ms, time spend=" + std::to_string(spent) + " ms";
}

TEST_F(Lists, ArrivedResponsesExpireAtExactlyTheirTimeoutAlsoAcrossTheTickWrap) {
  // kept_at: the last tick at which it stays (none when equal); gone_at: the first it goes; spent: logged then.
  const struct { uint32_t arrival; int timeout; uint32_t kept_at, gone_at; int spent; } rows[] = {
      {5000, 100, 5099, 5100, 100},  {5000, 100, 5099, 5137, 137},   {5000, 0, 5000, 5000, 0},
      {5000, -5, 5000, 5000, 0},     {0xFFFFFFC0u, 100, 35, 36, 100}, {0, 100, 99, 100, 100},
      {100, 0x7FFFFFFF, 100 + 0x7FFFFFFEu, 100 + 0x7FFFFFFFu, 0x7FFFFFFF},
  };
  for (const auto &row : rows) {
    g_now.store(row.arrival);
    enter(3, row.timeout);
    LogCapture log;
    g_now.store(row.kept_at);
    if (row.kept_at != row.gone_at) response_data_clear(list_, 0);
    g_now.store(row.gone_at);
    response_data_clear(list_, 0);
    EXPECT_EQ(golden(log), (Lines{expired(3, row.timeout, row.spent), cleared(3)})) << row.arrival << " " << row.timeout;
  }
}

// Due entries go newest first, a long timeout holds none up, a pending entry stays under clear
// and goes under expire only after its timeout and the grace.
TEST_F(Lists, ClearAndExpireRemoveDueEntriesNewestFirst) {
  enter(1, 10);
  g_now.store(1020);
  enter(6, 0x7FFFFFFF);
  enter(2, 0, nullptr);
  enter(3, 200);
  LogCapture log;
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
TEST_F(Lists, AWaiterSleepsUntilItsOwnEntryChanges) {
  const struct { std::function<void()> event; int code; const char *text; } rows[] = {
      {[&] { response_data_set_response(list_, 1, "one"); }, VEMO_OK, "one"},
      {[&] {
         response_data_add(list_, 1, 1000, nullptr);  // the waiter moves to the new entry
         EXPECT_TRUE(eventually([&] { return vemo::response_list_waiters(list_) == 1; }));
         response_data_set_response(list_, 1, "again");
       }, VEMO_OK, "again"},
      {[&] { vemo::response_data_remove(list_, 1); }, VEMO_ERR_NOT_FOUND, ""},
      {[&] { g_now.store(g_now.load() + 100); }, VEMO_ERR_TIMEOUT, ""},
      {[&] { vemo::response_list_close(list_); }, VEMO_ERR_DISCONNECTED, ""},
  };
  for (const auto &row : rows) {
    enter(1, 1000, nullptr);
    enter(2, 1000, "other");  // another entry's response wakes nobody
    std::string text;
    const auto wait = [&] {
      char *got = nullptr;
      const int code = vemo::response_data_wait_response(list_, 1, g_now.load(), 100, &got);
      text = got != nullptr ? got : "";
      return free(got), code;
    };
    const auto event = [&] { response_data_set_response(list_, 2, "other again"), row.event(); };
    EXPECT_EQ(woken(wait, [&] { return vemo::response_list_waiters(list_); }, event), row.code) << row.text;
    EXPECT_EQ(text, row.text);
    response_list_destroy(list_);
    list_ = response_list_init();
  }
}

}  // namespace
