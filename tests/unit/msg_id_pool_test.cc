// The message-id pool: rotation, a full pool blocking and handing over, quarantine of given-up
// ids, holders woken by answers, hooks ordered before the holder wakes, late answers.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "support/waits.h"
#include "unit/golden.h"
#include "vemo/msg_id_pool.h"
#include "vemo/util.h"

namespace {

using vemo_test::eventually;
using vemo_unit::golden;
using vemo_unit::Lines;

const msg_data_t kFresh = {VEMO_ERR_NOT_ARRIVED};
std::atomic<uint32_t> g_now{1000};      // the pool's clock, driven by the tests
uint32_t fake_tick() { return g_now.load(); }

class MsgIdPool : public ::testing::Test {
 protected:
  void SetUp() override { vemo::msg_id_pool_set_tick_source(fake_tick); }
  void TearDown() override {
    if (pool_ != nullptr) msg_id_pool_destroy(pool_);  // frees the records still held (leak check)
    vemo::msg_id_pool_set_tick_source(nullptr);
  }
  void make(int size, int held = 0) {
    if (pool_ != nullptr) msg_id_pool_destroy(pool_);
    pool_ = msg_id_pool_init(size);
    for (int i = 1; i <= held; ++i) EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), i);
  }
  int take(uint32_t start, int32_t ms, const vemo::MsgDeliverHook *hook = nullptr) {
    return vemo::msg_id_take(pool_, &kFresh, hook, vemo::Deadline{start, ms});
  }
  int give_up() {  // an id whose wait ended without an answer, returned: a quarantine
    const int id = take(0, 600000);
    EXPECT_EQ(vemo::msg_id_wait_result(pool_, id, g_now.load(), 0, nullptr), VEMO_ERR_TIMEOUT);
    vemo::msg_id_release(pool_, id);
    return id;
  }
  msg_id_pool_t *pool_ = nullptr;
};

TEST_F(MsgIdPool, RefusalsLogUnderTheExportedOperations) {
  vemo_test::LogCapture log;
  EXPECT_EQ(msg_id_pool_init(0), nullptr);
  make(256, 1);
  EXPECT_EQ(msg_id_pool_get_max_size(pool_), 256);
  EXPECT_EQ(golden(log), (Lines{"ERROR msg_id_pool_init: the size is not available",
                                "DEBUG msg_id_pool_init: begin to initialize the message id pool...",
                                "DEBUG msg_id_pool_init: end to initialize the message id pool..."}));
  const std::string null = "the msg_id_pool_t is NULL", range = "the message is out of range";
  const struct {
    std::function<int()> call;
    int code;
    std::string line;
  } rows[] = {
      {[] { return msg_id_pool_destroy(nullptr), 0; }, 0, "msg_id_pool_destroy: " + null},
      {[] { return msg_id_pool_get_max_size(nullptr); }, 0, "msg_id_pool_get_max_size: " + null},
      {[] { return msg_id_pool_get_data(nullptr, 1) != nullptr; }, 0, "msg_id_pool_get_data: " + null},
      {[&] { return msg_id_pool_get_data(pool_, 0) != nullptr; }, 0, "msg_id_pool_get_data: " + range},
      {[&] { return msg_id_pool_get_data(pool_, 257) != nullptr; }, 0, "msg_id_pool_get_data: " + range},
      {[&] { return vemo::msg_id_deliver(pool_, 300, 1); }, VEMO_ERR_NOT_FOUND, "msg_id_pool_get_data: " + range},
      {[] { return msg_id_put_to_idle(nullptr, 1), 0; }, 0, "msg_id_put_to_idle: " + null},
      {[&] { return msg_id_put_to_idle(pool_, 0), 0; }, 0, "msg_id_put_to_idle: " + range},
      {[] { return msg_id_get_from_idle(nullptr, &kFresh); }, VEMO_ERR_INVALID_ARG,
       "msg_id_get_from_idle: the msg_id_pool_t or msg_data_t is NULL"},
      {[&] { return msg_id_pool_get_data(pool_, 2) != nullptr; }, 0, ""},  // idle: silently
  };
  for (const auto &row : rows) {
    log.clear();
    EXPECT_EQ(row.call(), row.code) << row.line;
    EXPECT_EQ(golden(log), row.line.empty() ? Lines{} : Lines{"ERROR " + row.line});
  }
  EXPECT_NE(msg_id_pool_get_data(pool_, 1), nullptr);  // nothing above returned id 1
  log.clear();
  msg_id_pool_destroy(pool_);
  pool_ = nullptr;
  EXPECT_EQ(golden(log), (Lines{"DEBUG msg_id_pool_destroy: begin to destroy the message id pool...",
                                "DEBUG msg_id_pool_destroy: free the data in the message id pool",
                                "DEBUG msg_id_pool_destroy: end to destroy the message id pool..."}));
}

TEST_F(MsgIdPool, IdsRotateSkippingThoseInUseAndTheRecordIsThePoolsOwnCopy) {
  const struct {
    int size;
    std::vector<int> steps;  // n > 0: a take returns n; n < 0: id -n is returned; 0: pool full
  } rows[] = {
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
TEST_F(MsgIdPool, AFullPoolBlocksTheTakerUntilAnIdComesFreeOrItsDeadline) {
  const struct {
    bool quarantine, exported;
    uint32_t start;
    int32_t deadline_ms;
    std::function<void()> event;
    int expected;
  } rows[] = {
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
    std::atomic<int> got{0};
    std::thread taker([&] {
      got.store(row.exported ? msg_id_get_from_idle(pool_, &kFresh) : take(row.start, row.deadline_ms));
    });
    ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool_) == 1; }));
    row.event();
    taker.join();
    EXPECT_EQ(got.load(), row.expected) << row.start << " " << row.deadline_ms;
  }
  make(1, 1);  // past its deadline, a take still takes a free id: the look comes first
  msg_id_put_to_idle(pool_, 1);
  EXPECT_EQ(take(0, 0), 1);
}

// A hook that waits at its gate and returns 7, noting whether the holder returned meanwhile.
struct HookProbe {
  vemo_test::Gate gate;
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
TEST_F(MsgIdPool, TheHookRunsOnceBeforeTheHolderWakesWhateverTheClockOrACloseSay) {
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
TEST_F(MsgIdPool, ConcurrentHoldersNeverShareAnIdAndLateAnswersNeverReachAFreedRecord) {
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

}  // namespace
