#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "support/log_capture.h"
#include "support/waits.h"
#include "util/clock.h"
#include "vemo/msg_id_pool.h"
#include "vemo/util.h"

namespace {

using vemo_test::Gate;
using vemo_test::eventually;

using Messages = std::vector<std::string>;

const msg_data_t kFresh = {VEMO_ERR_NOT_ARRIVED};

int result_of(msg_id_pool_t *pool, int id) {
  msg_data_t *data = msg_id_pool_get_data(pool, id);
  return data == nullptr ? 0 : __atomic_load_n(&data->result, __ATOMIC_ACQUIRE);
}

class MsgIdPool : public ::testing::Test {
 protected:
  void TearDown() override {
    if (pool_ != nullptr) msg_id_pool_destroy(pool_);
  }
  msg_id_pool_t *make(int size) {
    pool_ = msg_id_pool_init(size);
    return pool_;
  }
  msg_id_pool_t *pool_ = nullptr;
};

// --- creation and destruction -------------------------------------------------------------

TEST_F(MsgIdPool, InitWithSizeZeroIsRefused) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_init(0), nullptr);
  EXPECT_EQ(capture.messages("msg_id_pool_init", "ERROR"), Messages{"the size is not available"});
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST_F(MsgIdPool, InitWithNegativeSizeIsRefused) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_init(-5), nullptr);
  EXPECT_EQ(capture.messages("msg_id_pool_init", "ERROR"), Messages{"the size is not available"});
}

TEST_F(MsgIdPool, InitAndDestroyLogTheirSteps) {
  vemo_test::LogCapture capture;
  msg_id_pool_t *pool = msg_id_pool_init(256);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(msg_id_pool_get_max_size(pool), 256);
  EXPECT_EQ(capture.messages("msg_id_pool_init", "DEBUG"),
            (Messages{"begin to initialize the message id pool...", "end to initialize the message id pool..."}));
  capture.clear();
  msg_id_pool_destroy(pool);
  EXPECT_EQ(capture.messages("msg_id_pool_destroy", "DEBUG"),
            (Messages{"begin to destroy the message id pool...", "free the data in the message id pool",
                      "end to destroy the message id pool..."}));
}

TEST_F(MsgIdPool, DestroyOfNullLogs) {
  vemo_test::LogCapture capture;
  msg_id_pool_destroy(nullptr);
  EXPECT_EQ(capture.messages("msg_id_pool_destroy", "ERROR"), Messages{"the msg_id_pool_t is NULL"});
}

TEST_F(MsgIdPool, DestroyFreesTheRecordsOfIdsInUse) {
  // The leak checker of the address-sanitizer build fails the test if a record survives.
  msg_id_pool_t *pool = msg_id_pool_init(8);
  ASSERT_NE(pool, nullptr);
  for (int i = 1; i <= 5; ++i) ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), i);
  msg_id_put_to_idle(pool, 2);
  msg_id_pool_destroy(pool);
}

TEST_F(MsgIdPool, MaxSizeOfNullPoolIsZeroAndLogged) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_get_max_size(nullptr), 0);
  EXPECT_EQ(capture.messages("msg_id_pool_get_max_size", "ERROR"), Messages{"the msg_id_pool_t is NULL"});
}

// --- taking and returning -----------------------------------------------------------------

TEST_F(MsgIdPool, IdsRotateAndAReturnedIdIsNotReusedAtOnce) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 1);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 2);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 3);
  msg_id_put_to_idle(pool, 2);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 4);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 5);
}

TEST_F(MsgIdPool, AfterTheLastIdTheSearchWrapsToTheLowestFreeId) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  for (int i = 1; i <= 256; ++i) ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), i);
  msg_id_put_to_idle(pool, 10);
  msg_id_put_to_idle(pool, 7);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 7);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 10);
}

TEST_F(MsgIdPool, WrapSkipsIdsStillInUse) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 1);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 2);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 3);
  msg_id_put_to_idle(pool, 2);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 4);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 2);  // wrapped past 1, still held
}

