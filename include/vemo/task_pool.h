/*
 * vemo task pool: a counted set of detached threads, one per task.
 *
 * Conventions
 * - task_pool_add starts one new detached thread that runs func(arg), then post_func(arg) when
 *   it is not NULL, and ends. The pool never looks at arg and never frees it.
 * - task_pool_destroy returns once every task of the pool has ended, then frees the pool. Called
 *   from one of the pool's own tasks, it does not wait for that calling task.
 * - No function here logs. Results: 0, VEMO_ERR_INVALID_ARG or VEMO_ERR_NO_RESOURCE.
 * - Do not add tasks to a pool whose destruction has begun.
 */
#ifndef VEMO_TASK_POOL_H
#define VEMO_TASK_POOL_H

#include <vemo/codes.h>
#include <vemo/export.h>

VEMO_BEGIN_DECLS

typedef struct task_pool task_pool_t;
typedef void (*task_func_t)(void *arg);

VEMO_API task_pool_t *task_pool_init(void);
VEMO_API int task_pool_add(task_pool_t *pool, task_func_t func, task_func_t post_func, void *arg);
VEMO_API void task_pool_destroy(task_pool_t *pool);

VEMO_END_DECLS

#endif /* VEMO_TASK_POOL_H */
