// The task pool: one detached thread per task, counted so that a teardown can wait for all of
// them. It is not a queue and keeps no idle threads.
//
// Nothing here logs: the callers know what a failure means to them and log it themselves.

#include <pthread.h>
#include <stdlib.h>

#include <atomic>
#include <new>

#include "util/sync.h"
#include "util/task_pool_internal.h"
#include "util/task_pool_seam.h"
#include "util/thread_annotations.h"

struct task_pool {
  vemo::Mutex mutex;
  // Signalled when count drops to 0, so that a destroyer sleeps instead of polling.
  vemo::CondVar drained;
  // Tasks started (or being started) and not yet ended. It is raised before the thread is
  // started, so it never stands below the number of live tasks and a destroyer can never free
  // the pool under a task that has not counted itself down yet.
  int32_t count GUARDED_BY(mutex) = 0;
  int32_t destroy_waiters GUARDED_BY(mutex) = 0;
};

namespace vemo {
namespace {

struct Task {
  // Null once the task's own thread has destroyed the pool: the freed pool must then not be
  // touched again. Only the task's own thread reads or writes it after the start.
  task_pool_t *pool;
  task_func_t func;
  task_func_t post_func;
  void *arg;
};

// The task the calling thread runs, if any: lets a task that destroys its own pool leave
// itself out of the wait (it would otherwise wait for itself for ever).
thread_local Task *t_current_task = nullptr;

std::atomic<TaskThreadStarter> g_starter{nullptr};

// Lowers count by one; wakes the destroyer when no task is left. The broadcast is made with the
// mutex held: the destroyer frees the pool as soon as it gets the mutex, so nothing of the pool
// may be touched after the unlock.
void count_down(task_pool_t *pool) EXCLUDES(pool->mutex) {
  MutexLock lock(pool->mutex);
  pool->count -= 1;
  if (pool->count <= 0) pool->drained.broadcast();
}

}  // namespace

int32_t task_pool_count(task_pool_t *pool) {
  if (pool == nullptr) return 0;
  MutexLock lock(pool->mutex);
  return pool->count;
}

bool task_pool_is_own_thread(const task_pool_t *pool) {
  return pool != nullptr && t_current_task != nullptr && t_current_task->pool == pool;
}

int start_task_thread(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *),
                      void *arg) {
  TaskThreadStarter starter = g_starter.load(std::memory_order_acquire);
  if (starter != nullptr) return starter(thread, attr, entry, arg);
  return pthread_create(thread, attr, entry, arg);
}

void task_pool_set_thread_starter(TaskThreadStarter starter) {
  g_starter.store(starter, std::memory_order_release);
}

int32_t task_pool_destroy_waiters(task_pool_t *pool) {
  MutexLock lock(pool->mutex);
  return pool->destroy_waiters;
}

}  // namespace vemo

// The entry of every task thread.
static void *task_pool_thread(void *argument) {
  // Nobody ever joins a task: its thread releases its own resources when it ends.
  pthread_detach(pthread_self());
  auto *task = static_cast<vemo::Task *>(argument);
  vemo::t_current_task = task;
  task->func(task->arg);
  if (task->post_func != nullptr) task->post_func(task->arg);
  vemo::t_current_task = nullptr;
  task_pool_t *pool = task->pool;
  free(task);
  // A task that destroyed its own pool was already taken out of the count by the destroy.
  if (pool != nullptr) vemo::count_down(pool);
  return nullptr;
}

extern "C" VEMO_API task_pool_t *task_pool_init(void) {
  void *memory = malloc(sizeof(task_pool_t));
  if (memory == nullptr) return nullptr;
  return new (memory) task_pool_t();
}

extern "C" VEMO_API int task_pool_add(task_pool_t *pool, task_func_t func, task_func_t post_func,
                                      void *arg) {
  if (pool == nullptr || func == nullptr) return VEMO_ERR_INVALID_ARG;
  auto *task = static_cast<vemo::Task *>(malloc(sizeof(vemo::Task)));
  if (task == nullptr) return VEMO_ERR_NO_RESOURCE;
  task->pool = pool;
  task->func = func;
  task->post_func = post_func;
  task->arg = arg;
  {
    vemo::MutexLock lock(pool->mutex);
    pool->count += 1;
  }
  pthread_t thread;
  if (vemo::start_task_thread(&thread, nullptr, task_pool_thread, task) != 0) {
    // The thread never ran, so the record is still ours. The platform's error number is not
    // passed on: to the caller every failed start means "no resource".
    free(task);
    vemo::count_down(pool);
    return VEMO_ERR_NO_RESOURCE;
  }
  return VEMO_OK;
}

extern "C" VEMO_API void task_pool_destroy(task_pool_t *pool) {
  if (pool == nullptr) return;
  {
    vemo::MutexLock lock(pool->mutex);
    vemo::Task *self = vemo::t_current_task;
    if (self != nullptr && self->pool == pool) {
      // Called from one of the pool's own tasks (a teardown ordered to a dispatch task): that
      // task cannot end while it waits here, so it leaves the count now and its thread will not
      // touch the pool again.
      self->pool = nullptr;
      pool->count -= 1;
    }
    pool->destroy_waiters += 1;
    // No upper bound: a task that never returns keeps the destroyer waiting, by contract.
    while (pool->count > 0) pool->drained.wait(pool->mutex);
    pool->destroy_waiters -= 1;
  }
  pool->~task_pool();
  free(pool);
}
