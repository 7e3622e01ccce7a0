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
  // A take on a thread of its own, once it is asleep in the pool.
  std::thread blocked_take(std::atomic<int> *got, vemo::Deadline deadline = kLong) {
    int32_t before = vemo::msg_id_pool_waiting_takers(pool_);
    std::thread t([=] { got->store(vemo::msg_id_take(pool_, &kFresh, nullptr, deadline)); });
    EXPECT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool_) == before + 1; }));
    return t;
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
    std::vector<int> steps;  // n > 0: a take must return n; n < 0: return id -n
  } cases[] = {
      {256, {1, 2, 3, -2, 4, 5}},
      {4, {1, 2, 3, -2, 4, 2}},  // wrapped past 1, still held
      {3, {1, 2, 3, -3, -1, 1, 3}},
  };
  for (const Case &c : cases) {
    make(c.size);
    for (int step : c.steps) {
      if (step < 0) msg_id_put_to_idle(pool_, -step);
      if (step > 0) EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), step) << c.size;
    }
    msg_id_pool_destroy(pool_);  // frees the records still held (ASan's leak check)
  }
  make(256, 256);
  msg_id_put_to_idle(pool_, 10);
  msg_id_put_to_idle(pool_, 7);
  EXPECT_EQ(msg_id_get_from_idle(pool_, &kFresh), 7);
  msg_data_t mine = {VEMO_ERR_NOT_ARRIVED};
  msg_id_put_to_idle(pool_, 7);
  ASSERT_EQ(msg_id_get_from_idle(pool_, &mine), 10);
  mine.result = 99;
  EXPECT_EQ(msg_id_pool_get_data(pool_, 10)->result, VEMO_ERR_NOT_ARRIVED);
}

TEST_F(MsgIdPool, AFullPoolBlocksTakersUntilAnIdIsReturnedAndHandsThemThatId) {
  make(2, 2);
  msg_id_put_to_idle(pool_, 2);
  msg_id_put_to_idle(pool_, 2);  // an idle id returned twice counts once
  ASSERT_EQ(msg_id_get_from_idle(pool_, &kFresh), 2);
  std::atomic<int> a{0}, b{0};
  std::thread ta = blocked_take(&a);
  std::thread tb([&] { b.store(msg_id_get_from_idle(pool_, &kFresh)); });  // the exported take
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool_) == 2; }));
  msg_id_put_to_idle(pool_, 1);
  ASSERT_TRUE(eventually([&] { return a.load() + b.load() == 1; }));
  vemo::msg_id_release(pool_, 2);
  ta.join();
  tb.join();
  EXPECT_EQ(a.load() + b.load(), 3);
}