TEST_F(MsgIdPool, TakeWithNullPoolIsInvalidArgument) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_get_from_idle(nullptr, &kFresh), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(capture.messages("msg_id_get_from_idle", "ERROR"), Messages{"the msg_id_pool_t or msg_data_t is NULL"});
}

TEST_F(MsgIdPool, TakeWithNullRecordIsInvalidArgumentAndTakesNothing) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_get_from_idle(pool, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(vemo::msg_id_take(pool, nullptr, nullptr), VEMO_ERR_INVALID_ARG);
  // The client's take logs as the exported one does.
  EXPECT_EQ(capture.messages("msg_id_get_from_idle", "ERROR"),
            (Messages{"the msg_id_pool_t or msg_data_t is NULL", "the msg_id_pool_t or msg_data_t is NULL"}));
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), 1);
}

TEST_F(MsgIdPool, RecordIsThePoolsOwnCopy) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  msg_data_t mine = {VEMO_ERR_NOT_ARRIVED};
  int id = msg_id_get_from_idle(pool, &mine);
  ASSERT_EQ(id, 1);
  mine.result = 99;
  msg_data_t *record = msg_id_pool_get_data(pool, id);
  ASSERT_NE(record, nullptr);
  EXPECT_NE(record, &mine);
  EXPECT_EQ(record->result, VEMO_ERR_NOT_ARRIVED);
}

TEST_F(MsgIdPool, GetDataOutOfRangeIsNullAndLogged) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_get_data(pool, 0), nullptr);
  EXPECT_EQ(msg_id_pool_get_data(pool, 257), nullptr);
  EXPECT_EQ(capture.messages("msg_id_pool_get_data", "ERROR"),
            (Messages{"the message is out of range", "the message is out of range"}));
}

TEST_F(MsgIdPool, GetDataOfAnIdleIdIsNullSilently) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_get_data(pool, 1), nullptr);
  EXPECT_EQ(msg_id_pool_get_data(pool, 256), nullptr);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(MsgIdPool, GetDataOfNullPoolLogs) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(msg_id_pool_get_data(nullptr, 1), nullptr);
  EXPECT_EQ(capture.messages("msg_id_pool_get_data", "ERROR"), Messages{"the msg_id_pool_t is NULL"});
}

TEST_F(MsgIdPool, PutOutOfRangeIsLoggedAndChangesNothing) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), 1);
  vemo_test::LogCapture capture;
  msg_id_put_to_idle(pool, 0);
  msg_id_put_to_idle(pool, 257);
  EXPECT_EQ(capture.messages("msg_id_put_to_idle", "ERROR"),
            (Messages{"the message is out of range", "the message is out of range"}));
  EXPECT_NE(msg_id_pool_get_data(pool, 1), nullptr);
}

TEST_F(MsgIdPool, PutOfAnIdleIdChangesNothing) {
  msg_id_pool_t *pool = make(2);
  ASSERT_NE(pool, nullptr);
  ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), 1);
  vemo_test::LogCapture capture;
  msg_id_put_to_idle(pool, 2);
  msg_id_put_to_idle(pool, 2);
  EXPECT_TRUE(capture.lines().empty());
  // Had the idle returns been counted, the pool would now think it has room for three.
  ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), 2);
  std::atomic<int> third{0};
  std::thread taker([&] { third.store(msg_id_get_from_idle(pool, &kFresh)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool) == 1; }));
  EXPECT_EQ(third.load(), 0);
  msg_id_put_to_idle(pool, 1);
  taker.join();
  EXPECT_EQ(third.load(), 1);
}

TEST_F(MsgIdPool, PutWithNullPoolLogs) {
  vemo_test::LogCapture capture;
  msg_id_put_to_idle(nullptr, 1);
  EXPECT_EQ(capture.messages("msg_id_put_to_idle", "ERROR"), Messages{"the msg_id_pool_t is NULL"});
}

// --- a full pool --------------------------------------------------------------------------

