/*
 * vemo message-id pool: ids 1..max_size handed out in rotation, each with one answer record.
 *
 * Conventions
 * - msg_id_get_from_idle copies the caller's record into a record of the pool's own and returns
 *   the id (1..max_size); when every id is in use it blocks until one is returned.
 * - msg_id_pool_get_data returns the pool's record of an id in use, or NULL; the record lives
 *   until the id is returned or the pool is destroyed. Its result field is shared between
 *   threads: read and write it with atomic operations.
 * - Any thread may call any function except msg_id_pool_destroy, which must run last.
 * - Failures are logged. Codes: VEMO_ERR_INVALID_ARG, VEMO_ERR_NO_RESOURCE, and
 *   VEMO_ERR_DISCONNECTED from a take once the library has closed the pool for its teardown.
 */
#ifndef VEMO_MSG_ID_POOL_H
#define VEMO_MSG_ID_POOL_H

#include <vemo/codes.h>
#include <vemo/export.h>

VEMO_BEGIN_DECLS

/* The answer record of one id. result is -2001 (VEMO_ERR_NOT_ARRIVED) until answered. */
typedef struct msg_data {
  int result;
} msg_data_t;

typedef struct msg_id_pool msg_id_pool_t;

VEMO_API msg_id_pool_t *msg_id_pool_init(int size);
VEMO_API void msg_id_pool_destroy(msg_id_pool_t *pool);
VEMO_API int msg_id_pool_get_max_size(msg_id_pool_t *pool);
VEMO_API msg_data_t *msg_id_pool_get_data(msg_id_pool_t *pool, int id);
VEMO_API int msg_id_get_from_idle(msg_id_pool_t *pool, const msg_data_t *data);
VEMO_API void msg_id_put_to_idle(msg_id_pool_t *pool, int id);

VEMO_END_DECLS

#endif /* VEMO_MSG_ID_POOL_H */
