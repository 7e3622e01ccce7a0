// Test seams of the task pool: the thread start can be replaced, and a test can see whether a
// destroyer is waiting. Nothing in the library calls these.
#ifndef VEMO_UTIL_TASK_POOL_SEAM_H
#define VEMO_UTIL_TASK_POOL_SEAM_H

#include <pthread.h>
#include <stdint.h>

#include "vemo/task_pool.h"

namespace vemo {

// Starts a thread running entry(arg); 0 or an error number, as pthread_create with default
// attributes.
using TaskThreadStarter = int (*)(pthread_t *thread, void *(*entry)(void *), void *arg);

// Replaces the thread start of every pool (nullptr restores pthread_create), so that tests can
// make it fail or learn when a task thread has left the pool's code.
void task_pool_set_thread_starter(TaskThreadStarter starter);

// The number of threads blocked in task_pool_destroy of pool.
int32_t task_pool_destroy_waiters(task_pool_t *pool);

}  // namespace vemo

#endif