TEST_F(MsgIdPool, FullPoolBlocksTheTakerUntilAnIdIsReturnedAndHandsItThatId) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  for (int i = 1; i <= 256; ++i) ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), i);
  std::atomic<int> got{0};
  std::thread taker([&] { got.store(msg_id_get_from_idle(pool, &kFresh)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool) == 1; }));
  EXPECT_EQ(got.load(), 0);
  msg_id_put_to_idle(pool, 77);
  taker.join();
  EXPECT_EQ(got.load(), 77);
  EXPECT_EQ(vemo::msg_id_pool_waiting_takers(pool), 0);
}

TEST_F(MsgIdPool, TwoTakersAndOneFreeIdOneGetsItTheOtherWaits) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  for (int i = 1; i <= 3; ++i) ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), i);
  std::atomic<int> a{0}, b{0};
  std::thread ta([&] { a.store(msg_id_get_from_idle(pool, &kFresh)); });
  std::thread tb([&] { b.store(msg_id_get_from_idle(pool, &kFresh)); });
  ASSERT_TRUE(eventually([&] {
    return (a.load() != 0 || b.load() != 0) && vemo::msg_id_pool_waiting_takers(pool) == 1;
  }));
  EXPECT_EQ(a.load() + b.load(), 4);  // exactly one has returned, with the free id
  msg_id_put_to_idle(pool, 2);
  ta.join();
  tb.join();
  EXPECT_EQ(std::min(a.load(), b.load()), 2);
  EXPECT_EQ(std::max(a.load(), b.load()), 4);
}

TEST_F(MsgIdPool, ConcurrentTakersNeverShareAnId) {
  constexpr int kSize = 8, kThreads = 6, kTakes = 400;
  msg_id_pool_t *pool = make(kSize);
  ASSERT_NE(pool, nullptr);
  std::atomic<int> owner[kSize + 1] = {};
  std::atomic<int> clashes{0}, bad_ids{0};
  std::vector<std::thread> threads;
  for (int t = 1; t <= kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kTakes; ++i) {
        msg_data_t mine = {t};
        int id = msg_id_get_from_idle(pool, &mine);
        if (id < 1 || id > kSize) {
          bad_ids.fetch_add(1);
          continue;
        }
        int expected = 0;
        if (!owner[id].compare_exchange_strong(expected, t)) clashes.fetch_add(1);
        if (result_of(pool, id) != t) clashes.fetch_add(1);  // someone else's record
        owner[id].store(0);
        msg_id_put_to_idle(pool, id);
      }
    });
  }
  for (std::thread &th : threads) th.join();
  EXPECT_EQ(bad_ids.load(), 0);
  EXPECT_EQ(clashes.load(), 0);
  for (int id = 1; id <= kSize; ++id) EXPECT_EQ(msg_id_pool_get_data(pool, id), nullptr);
}

// --- delivering and waiting ---------------------------------------------------------------

TEST_F(MsgIdPool, LateDeliveryAfterTheHolderReturnedIsNotFoundAndSilent) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  int id = vemo::msg_id_take(pool, &kFresh, nullptr);
  ASSERT_EQ(id, 1);
  msg_id_put_to_idle(pool, id);
  vemo_test::LogCapture capture;
  EXPECT_EQ(vemo::msg_id_deliver(pool, id, 42), VEMO_ERR_NOT_FOUND);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(MsgIdPool, DeliveryOutOfRangeIsNotFoundAndLoggedAsTheLookUp) {
  msg_id_pool_t *pool = make(256);
  ASSERT_NE(pool, nullptr);
  vemo_test::LogCapture capture;
  EXPECT_EQ(vemo::msg_id_deliver(pool, 0, 1), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(vemo::msg_id_deliver(pool, 300, 1), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("msg_id_pool_get_data", "ERROR"),
            (Messages{"the message is out of range", "the message is out of range"}));
}

TEST_F(MsgIdPool, DeliveryToNullPoolIsNotFoundAndLogged) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(vemo::msg_id_deliver(nullptr, 1, 1), VEMO_ERR_NOT_FOUND);
  EXPECT_EQ(capture.messages("msg_id_pool_get_data", "ERROR"), Messages{"the msg_id_pool_t is NULL"});
}

