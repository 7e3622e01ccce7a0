// Message-id pool operations used by the client's exchange and dispatch.
//
// The exported operations follow the classic contract (a holder polls its record). The client
// uses these instead: the acknowledgement is written under the pool's mutex (so a late one can
// never reach a freed record), the holder sleeps on a condition until its answer comes, a take
// is bounded by the caller's deadline, an id whose answer never came is quarantined, and a
// teardown can wake every holder.
#ifndef VEMO_CLIENT_MSG_ID_POOL_INTERNAL_H
#define VEMO_CLIENT_MSG_ID_POOL_INTERNAL_H

#include <stdint.h>

#include "util/clock.h"
#include "vemo/msg_id_pool.h"
#include "vemo/util.h"

namespace vemo {

// How long an id whose holder gave up stays out of the rotation unless its late
// acknowledgement arrives first. A late acknowledgement comes from a daemon that is alive but
// slow, about as late as the daemon was slow on the request; the calls without a timeout of
// their own wait 5000 ms, and 10 s covers an acknowledgement twice as late as that. Longer would
// starve the pool: with 256 ids, 10 s still lets 25 requests a second time out before a take has
// to wait for a quarantine to end. A new connection starts with a new pool, so quarantines never
// outlive the daemon that could answer them.
constexpr int32_t kIdQuarantineMs = 10000;

// Runs on the delivering thread for the first answer of a record, outside the pool's mutex,
// after the record was found and before its holder is woken. Its return value is handed to the
// holder through msg_id_wait_result's hook_status. ctx must stay valid while the id is held:
// msg_id_wait_result never returns while a hook of its id is running.
struct MsgDeliverHook {
  int (*fn)(void *ctx, int value);
  void *ctx;
};

// As msg_id_get_from_idle (same codes and log lines), with an optional hook stored in the
// record. While every id is held or quarantined it sleeps (without polling) until one comes
// free or a quarantine ends; VEMO_ERR_TIMEOUT, unlogged, once the deadline has passed with none
// free (a free id is taken even past the deadline: the look comes before the clock), and
// VEMO_ERR_DISCONNECTED once the pool has been closed.
int msg_id_take(msg_id_pool_t *pool, const msg_data_t *data, const MsgDeliverHook *hook,
                const Deadline &deadline);

// Writes value into the record of id and wakes its holder. 0, or VEMO_ERR_NOT_FOUND when id is
// not held (an id out of range is logged as by msg_id_pool_get_data; an idle one silently). A
// late answer for a quarantined id ends the quarantine and also gives VEMO_ERR_NOT_FOUND.
// The hook runs for the first answer only; the holder gets the answer its hook saw. A later
// duplicate overwrites the result without a hook.
int msg_id_deliver(msg_id_pool_t *pool, int id, int value);

// Waits for the answer of the held id. timeout_ms of 0 or less gives VEMO_ERR_TIMEOUT at once,
// without looking at the record. Otherwise returns the answer as soon as it is written,
// VEMO_ERR_TIMEOUT once timeout_ms have passed since start_tick, or VEMO_ERR_DISCONNECTED when
// the pool is closed. VEMO_ERR_NO_ANSWER when id is not held (no record; out of range is logged
// as by msg_id_pool_get_data). hook_status (may be null) receives the hook's result, 0 when none
// ran. While a hook of the id runs, neither the clock nor a close ends the wait. A wait that
// ends without an answer marks the id as given up: a later answer runs no hook.
// The id stays held: the caller returns it with msg_id_release, which itself waits for a hook
// of that id still running (so a holder that gave up at once never frees the hook's ctx under
// it).
int msg_id_wait_result(msg_id_pool_t *pool, int id, uint32_t start_tick, int32_t timeout_ms,
                       int *hook_status);

// The client's return of an id (logged as msg_id_put_to_idle). An id given up without an
// answer goes into quarantine instead of coming free: it is not handed out again until its late
// answer arrives (msg_id_deliver) or kIdQuarantineMs have passed. Any other id comes free at
// once, as with msg_id_put_to_idle, which never quarantines.
void msg_id_release(msg_id_pool_t *pool, int id);

// Wakes every holder and taker (they get VEMO_ERR_DISCONNECTED) and refuses later takes, through
// msg_id_get_from_idle too. The pool stays valid until msg_id_pool_destroy, which must come
// after every woken thread has left the pool's functions.
void msg_id_pool_close(msg_id_pool_t *pool);

}  // namespace vemo

#endif
