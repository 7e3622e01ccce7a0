// Message-id pool operations used by the client's exchange and dispatch.
//
// The exported operations follow the classic contract (a holder polls its record). The client
// uses these instead: the acknowledgement is written under the pool's mutex (so a late one can
// never reach a freed record), the holder sleeps on a condition until its answer comes, and a
// teardown can wake every holder.
#ifndef VEMO_CLIENT_MSG_ID_POOL_INTERNAL_H
#define VEMO_CLIENT_MSG_ID_POOL_INTERNAL_H

#include <stdint.h>

#include "vemo/msg_id_pool.h"

namespace vemo {

// Runs on the delivering thread for the first answer of a record, outside the pool's mutex,
// after the record was found and before its holder is woken. Its return value is handed to the
// holder through msg_id_wait_result's hook_status. ctx must stay valid while the id is held:
// msg_id_wait_result never returns while a hook of its id is running.
struct MsgDeliverHook {
  int (*fn)(void *ctx, int value);
  void *ctx;
};

// As msg_id_get_from_idle, with an optional hook stored in the record. Blocks (without polling)
// while every id is in use. VEMO_ERR_DISCONNECTED once the pool has been closed.
int msg_id_take(msg_id_pool_t *pool, const msg_data_t *data, const MsgDeliverHook *hook);

// Writes value into the record of id and wakes its holder. 0, or VEMO_ERR_NOT_FOUND when id is
// not in use (an id out of range is logged as by msg_id_pool_get_data; an idle one silently).
// The hook runs for the first answer only; the holder gets the answer its hook saw. A later
// duplicate overwrites the result without a hook.
int msg_id_deliver(msg_id_pool_t *pool, int id, int value);

// Waits for the answer of the held id. timeout_ms of 0 or less gives VEMO_ERR_TIMEOUT at once,
// without looking at the record. Otherwise returns the answer as soon as it is written,
// VEMO_ERR_TIMEOUT once timeout_ms have passed since start_tick, or VEMO_ERR_DISCONNECTED when
// the pool is closed. VEMO_ERR_NO_ANSWER when id is not held (no record; out of range is logged
// as by msg_id_pool_get_data). hook_status (may be null) receives the hook's result, 0 when none
// ran. While a hook of the id runs, neither the clock nor a close ends the wait.
// The id stays held: the caller returns it with msg_id_put_to_idle, which itself waits for a
// hook of that id still running (so a holder that gave up at once never frees the hook's ctx
// under it).
int msg_id_wait_result(msg_id_pool_t *pool, int id, uint32_t start_tick, int32_t timeout_ms,
                       int *hook_status);

// Wakes every holder and taker (they get VEMO_ERR_DISCONNECTED) and refuses later takes, through
// msg_id_get_from_idle too. The pool stays valid until msg_id_pool_destroy, which must come
// after every woken thread has left the pool's functions.
void msg_id_pool_close(msg_id_pool_t *pool);

}  // namespace vemo

#endif