TEST_F(MsgIdPool, WaitWithTimeoutZeroOrLessTimesOutWithoutLookingAtTheRecord) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  int id = vemo::msg_id_take(pool, &kFresh, nullptr);
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, 42), VEMO_OK);
  int status = 5;
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, get_tick_count(), 0, &status), VEMO_ERR_TIMEOUT);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, get_tick_count(), -1, nullptr), VEMO_ERR_TIMEOUT);
  // Not even the pool is looked at.
  EXPECT_EQ(vemo::msg_id_wait_result(nullptr, 1, 0, 0, nullptr), VEMO_ERR_TIMEOUT);
}

TEST_F(MsgIdPool, WaitReturnsAnAnswerThatIsAlreadyThere) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  int id = vemo::msg_id_take(pool, &kFresh, nullptr);
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, -5), VEMO_OK);
  int status = 5;
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, get_tick_count(), 1000, &status), -5);
  EXPECT_EQ(status, 0);  // no hook ran
  EXPECT_NE(msg_id_pool_get_data(pool, id), nullptr);  // the id stays held
}

TEST_F(MsgIdPool, DeliveryWakesTheWaitingHolder) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  int id = vemo::msg_id_take(pool, &kFresh, nullptr);
  std::atomic<int> got{0};
  // A long timeout: only the delivery can end this wait in time for the test.
  std::thread holder([&] { got.store(vemo::msg_id_wait_result(pool, id, get_tick_count(), 60000, nullptr)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool) == 1; }));
  EXPECT_EQ(got.load(), 0);
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, 42), VEMO_OK);
  holder.join();
  EXPECT_EQ(got.load(), 42);
}

TEST_F(MsgIdPool, WaitTimesOutOnceTheTimeoutHasPassedSinceTheStart) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  int id = vemo::msg_id_take(pool, &kFresh, nullptr);
  uint32_t start = get_tick_count();
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, start, 20, nullptr), VEMO_ERR_TIMEOUT);
  EXPECT_GE(vemo::tick_elapsed(get_tick_count(), start), 20);
  // A start long past: the timeout has run out already.
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, start - 5000, 1000, nullptr), VEMO_ERR_TIMEOUT);
}

TEST_F(MsgIdPool, WaitForAnIdNotHeldIsNoAnswer) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(vemo::msg_id_wait_result(pool, 3, get_tick_count(), 1000, nullptr), VEMO_ERR_NO_ANSWER);
}

TEST_F(MsgIdPool, RacingLateDeliveriesNeverReachAFreedRecord) {
  // Holders give their ids back after a tiny timeout while answers keep arriving for every
  // id; the sanitizer builds catch any write to a freed record.
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  std::atomic<bool> stop{false};
  std::thread deliverer([&] {
    for (int n = 0; !stop.load(); ++n) vemo::msg_id_deliver(pool, n % 4 + 1, n);
  });
  std::vector<std::thread> holders;
  for (int t = 0; t < 3; ++t) {
    holders.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        int id = vemo::msg_id_take(pool, &kFresh, nullptr);
        if (id < 1) continue;
        vemo::msg_id_wait_result(pool, id, get_tick_count(), 1, nullptr);
        result_of(pool, id);  // the exported poll, racing the delivery
        msg_id_put_to_idle(pool, id);
      }
    });
  }
  for (std::thread &th : holders) th.join();
  stop.store(true);
  deliverer.join();
  for (int id = 1; id <= 4; ++id) EXPECT_EQ(msg_id_pool_get_data(pool, id), nullptr);
}

// --- delivery hooks -----------------------------------------------------------------------

struct HookProbe {
  std::atomic<int> calls{0};
  std::atomic<int> value{0};
  std::atomic<bool> holder_returned{false};
  std::atomic<bool> holder_returned_during_hook{false};
  std::atomic<bool> entered{false};
  Gate *gate = nullptr;
  uint32_t hold_until_tick = 0;  // when set, the hook lasts until this tick has passed
  int status = 0;
};

