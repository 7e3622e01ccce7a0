#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "support/log_capture.h"
#include "support/waits.h"
#include "util/task_pool_internal.h"
#include "util/task_pool_seam.h"
#include "vemo/task_pool.h"

namespace {

using vemo_test::Gate;
using vemo_test::eventually;

// Counts events and lets the test wait, bounded, until a number of them has happened.
class Counter {
 public:
  void add() {
    std::lock_guard<std::mutex> lock(mu_);
    ++n_;
    cv_.notify_all();
  }
  bool wait_for(int n) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return n_ >= n; });
  }
  int value() {
    std::lock_guard<std::mutex> lock(mu_);
    return n_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int n_ = 0;
};

// Task threads are started through this wrapper so that a test learns when a thread has left
// the pool's code entirely (after its count-down): only then may the test end and ASan/TSan
// judge every access the thread made.
Counter *g_threads_done = nullptr;

struct Start {
  void *(*entry)(void *);
  void *arg;
};

void *tracked_thread(void *p) {
  Start start = *static_cast<Start *>(p);
  delete static_cast<Start *>(p);
  start.entry(start.arg);  // detaches this very thread
  g_threads_done->add();
  return nullptr;
}

int tracked_starter(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *), void *arg) {
  auto *start = new Start{entry, arg};
  int rc = pthread_create(thread, attr, tracked_thread, start);
  if (rc != 0) delete start;
  return rc;
}

class TaskPool : public ::testing::Test {
 protected:
  void SetUp() override {
    g_threads_done = &threads_done_;
    vemo::task_pool_set_thread_starter(tracked_starter);
  }
  void TearDown() override {
    vemo::task_pool_set_thread_starter(nullptr);
    g_threads_done = nullptr;
  }
  Counter threads_done_;
};

void never_called(void *) { ADD_FAILURE() << "task must not run"; }

