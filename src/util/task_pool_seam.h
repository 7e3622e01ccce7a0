// Test seams of the library's threads: the thread start can be replaced, and a test can see whether a
// destroyer is waiting. Nothing in the library calls these.
#ifndef VEMO_UTIL_TASK_POOL_SEAM_H
#define VEMO_UTIL_TASK_POOL_SEAM_H

#include <pthread.h>
#include <stdint.h>

#include "vemo/task_pool.h"

namespace vemo {

// Starts a thread: the signature of pthread_create, which is the default.
using TaskThreadStarter = int (*)(pthread_t *thread, const pthread_attr_t *attr,
                                  void *(*entry)(void *), void *arg);

// Replaces the thread start of every library thread, task pool and handler pool alike (nullptr
// restores pthread_create), so that tests can make it fail or learn when a thread has started.
void task_pool_set_thread_starter(TaskThreadStarter starter);

// Starts a thread through the starter in force.
int start_task_thread(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *),
                      void *arg);

// The number of threads blocked in task_pool_destroy of pool.
int32_t task_pool_destroy_waiters(task_pool_t *pool);

}  // namespace vemo

#endif