int probe_hook(void *ctx, int value) {
  auto *p = static_cast<HookProbe *>(ctx);
  p->calls.fetch_add(1);
  p->value.store(value);
  p->entered.store(true);
  if (p->gate != nullptr) p->gate->wait();
  if (p->hold_until_tick != 0) {
    while (vemo::tick_elapsed(get_tick_count(), p->hold_until_tick) <= 0) usleep(1000);
  }
  if (p->holder_returned.load()) p->holder_returned_during_hook.store(true);
  return p->status;
}

TEST_F(MsgIdPool, HookRunsBeforeTheHolderWakesAndItsStatusIsHandedOver) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  HookProbe probe;
  probe.status = 7;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool, &kFresh, &hook);
  ASSERT_EQ(id, 1);
  std::atomic<int> got{0};
  int status = 0;
  std::thread holder([&] {
    got.store(vemo::msg_id_wait_result(pool, id, get_tick_count(), 60000, &status));
    probe.holder_returned.store(true);
  });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool) == 1; }));
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, 42), VEMO_OK);
  holder.join();
  EXPECT_EQ(probe.calls.load(), 1);
  EXPECT_EQ(probe.value.load(), 42);
  EXPECT_FALSE(probe.holder_returned_during_hook.load());
  EXPECT_EQ(got.load(), 42);
  EXPECT_EQ(status, 7);
}

TEST_F(MsgIdPool, HolderWhoseTimeoutPassesWhileTheHookRunsStillGetsTheAnswer) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  HookProbe probe;
  probe.status = 3;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool, &kFresh, &hook);
  uint32_t start = get_tick_count();
  constexpr int kTimeout = 30;
  probe.hold_until_tick = start + kTimeout + 10;  // the hook outlasts the holder's timeout
  std::atomic<int> got{0};
  int status = 0;
  std::thread holder([&] {
    got.store(vemo::msg_id_wait_result(pool, id, start, kTimeout, &status));
    probe.holder_returned.store(true);
  });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool) == 1; }));
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, 42), VEMO_OK);
  holder.join();
  EXPECT_FALSE(probe.holder_returned_during_hook.load());
  EXPECT_EQ(got.load(), 42);
  EXPECT_EQ(status, 3);
}

TEST_F(MsgIdPool, HookRunsForTheFirstAnswerOnlyAndDuplicatesOverwrite) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  HookProbe probe;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool, &kFresh, &hook);
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, 1), VEMO_OK);
  ASSERT_EQ(vemo::msg_id_deliver(pool, id, 2), VEMO_OK);
  EXPECT_EQ(probe.calls.load(), 1);
  EXPECT_EQ(probe.value.load(), 1);
  EXPECT_EQ(result_of(pool, id), 2);
}

TEST_F(MsgIdPool, ReturningAnIdWaitsForItsRunningHook) {
  // A holder with timeout 0 gives up at once and returns its id while the hook, whose ctx it
  // owns, still runs: the return must wait for the hook.
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  Gate gate;
  HookProbe probe;
  probe.gate = &gate;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool, &kFresh, &hook);
  std::thread deliverer([&] { vemo::msg_id_deliver(pool, id, 42); });
  ASSERT_TRUE(eventually([&] { return probe.entered.load(); }));
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, get_tick_count(), 0, nullptr), VEMO_ERR_TIMEOUT);
  std::atomic<bool> hook_done_at_return{false};
  std::thread returner([&] {
    msg_id_put_to_idle(pool, id);
    hook_done_at_return.store(gate.is_open());
  });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool) == 1; }));
  gate.open();
  returner.join();
  deliverer.join();
  EXPECT_TRUE(hook_done_at_return.load());
  EXPECT_EQ(msg_id_pool_get_data(pool, id), nullptr);
}

// --- closing ------------------------------------------------------------------------------

