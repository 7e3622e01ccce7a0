// Task-pool internals used by the client and the tests.
#ifndef VEMO_UTIL_TASK_POOL_INTERNAL_H
#define VEMO_UTIL_TASK_POOL_INTERNAL_H

#include <stdint.h>

#include "vemo/task_pool.h"

namespace vemo {

// The number of tasks started and not yet ended.
int32_t task_pool_count(task_pool_t *pool);

// True when the calling thread is running a task of pool (so it must not wait for the pool).
bool task_pool_is_own_thread(const task_pool_t *pool);

}  // namespace vemo

#endif
