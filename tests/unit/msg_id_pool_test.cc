#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "support/log_capture.h"
#include "support/waits.h"
#include "vemo/msg_id_pool.h"
#include "vemo/util.h"

namespace {

using Messages = std::vector<std::string>;
using vemo_test::eventually;
using vemo_test::Gate;

const msg_data_t kFresh = {VEMO_ERR_NOT_ARRIVED};
const vemo::Deadline kLong{0, 600000};  // on the test's clock: never reached

std::atomic<uint32_t> g_now{1000};  // the pool's clock, driven by the tests
uint32_t fake_tick() { return g_now.load(); }

class MsgIdPool : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now.store(1000);
    vemo::msg_id_pool_set_tick_source(fake_tick);
  }
  void TearDown() override {
    if (pool_ != nullptr) msg_id_pool_destroy(pool_);
    vemo::msg_id_pool_set_tick_source(nullptr);
  }
  msg_id_pool_t *make(int size, int held = 0) {
    pool_ = msg_id_pool_init(size);
    for (int i = 1; i <= held; ++i) EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), i);
    return pool_;
  }
  // The wait of a holder whose timeout has run out by now (or is 0 or less).
  int wait_expired(int id, int32_t timeout) {
    return vemo::msg_id_wait_result(pool_, id, g_now.load() - static_cast<uint32_t>(timeout), timeout, nullptr);
  }
  // Takes an id, then lets its wait end without an answer and releases it: a quarantine.
  int give_up(int32_t timeout) {
    int id = vemo::msg_id_take(pool_, &kFresh, nullptr, kLong);
    EXPECT_EQ(wait_expired(id, timeout), VEMO_ERR_TIMEOUT);
    vemo::msg_id_release(pool_, id);
    return id;
  }
  msg_id_pool_t *pool_ = nullptr;
};

TEST_F(MsgIdPool, CreationDestructionAndBadArgumentsLogAsTheExportedOperations) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_init(0), nullptr);
  EXPECT_EQ(msg_id_pool_init(-5), nullptr);
  msg_id_pool_t *pool = msg_id_pool_init(256);
  EXPECT_EQ(msg_id_pool_get_max_size(pool), 256);
  msg_id_pool_destroy(pool);
  EXPECT_EQ(capture.messages("msg_id_pool_init"),
            (Messages{"the size is not available", "the size is not available", "begin to initialize the message id pool...",
                      "end to initialize the message id pool..."}));
  EXPECT_EQ(capture.messages("msg_id_pool_destroy"),
            (Messages{"begin to destroy the message id pool...", "free the data in the message id pool",
                      "end to destroy the message id pool..."}));
  make(256, 1);
  struct Case {
    std::function<void()> call;
    const char *function, *message;
  } cases[] = {
      {[] { msg_id_pool_destroy(nullptr); }, "msg_id_pool_destroy", "the msg_id_pool_t is NULL"},
      {[] { EXPECT_EQ(msg_id_pool_get_max_size(nullptr), 0); }, "msg_id_pool_get_max_size", "the msg_id_pool_t is NULL"},
      {[] { EXPECT_EQ(msg_id_pool_get_data(nullptr, 1), nullptr); }, "msg_id_pool_get_data", "the msg_id_pool_t is NULL"},
      {[&] { EXPECT_EQ(msg_id_pool_get_data(pool_, 0), nullptr); }, "msg_id_pool_get_data", "the message is out of range"},
      {[&] { EXPECT_EQ(msg_id_pool_get_data(pool_, 257), nullptr); }, "msg_id_pool_get_data", "the message is out of range"},
      {[&] { EXPECT_EQ(vemo::msg_id_deliver(pool_, 300, 1), VEMO_ERR_NOT_FOUND); }, "msg_id_pool_get_data", "the message is out of range"},
      {[&] { EXPECT_EQ(vemo::msg_id_wait_result(pool_, 0, 0, 9, nullptr), VEMO_ERR_NO_ANSWER); }, "msg_id_pool_get_data", "the message is out of range"},
      {[] { msg_id_put_to_idle(nullptr, 1); }, "msg_id_put_to_idle", "the msg_id_pool_t is NULL"},
      {[&] { msg_id_put_to_idle(pool_, 0); }, "msg_id_put_to_idle", "the message is out of range"},
      {[&] { vemo::msg_id_release(pool_, 257); }, "msg_id_put_to_idle", "the message is out of range"},
      {[] { EXPECT_EQ(msg_id_get_from_idle(nullptr, &kFresh), VEMO_ERR_INVALID_ARG); }, "msg_id_get_from_idle", "the msg_id_pool_t or msg_data_t is NULL"},
      {[&] { EXPECT_EQ(vemo::msg_id_take(pool_, nullptr, nullptr, kLong), VEMO_ERR_INVALID_ARG); }, "msg_id_get_from_idle", "the msg_id_pool_t or msg_data_t is NULL"},
  };
  for (const Case &c : cases) {
    capture.clear();
    c.call();
    EXPECT_EQ(capture.messages(c.function, "ERROR"), Messages{c.message}) << c.function;
    EXPECT_EQ(capture.lines().size(), 1u) << c.function;
  }
  capture.clear();
  EXPECT_EQ(msg_id_pool_get_data(pool_, 2), nullptr);  // idle: silently
  msg_id_put_to_idle(pool_, 2);
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_NE(msg_id_pool_get_data(pool_, 1), nullptr);  // nothing above returned id 1
}