TEST_F(MsgIdPool, CloseWakesAWaitingHolderWithDisconnected) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  int id = vemo::msg_id_take(pool, &kFresh, nullptr);
  std::atomic<int> got{0};
  std::thread holder([&] { got.store(vemo::msg_id_wait_result(pool, id, get_tick_count(), 60000, nullptr)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool) == 1; }));
  vemo::msg_id_pool_close(pool);
  holder.join();
  EXPECT_EQ(got.load(), VEMO_ERR_DISCONNECTED);
  // The id stays held until its holder returns it.
  EXPECT_NE(msg_id_pool_get_data(pool, id), nullptr);
  msg_id_put_to_idle(pool, id);
}

TEST_F(MsgIdPool, CloseWakesBlockedTakersAndRefusesLaterTakes) {
  msg_id_pool_t *pool = make(2);
  ASSERT_NE(pool, nullptr);
  ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), 1);
  ASSERT_EQ(msg_id_get_from_idle(pool, &kFresh), 2);
  std::atomic<int> exported{0}, internal{0};
  std::thread t1([&] { exported.store(msg_id_get_from_idle(pool, &kFresh)); });
  std::thread t2([&] { internal.store(vemo::msg_id_take(pool, &kFresh, nullptr)); });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_takers(pool) == 2; }));
  vemo::msg_id_pool_close(pool);
  t1.join();
  t2.join();
  EXPECT_EQ(exported.load(), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(internal.load(), VEMO_ERR_DISCONNECTED);

  msg_id_put_to_idle(pool, 1);  // room again, but the pool is closed
  EXPECT_EQ(vemo::msg_id_take(pool, &kFresh, nullptr), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(msg_id_get_from_idle(pool, &kFresh), VEMO_ERR_DISCONNECTED);
}

TEST_F(MsgIdPool, CloseDoesNotCutARunningHookShort) {
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  Gate gate;
  HookProbe probe;
  probe.gate = &gate;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool, &kFresh, &hook);
  std::atomic<int> got{0};
  std::thread holder([&] {
    got.store(vemo::msg_id_wait_result(pool, id, get_tick_count(), 60000, nullptr));
    probe.holder_returned.store(true);
  });
  ASSERT_TRUE(eventually([&] { return vemo::msg_id_pool_waiting_holders(pool) == 1; }));
  std::thread deliverer([&] { vemo::msg_id_deliver(pool, id, 42); });
  ASSERT_TRUE(eventually([&] { return probe.entered.load(); }));
  vemo::msg_id_pool_close(pool);  // wakes the holder while the hook runs
  gate.open();
  holder.join();
  deliverer.join();
  EXPECT_FALSE(probe.holder_returned_during_hook.load());
  EXPECT_EQ(got.load(), 42);  // the answer the hook saw, not the close
}

}  // namespace

namespace {

TEST_F(MsgIdPool, AnswerAfterTheHolderGaveUpRunsNoHook) {
  // Between a holder's timeout and the return of its id, a late answer still finds the record;
  // it must not run the hook (which would act for a sender that has already failed).
  msg_id_pool_t *pool = make(4);
  ASSERT_NE(pool, nullptr);
  HookProbe probe;
  vemo::MsgDeliverHook hook{probe_hook, &probe};
  int id = vemo::msg_id_take(pool, &kFresh, &hook);
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id, get_tick_count(), 20, nullptr), VEMO_ERR_TIMEOUT);
  EXPECT_EQ(vemo::msg_id_deliver(pool, id, 42), VEMO_OK);
  EXPECT_EQ(probe.calls.load(), 0);
  msg_id_put_to_idle(pool, id);

  int id0 = vemo::msg_id_take(pool, &kFresh, &hook);
  EXPECT_EQ(vemo::msg_id_wait_result(pool, id0, get_tick_count(), 0, nullptr), VEMO_ERR_TIMEOUT);
  EXPECT_EQ(vemo::msg_id_deliver(pool, id0, 43), VEMO_OK);
  EXPECT_EQ(probe.calls.load(), 0);
  msg_id_put_to_idle(pool, id0);
}

}  // namespace