TEST_F(MsgIdPool, TakeGivesUpAtItsDeadlineButTakesAFreeIdEvenPastIt) {
  make(2, 2);
  std::atomic<int> got{0};
  std::thread t = blocked_take(&got, vemo::Deadline{1000, 100});
  g_now.store(1099);
  EXPECT_EQ(got.load(), 0);
  g_now.store(1100);
  t.join();
  EXPECT_EQ(got.load(), VEMO_ERR_TIMEOUT);
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

TEST_F(MsgIdPool, ATakerBlockedOnQuarantinesWakesWhenTheFirstEndsOrALateAnswerComes) {
  make(3);
  give_up(0);  // id 1, quarantined at 1000
  g_now.store(1500);
  give_up(5);  // id 2, quarantined at 1500
  give_up(0);  // id 3
  std::atomic<int> first{0}, second{0};
  g_now.store(1000 + vemo::kIdQuarantineMs - 5);
  std::thread t1 = blocked_take(&first, vemo::Deadline{g_now.load(), 30000});
  g_now.store(1000 + vemo::kIdQuarantineMs);  // no one signals: the taker's wait must end here
  EXPECT_TRUE(eventually([&] { return first.load() != 0; }));
  t1.join();
  EXPECT_EQ(first.load(), 1);
  std::thread t2 = blocked_take(&second);
  EXPECT_EQ(vemo::msg_id_deliver(pool_, 3, 1), VEMO_ERR_NOT_FOUND);
  t2.join();
  EXPECT_EQ(second.load(), 3);
}

TEST_F(MsgIdPool, TheHolderGetsItsAnswerOrTimesOutOnThePoolsClock) {
  make(4, 2);
  ASSERT_EQ(vemo::msg_id_deliver(pool_, 1, -5), VEMO_OK);
  int status = 9;
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, 1, g_now.load(), 0, &status), VEMO_ERR_TIMEOUT);  // not looked at
  EXPECT_EQ(status, 0);
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, 1, g_now.load(), 1000, &status), -5);  // already there
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, 3, g_now.load(), 1000, nullptr), VEMO_ERR_NO_ANSWER);
  std::atomic<int> got{0};
  std::thread holder([&] { got.store(vemo::msg_id_wait_result(pool_, 2, 1000, 100, nullptr)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
  ASSERT_EQ(vemo::msg_id_deliver(pool_, 2, 42), VEMO_OK);
  holder.join();
  EXPECT_EQ(got.load(), 42);
  int id = vemo::msg_id_take(pool_, &kFresh, nullptr, kLong);
  std::thread late([&] { got.store(vemo::msg_id_wait_result(pool_, id, 1000, 100, nullptr)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
  g_now.store(1100);
  late.join();
  EXPECT_EQ(got.load(), VEMO_ERR_TIMEOUT);
}

struct HookProbe {
  std::atomic<int> calls{0}, value{0};
  std::atomic<bool> entered{false}, holder_returned{false}, holder_returned_during_hook{false};
  Gate *gate = nullptr;
  int status = 7;
};

int probe_hook(void *ctx, int value) {
  auto *p = static_cast<HookProbe *>(ctx);
  p->calls.fetch_add(1);
  p->value.store(value);
  p->entered.store(true);
  if (p->gate != nullptr) p->gate->wait();
  if (p->holder_returned.load()) p->holder_returned_during_hook.store(true);
  return p->status;
}

TEST_F(MsgIdPool, TheHookRunsOnceBeforeTheHolderWakesWhateverTheClockOrACloseSay) {
  // A hook held at its gate while the holder's timeout passes, and then while the pool closes:
  // the holder still gets the answer the hook saw, with its status, and only afterwards.
  for (bool close : {false, true}) {
    make(4);
    Gate gate;
    HookProbe probe;
    probe.gate = &gate;
    vemo::MsgDeliverHook hook{probe_hook, &probe};
    int id = vemo::msg_id_take(pool_, &kFresh, &hook, kLong);
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
    gate.open();
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
  Gate gate;
  HookProbe probe;
  probe.gate = &gate;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool_, &kFresh, &hook, kLong);
  std::thread deliverer([&] { vemo::msg_id_deliver(pool_, id, 42); });
  ASSERT_TRUE(eventually([&] { return probe.entered.load(); }));
  // Gave up at once while the hook, whose ctx it owns, runs: the return must wait for the hook.
  EXPECT_EQ(vemo::msg_id_wait_result(pool_, id, g_now.load(), 0, nullptr), VEMO_ERR_TIMEOUT);
  std::atomic<bool> hook_done_at_return{false};
  std::thread returner([&] {
    vemo::msg_id_release(pool_, id);
    hook_done_at_return.store(gate.is_open());
  });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool_) == 1; }));
  gate.open();
  returner.join();
  deliverer.join();
  EXPECT_TRUE(hook_done_at_return.load());
  for (int32_t timeout : {0, 20}) {
    int next = vemo::msg_id_take(pool_, &kFresh, &hook, kLong);
    EXPECT_EQ(wait_expired(next, timeout), VEMO_ERR_TIMEOUT);
    EXPECT_EQ(vemo::msg_id_deliver(pool_, next, 43), VEMO_OK);
    EXPECT_EQ(probe.calls.load(), 1);
  }
}

TEST_F(MsgIdPool, CloseWakesHoldersAndTakersAndRefusesLaterTakes) {
  make(2, 2);
  std::atomic<int> holder_got{0}, taker_got{0}, exported_got{0};
  std::thread holder([&] { holder_got.store(vemo::msg_id_wait_result(pool_, 1, g_now.load(), 60000, nullptr)); });
  std::thread taker = blocked_take(&taker_got);
  std::thread exported([&] { exported_got.store(msg_id_get_from_idle(pool_, &kFresh)); });
  ASSERT_TRUE(eventually([&] {
    return vemo::msg_id_pool_waiting_holders(pool_) == 1 && vemo::msg_id_pool_waiting_takers(pool_) == 2;
  }));
  vemo::msg_id_pool_close(pool_);
  holder.join();
  taker.join();
  exported.join();
  EXPECT_EQ(holder_got.load(), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(taker_got.load(), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(exported_got.load(), VEMO_ERR_DISCONNECTED);
  EXPECT_NE(msg_id_pool_get_data(pool_, 1), nullptr);  // held until its holder returns it
  vemo::msg_id_release(pool_, 1);
  EXPECT_EQ(vemo::msg_id_take(pool_, &kFresh, nullptr, kLong), VEMO_ERR_DISCONNECTED);
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