TEST_F(MsgIdPool, IdsRotateSkippingThoseInUseAndTheRecordIsThePoolsOwnCopy) {
  struct Case {
    int size;
    std::vector<int> steps;  // n > 0: a take returns n; n < 0: id -n is returned; 0: pool full
  } cases[] = {
      {256, {1, 2, 3, -2, 4, 5}},
      {4, {1, 2, 3, -2, 4, 2}},        // wrapped past 1, still held
      {3, {1, 2, 3, -3, -1, 1, 3}},    // after the last id, the lowest free one
      {2, {1, 2, -2, -2, 2, 0}},       // an idle id returned twice counts once
  };
  for (const Case &c : cases) {
    make(c.size);
    for (int step : c.steps) {
      if (step < 0) msg_id_put_to_idle(pool_, -step);
      if (step > 0) EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), step) << c.size;
      if (step == 0) EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, vemo::Deadline{0, 0}), VEMO_ERR_TIMEOUT);
    }
    msg_id_pool_destroy(pool_);  // frees the records still held (ASan's leak check)
  }
  make(4);
  msg_data_t mine = {VEMO_ERR_NOT_ARRIVED};
  ASSERT_EQ(msg_id_get_from_idle(pool_, &mine), 1);
  mine.result = 99;
  EXPECT_EQ(msg_id_pool_get_data(pool_, 1)->result, VEMO_ERR_NOT_ARRIVED);
}

TEST_F(MsgIdPool, ABlockedTakerGetsTheIdThatComesFirstOrGivesUpAtItsDeadline) {
  // A pool of 2 with id 1 held and id 2 held or quarantined (given up at 1000). A taker, started
  // at tick `start` with a deadline of deadline_ms, sleeps until `end` happens.
  struct Case {
    bool quarantine, exported;
    uint32_t start;
    int32_t deadline_ms;
    std::function<void()> end;
    int expected;
  } cases[] = {
      {false, true, 1000, 0, [&] { msg_id_put_to_idle(pool_, 2); }, 2},
      {false, false, 1000, 60000, [&] { vemo::msg_id_release(pool_, 1); }, 1},
      {false, false, 1000, 100, [&] { g_now.store(1099); EXPECT_EQ(vemo::msg_id_pool_waiting_takers(pool_), 1);
                                      g_now.store(1100); }, VEMO_ERR_TIMEOUT},
      {true, false, 1000, 60000, [&] { EXPECT_EQ(vemo::msg_id_deliver(pool_, 2, 1), VEMO_ERR_NOT_FOUND); }, 2},
      // Nobody signals the end of a quarantine: the taker's own wait must end there.
      {true, false, 1000 + vemo::kIdQuarantineMs - 5, 30000, [&] { g_now.store(1000 + vemo::kIdQuarantineMs); }, 2},
      {true, true, 1000, 0, [&] { vemo::msg_id_pool_close(pool_); }, VEMO_ERR_DISCONNECTED},
  };
  for (const Case &c : cases) {
    g_now.store(1000);
    make(2, 1);
    if (c.quarantine) give_up(0);
    else msg_id_get_from_idle(pool_, &kFresh);
    g_now.store(c.start);
    std::atomic<int> got{0};
    std::thread taker([&] {
      got.store(c.exported ? msg_id_get_from_idle(pool_, &kFresh)
                           : vemo::msg_id_take(pool_, &kFresh, nullptr, vemo::Deadline{c.start, c.deadline_ms}));
    });
    ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool_) == 1; }));
    c.end();
    EXPECT_TRUE(eventually([&] { return got.load() != 0; }));
    taker.join();
    EXPECT_EQ(got.load(), c.expected) << c.start << " " << c.deadline_ms;
    msg_id_pool_destroy(pool_);
  }
  pool_ = nullptr;
  make(1, 1);  // past its deadline, a take still takes a free id: the look comes first
  msg_id_put_to_idle(pool_, 1);
  EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, vemo::Deadline{0, 0}), 1);
}

