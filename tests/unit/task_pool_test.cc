// The task pool: each task on a thread of its own, a destroy that drains every task (those added
// by tasks too), and a destroy from the pool's own last task.
#include <pthread.h>

#include <memory>

#include "unit/unit.h"
#include "util/task_pool_internal.h"
#include "util/task_pool_seam.h"
#include "vemo/task_pool.h"

namespace {

using namespace vemo_unit;

// Task threads end with a count the test waits for: only once a thread has left the pool's
// code may the test end and the sanitizers judge every access it made.
std::atomic<int> g_threads_done{0};
int tracked_starter(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *), void *arg) {
  using Run = std::function<void()>;
  auto *run = new Run([=] { entry(arg), g_threads_done.fetch_add(1); });
  const auto start = [](void *r) -> void * { return (*std::unique_ptr<Run>(static_cast<Run *>(r)))(), nullptr; };
  const int rc = pthread_create(thread, attr, start, run);
  if (rc != 0) delete run;
  return rc;
}
int failing_starter(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *) { return EAGAIN; }

struct Probe {
  task_pool_t *pool = nullptr;
  Gate gate;
  std::atomic<int> funcs{0}, posts{0}, order_errors{0}, own_before{0}, own_after{0};
  std::atomic<bool> destroyed{false};
};
void gated(void *arg) {
  auto *p = static_cast<Probe *>(arg);
  p->funcs.fetch_add(1);
  p->gate.wait();
}
void post(void *arg) {  // after its func, on the same thread, before the destroy returns
  auto *p = static_cast<Probe *>(arg);
  if (p->funcs.load() == 0 || p->destroyed.load() || !vemo::task_pool_is_own_thread(p->pool)) p->order_errors++;
  p->posts.fetch_add(1);
}
void fan_out(void *arg) {  // the client's shape: a task adds tasks while a destroy may wait
  static_cast<Probe *>(arg)->funcs.fetch_add(1);
  for (int i = 0; i < 16; ++i)
    if (task_pool_add(static_cast<Probe *>(arg)->pool, gated, post, arg) != VEMO_OK) static_cast<Probe *>(arg)->order_errors++;
}
void destroy_own(void *arg) {
  auto *p = static_cast<Probe *>(arg);
  p->own_before.store(vemo::task_pool_is_own_thread(p->pool));
  task_pool_destroy(p->pool);
}
void after_destroy_own(void *arg) {  // the pool is gone: its address is only compared
  auto *p = static_cast<Probe *>(arg);
  p->own_after.store(vemo::task_pool_is_own_thread(p->pool) ? 1 : 2);
}

TEST(TaskPool, DestroyDrainsEveryTaskAndRefusalsStartNothing) {
  vemo::task_pool_set_thread_starter(tracked_starter);
  LogCapture log;
  Probe p;
  p.pool = task_pool_init();
  EXPECT_EQ(task_pool_add(nullptr, gated, post, &p), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(task_pool_add(p.pool, nullptr, post, &p), VEMO_ERR_INVALID_ARG);
  vemo::task_pool_set_thread_starter(failing_starter);
  EXPECT_EQ(task_pool_add(p.pool, gated, post, &p), VEMO_ERR_NO_RESOURCE);
  vemo::task_pool_set_thread_starter(tracked_starter);
  EXPECT_EQ(vemo::task_pool_count(p.pool), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(task_pool_add(p.pool, i == 0 ? fan_out : gated, post, &p), VEMO_OK);
  EXPECT_FALSE(vemo::task_pool_is_own_thread(p.pool));
  const auto drained = [&] { return task_pool_destroy(p.pool), p.destroyed.store(true), 0; };
  woken(drained, [&] { return vemo::task_pool_destroy_waiters(p.pool); }, [&] {
    if (p.destroyed.load()) p.order_errors++;  // the destroy returned before its tasks ended
    p.gate.open();
  });
  EXPECT_EQ(p.posts.load(), 3 + 16);
  EXPECT_EQ(p.order_errors.load(), 0);
  ASSERT_TRUE(eventually([&] { return g_threads_done.load() == 3 + 16; }));
  task_pool_destroy(nullptr);
  EXPECT_EQ(golden(log), Lines{});
  vemo::task_pool_set_thread_starter(nullptr);
}

// A dispatch task tears down its own pool when the daemon orders a teardown: the destroy waits
// for the other tasks, returns, and the thread leaves the freed pool alone (ASan would tell).
TEST(TaskPool, DestroyFromItsOwnTaskWaitsForTheOthersAndReturns) {
  vemo::task_pool_set_thread_starter(tracked_starter);
  Probe p;
  p.pool = task_pool_init();
  ASSERT_EQ(task_pool_add(p.pool, gated, nullptr, &p), VEMO_OK);
  ASSERT_EQ(task_pool_add(p.pool, destroy_own, after_destroy_own, &p), VEMO_OK);
  ASSERT_TRUE(eventually([&] { return vemo::task_pool_destroy_waiters(p.pool) == 1; }));
  EXPECT_EQ(vemo::task_pool_count(p.pool), 1);  // the destroying task left the count
  EXPECT_EQ(p.own_after.load(), 0);
  p.gate.open();
  ASSERT_TRUE(eventually([&] { return g_threads_done.load() == 2; }));
  EXPECT_EQ(p.own_before.load(), 1);
  EXPECT_EQ(p.own_after.load(), 2);
  vemo::task_pool_set_thread_starter(nullptr);
}

}  // namespace
