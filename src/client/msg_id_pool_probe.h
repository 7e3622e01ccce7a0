// What a test needs to see of the message-id pool to know a thread is really blocked in it,
// instead of guessing with sleeps, and its clock. Nothing in the library calls these.
#ifndef VEMO_CLIENT_MSG_ID_POOL_PROBE_H
#define VEMO_CLIENT_MSG_ID_POOL_PROBE_H

#include <stdint.h>

#include "vemo/msg_id_pool.h"

namespace vemo {

using TickSource = uint32_t (*)(void);

// Replaces get_tick_count for every pool (nullptr restores it): quarantines, the deadline of a
// take and the timeout of msg_id_wait_result all read this clock.
void msg_id_pool_set_tick_source(TickSource source);

// Takers blocked because every id is held or quarantined.
int32_t msg_id_pool_waiting_takers(msg_id_pool_t *pool);

// Threads asleep on a slot's condition: holders in msg_id_wait_result, and returners waiting
// for a hook of their id to end.
int32_t msg_id_pool_waiting_holders(msg_id_pool_t *pool);

}  // namespace vemo

#endif