TEST_F(MsgIdPool, AGivenUpIdIsQuarantinedUntilItsLateAnswerOrTheQuarantineTime) {
  // How the holder's exchange ended, and whether its release must quarantine the id.
  enum End { kNoWait, kAnswered, kTimedOut, kTimeoutZero, kLateBeforeRelease, kExportedPut };
  struct Case {
    End end;
    bool quarantined;
  } cases[] = {{kNoWait, false}, {kAnswered, false}, {kTimedOut, true}, {kTimeoutZero, true},
               {kLateBeforeRelease, false}, {kExportedPut, false}};
  for (const Case &c : cases) {
    make(1);
    int id = vemo::msg_id_take(pool_, &kFresh, nullptr, kLong);
    if (c.end == kAnswered) vemo::msg_id_deliver(pool_, id, 5);
    if (c.end != kNoWait) wait_expired(id, c.end == kTimeoutZero ? 0 : 10);
    if (c.end == kLateBeforeRelease) EXPECT_EQ(vemo::msg_id_deliver(pool_, id, 5), VEMO_OK);
    if (c.end == kExportedPut) msg_id_put_to_idle(pool_, id);
    else vemo::msg_id_release(pool_, id);
    EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, vemo::Deadline{g_now.load(), 0}),
              c.quarantined ? VEMO_ERR_TIMEOUT : 1) << c.end;
    msg_id_pool_destroy(pool_);
  }
  // The late answer frees the id (unlogged here; the dispatcher logs the miss), and the
  // quarantine ends on its own after kIdQuarantineMs, also across the wrap of the tick.
  make(3);
  int late = give_up(0);
  vemo_test::LogCapture capture;
  EXPECT_EQ(vemo::msg_id_deliver(pool_, late, 7), VEMO_ERR_NOT_FOUND);
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(vemo::msg_id_deliver(pool_, late, 7), VEMO_ERR_NOT_FOUND);  // a duplicate changes nothing
  g_now.store(0xFFFFFFF0u);
  int timed = give_up(0);
  EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), 3);
  EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), late);  // freed by its late answer
  g_now.store(0xFFFFFFF0u + vemo::kIdQuarantineMs - 1);
  EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, vemo::Deadline{g_now.load(), 0}), VEMO_ERR_TIMEOUT);
  g_now.store(0xFFFFFFF0u + vemo::kIdQuarantineMs);
  EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, vemo::Deadline{g_now.load(), 0}), timed);
}

TEST_F(MsgIdPool, AHolderWaitsForItsAnswerUntilItsTimeoutOrAClose) {
  make(4, 1);
  ASSERT_EQ(vemo::msg_id_deliver(pool_, 1, -5), VEMO_OK);
  int status = 9;
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, 1, g_now.load(), 0, &status), VEMO_ERR_TIMEOUT);  // not looked at
  EXPECT_EQ(status, 0);
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, 1, g_now.load(), 1000, &status), -5);  // already there
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, 3, g_now.load(), 1000, nullptr), VEMO_ERR_NO_ANSWER);
  struct Case {
    std::function<void(int id)> end;
    int expected;
  } cases[] = {
      {[&](int id) { vemo::msg_id_deliver(pool_, id, 42); }, 42},
      {[&](int) { g_now.store(g_now.load() + 100); }, VEMO_ERR_TIMEOUT},  // on the pool's clock
      {[&](int) { vemo::msg_id_pool_close(pool_); }, VEMO_ERR_DISCONNECTED},
  };
  for (const Case &c : cases) {
    int id = vemo::msg_id_take(pool_, &kFresh, nullptr, kLong);
    std::atomic<int> got{0};
    std::thread holder([&] { got.store(vemo::msg_id_wait_result(pool_, id, g_now.load(), 100, nullptr)); });
    ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
    c.end(id);
    holder.join();
    EXPECT_EQ(got.load(), c.expected);
    EXPECT_NE(msg_id_pool_get_data(pool_, id), nullptr);  // held until its holder returns it
  }
  EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, kLong), VEMO_ERR_DISCONNECTED);
}

