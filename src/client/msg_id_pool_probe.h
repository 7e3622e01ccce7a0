// What a test needs to see of the message-id pool to know a thread is really blocked in it,
// instead of guessing with sleeps. Nothing in the library calls these.
#ifndef VEMO_CLIENT_MSG_ID_POOL_PROBE_H
#define VEMO_CLIENT_MSG_ID_POOL_PROBE_H

#include <stdint.h>

#include "vemo/msg_id_pool.h"

namespace vemo {

// Takers blocked because every id is in use.
int32_t msg_id_pool_waiting_takers(msg_id_pool_t *pool);

// Threads asleep on a slot's condition: holders in msg_id_wait_result, and returners in
// msg_id_put_to_idle waiting for a hook of their id to end.
int32_t msg_id_pool_waiting_holders(msg_id_pool_t *pool);

}  // namespace vemo

#endif