TEST_F(TaskPool, AddWithNullPoolIsInvalidArgument) {
  vemo_test::LogCapture capture;
  EXPECT_EQ(task_pool_add(nullptr, never_called, nullptr, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(threads_done_.value(), 0);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(TaskPool, AddWithNullFuncIsInvalidArgumentAndStartsNothing) {
  vemo_test::LogCapture capture;
  task_pool_t *pool = task_pool_init();
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(task_pool_add(pool, nullptr, never_called, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(vemo::task_pool_count(pool), 0);
  task_pool_destroy(pool);
  EXPECT_EQ(threads_done_.value(), 0);
  EXPECT_TRUE(capture.lines().empty());
}

struct Trace {
  std::atomic<int> step{0};
  pthread_t func_thread{};
  pthread_t post_thread{};
  void *func_arg = nullptr;
  void *post_arg = nullptr;
  int func_step = -1;
  int post_step = -1;
};
Trace g_trace;

void trace_func(void *arg) {
  g_trace.func_thread = pthread_self();
  g_trace.func_arg = arg;
  g_trace.func_step = g_trace.step.fetch_add(1);
}
void trace_post(void *arg) {
  g_trace.post_thread = pthread_self();
  g_trace.post_arg = arg;
  g_trace.post_step = g_trace.step.fetch_add(1);
}

TEST_F(TaskPool, PostFuncRunsAfterFuncOnTheSameThreadWithTheSameArg) {
  task_pool_t *pool = task_pool_init();
  ASSERT_NE(pool, nullptr);
  int token = 0;
  ASSERT_EQ(task_pool_add(pool, trace_func, trace_post, &token), VEMO_OK);
  task_pool_destroy(pool);  // returns only after both functions have returned
  EXPECT_EQ(g_trace.func_step, 0);
  EXPECT_EQ(g_trace.post_step, 1);
  EXPECT_EQ(g_trace.func_arg, &token);
  EXPECT_EQ(g_trace.post_arg, &token);
  EXPECT_TRUE(pthread_equal(g_trace.func_thread, g_trace.post_thread));
  EXPECT_FALSE(pthread_equal(g_trace.func_thread, pthread_self()));
  ASSERT_TRUE(threads_done_.wait_for(1));
}

TEST_F(TaskPool, WithoutPostFuncOnlyFuncRuns) {
  task_pool_t *pool = task_pool_init();
  ASSERT_NE(pool, nullptr);
  ASSERT_EQ(task_pool_add(pool, trace_func, nullptr, nullptr), VEMO_OK);
  task_pool_destroy(pool);
  EXPECT_EQ(g_trace.step.load(), 1);
  EXPECT_EQ(g_trace.post_step, -1);
  ASSERT_TRUE(threads_done_.wait_for(1));
}

Gate g_gate;
std::atomic<bool> g_destroyed{false};
std::atomic<int> g_seen_destroyed{0};
std::atomic<int> g_post_ran{0};

void wait_gate(void *) { g_gate.wait(); }
void check_not_destroyed(void *) {
  if (g_destroyed.load()) g_seen_destroyed.fetch_add(1);
  g_post_ran.fetch_add(1);
}

TEST_F(TaskPool, DestroyWaitsForEveryRunningTask) {
  task_pool_t *pool = task_pool_init();
  ASSERT_NE(pool, nullptr);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(task_pool_add(pool, wait_gate, check_not_destroyed, nullptr), VEMO_OK);
  EXPECT_EQ(vemo::task_pool_count(pool), 3);

  std::thread destroyer([pool] {
    task_pool_destroy(pool);
    g_destroyed.store(true);
  });
  // The tasks hold the pool alive, so it may be inspected until the gate opens.
  ASSERT_TRUE(eventually([pool] { return vemo::task_pool_destroy_waiters(pool) == 1; }));
  EXPECT_FALSE(g_destroyed.load());
  EXPECT_EQ(vemo::task_pool_count(pool), 3);

  g_gate.open();
  destroyer.join();
  EXPECT_TRUE(g_destroyed.load());
  EXPECT_EQ(g_post_ran.load(), 3);
  EXPECT_EQ(g_seen_destroyed.load(), 0);  // no task ended after the destroy returned
  ASSERT_TRUE(threads_done_.wait_for(3));
}

TEST_F(TaskPool, DestroyOfAnEmptyPoolReturnsAtOnceAndLogsNothing) {
  vemo_test::LogCapture capture;
  task_pool_t *pool = task_pool_init();
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(vemo::task_pool_count(pool), 0);
  task_pool_destroy(pool);
  EXPECT_TRUE(capture.lines().empty());
}

TEST_F(TaskPool, DestroyOfNullDoesNothing) {
  vemo_test::LogCapture capture;
  task_pool_destroy(nullptr);
  EXPECT_EQ(vemo::task_pool_count(nullptr), 0);
  EXPECT_FALSE(vemo::task_pool_is_own_thread(nullptr));
  EXPECT_TRUE(capture.lines().empty());
}

// A task that tears down its own pool, as a dispatch task does when the daemon orders a
// teardown.
struct SelfDestroy {
  task_pool_t *pool = nullptr;
  std::atomic<bool> own_before{false};
  std::atomic<bool> returned{false};
  std::atomic<bool> own_after{true};
};

void destroy_own_pool(void *arg) {
  auto *s = static_cast<SelfDestroy *>(arg);
  s->own_before.store(vemo::task_pool_is_own_thread(s->pool));
  task_pool_destroy(s->pool);
  s->returned.store(true);
}
void after_own_destroy(void *arg) {
  auto *s = static_cast<SelfDestroy *>(arg);
  // The pool is gone: its address is only compared, never followed.
  s->own_after.store(vemo::task_pool_is_own_thread(s->pool));
}

TEST_F(TaskPool, DestroyFromItsOwnLastTaskReturnsAndLeavesThePoolAlone) {
  SelfDestroy s;
  s.pool = task_pool_init();
  ASSERT_NE(s.pool, nullptr);
  ASSERT_EQ(task_pool_add(s.pool, destroy_own_pool, after_own_destroy, &s), VEMO_OK);
  // The thread must get all the way out; under ASan any touch of the freed pool fails here.
  ASSERT_TRUE(threads_done_.wait_for(1));
  EXPECT_TRUE(s.own_before.load());
  EXPECT_TRUE(s.returned.load());
  EXPECT_FALSE(s.own_after.load());
}

TEST_F(TaskPool, DestroyFromOwnTaskStillWaitsForTheOtherTasks) {
  SelfDestroy s;
  s.pool = task_pool_init();
  ASSERT_NE(s.pool, nullptr);
  ASSERT_EQ(task_pool_add(s.pool, wait_gate, nullptr, nullptr), VEMO_OK);
  ASSERT_EQ(task_pool_add(s.pool, destroy_own_pool, after_own_destroy, &s), VEMO_OK);

  // The gated task keeps the pool alive while we look at it.
  ASSERT_TRUE(eventually([&] { return vemo::task_pool_destroy_waiters(s.pool) == 1; }));
  EXPECT_EQ(vemo::task_pool_count(s.pool), 1);  // the destroying task left the count
  EXPECT_FALSE(s.returned.load());

  g_gate.open();
  ASSERT_TRUE(threads_done_.wait_for(2));
  EXPECT_TRUE(s.own_before.load());
  EXPECT_TRUE(s.returned.load());
  EXPECT_FALSE(s.own_after.load());
}

struct OwnCheck {
  task_pool_t *pool;
  task_pool_t *other;
  bool own = false;
  bool other_own = true;
};
void check_own(void *arg) {
  auto *c = static_cast<OwnCheck *>(arg);
  c->own = vemo::task_pool_is_own_thread(c->pool);
  c->other_own = vemo::task_pool_is_own_thread(c->other);
}

TEST_F(TaskPool, IsOwnThreadOnlyInsideATaskOfThatPool) {
  task_pool_t *pool = task_pool_init();
  task_pool_t *other = task_pool_init();
  ASSERT_NE(pool, nullptr);
  ASSERT_NE(other, nullptr);
  EXPECT_FALSE(vemo::task_pool_is_own_thread(pool));
  OwnCheck c{pool, other};
  ASSERT_EQ(task_pool_add(pool, check_own, nullptr, &c), VEMO_OK);
  task_pool_destroy(pool);
  task_pool_destroy(other);
  ASSERT_TRUE(threads_done_.wait_for(1));
  EXPECT_TRUE(c.own);
  EXPECT_FALSE(c.other_own);
}

// The thread start fails; the count must already stand at one more while it is tried.
task_pool_t *g_failing_pool = nullptr;
std::atomic<int> g_count_during_start{-1};

int failing_starter(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *) {
  g_count_during_start.store(vemo::task_pool_count(g_failing_pool));
  return EAGAIN;
}

TEST_F(TaskPool, FailedThreadStartIsNoResourceAndRestoresTheCount) {
  vemo_test::LogCapture capture;
  g_failing_pool = task_pool_init();
  ASSERT_NE(g_failing_pool, nullptr);
  ASSERT_EQ(task_pool_add(g_failing_pool, wait_gate, nullptr, nullptr), VEMO_OK);
  ASSERT_EQ(vemo::task_pool_count(g_failing_pool), 1);

  vemo::task_pool_set_thread_starter(failing_starter);
  EXPECT_EQ(task_pool_add(g_failing_pool, never_called, never_called, nullptr), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(g_count_during_start.load(), 2);  // raised before the start was tried
  EXPECT_EQ(vemo::task_pool_count(g_failing_pool), 1);
  vemo::task_pool_set_thread_starter(tracked_starter);

  g_gate.open();
  task_pool_destroy(g_failing_pool);
  ASSERT_TRUE(threads_done_.wait_for(1));
  EXPECT_TRUE(capture.lines().empty());
}

// The client's shape: a counted task adds further tasks while the teardown may already be
// waiting. The teardown must see every one of them end.
struct Fanout {
  task_pool_t *pool;
  std::atomic<int> children_done{0};
  std::atomic<int> add_failures{0};
};
void child(void *arg) { static_cast<Fanout *>(arg)->children_done.fetch_add(1); }
void parent(void *arg) {
  auto *f = static_cast<Fanout *>(arg);
  for (int i = 0; i < 64; ++i)
    if (task_pool_add(f->pool, child, nullptr, f) != VEMO_OK) f->add_failures.fetch_add(1);
}

TEST_F(TaskPool, DestroyWaitsForTasksAddedByTasks) {
  Fanout f{task_pool_init()};
  ASSERT_NE(f.pool, nullptr);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(task_pool_add(f.pool, parent, nullptr, &f), VEMO_OK);
  task_pool_destroy(f.pool);
  EXPECT_EQ(f.add_failures.load(), 0);
  EXPECT_EQ(f.children_done.load(), 4 * 64);
  ASSERT_TRUE(threads_done_.wait_for(4 + 4 * 64));
}

}  // namespace