// A hook that waits at its gate and returns 7, and notes whether the holder returned meanwhile.
struct HookProbe {
  Gate gate;
  std::atomic<int> calls{0};
  std::atomic<bool> entered{false}, holder_returned{false}, holder_returned_during_hook{false};
  vemo::MsgDeliverHook hook{run, this};
  static int run(void *ctx, int) {
    auto *p = static_cast<HookProbe *>(ctx);
    p->calls.fetch_add(1);
    p->entered.store(true);
    p->gate.wait();
    if (p->holder_returned.load()) p->holder_returned_during_hook.store(true);
    return 7;
  }
};

TEST_F(MsgIdPool, TheHookRunsOnceBeforeTheHolderWakesWhateverTheClockOrACloseSay) {
  // A hook held at its gate while the holder's timeout passes, and then while the pool closes:
  // the holder still gets the answer the hook saw, with its status, and only afterwards.
  for (bool close : {false, true}) {
    make(4);
    HookProbe probe;
    int id = vemo::msg_id_take(pool_, &kFresh, &probe.hook, kLong);
    std::atomic<int> got{0};
    int status = 0;
    std::thread holder([&] {
      got.store(vemo::msg_id_wait_result(pool_, id, g_now.load(), 100, &status));
      probe.holder_returned.store(true);
    });
    ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
    std::thread deliverer([&] { vemo::msg_id_deliver(pool_, id, 42); });
    ASSERT_TRUE(eventually([&] { return probe.entered.load(); }));
    g_now.store(g_now.load() + 1000);
    if (close) vemo::msg_id_pool_close(pool_);
    probe.gate.open();
    holder.join();
    deliverer.join();
    EXPECT_EQ(vemo::msg_id_deliver(pool_, id, 43), VEMO_OK);  // a duplicate: no second hook
    EXPECT_FALSE(probe.holder_returned_during_hook.load());
    EXPECT_EQ(probe.calls.load(), 1);
    EXPECT_EQ(got.load(), 42);
    EXPECT_EQ(status, 7);
    msg_id_pool_destroy(pool_);
  }
  pool_ = nullptr;
}

TEST_F(MsgIdPool, AReturnWaitsForARunningHookAndAnAnswerAfterGivingUpRunsNone) {
  make(4);
  HookProbe probe;
  int id = vemo::msg_id_take(pool_, &kFresh, &probe.hook, kLong);
  std::thread deliverer([&] { vemo::msg_id_deliver(pool_, id, 42); });
  ASSERT_TRUE(eventually([&] { return probe.entered.load(); }));
  // Gave up at once while the hook, whose ctx it owns, runs: the return must wait for the hook.
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, id, g_now.load(), 0, nullptr), VEMO_ERR_TIMEOUT);
  std::atomic<bool> hook_done_at_return{false};
  std::thread returner([&] {
    vemo::msg_id_release(pool_, id);
    hook_done_at_return.store(probe.gate.is_open());
  });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
  probe.gate.open();
  returner.join();
  deliverer.join();
  EXPECT_TRUE(hook_done_at_return.load());
  for (int32_t timeout : {0, 20}) {
    int next = vemo::msg_id_take(pool_, &kFresh, &probe.hook, kLong);
    EXPECT_EQ(wait_expired(next, timeout), VEMO_ERR_TIMEOUT);
    EXPECT_EQ(vemo::msg_id_deliver(pool_, next, 43), VEMO_OK);
    EXPECT_EQ(probe.calls.load(), 1);
  }
}

TEST_F(MsgIdPool, ConcurrentHoldersNeverShareAnIdAndLateAnswersNeverReachAFreedRecord) {
  // Real clock: holders give up after 1 ms while answers keep coming for every id; the
  // sanitizer builds catch a write to a freed record.
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
  for (int t = 1; t <= 6; ++t) {
    holders.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        msg_data_t mine = {-100 - t};
        int id = vemo::msg_id_take(pool_, &mine, nullptr, vemo::Deadline{get_tick_count(), 60000});
        if (id < 1 || id > kSize) {
          clashes.fetch_add(1);
          continue;
        }
        int expected = 0;
        if (!owner[id].compare_exchange_strong(expected, t)) clashes.fetch_add(1);
        vemo::msg_id_wait_result(pool_, id, get_tick_count(), i % 3, nullptr);
        owner[id].store(0);
        if (i % 2 == 0) msg_id_put_to_idle(pool_, id);
        else vemo::msg_id_release(pool_, id);
      }
    });
  }
  for (std::thread &th : holders) th.join();
  stop.store(true);
  deliverer.join();
  EXPECT_EQ(clashes.load(), 0);
  for (int id = 1; id <= kSize; ++id) EXPECT_EQ(msg_id_pool_get_data(pool_, id), nullptr);
}

}  // namespace
