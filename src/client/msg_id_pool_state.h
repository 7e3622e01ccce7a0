// The state of a message-id pool, shared by its ids' lifecycle (msg_id_pool.cc: take,
// return, quarantine) and the passing of answers to holders (msg_id_answer.cc). Nothing else
// includes this.
#ifndef VEMO_CLIENT_MSG_ID_POOL_STATE_H
#define VEMO_CLIENT_MSG_ID_POOL_STATE_H

#include <stdint.h>

#include "client/msg_id_pool_internal.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/msg_id_pool.h"

namespace vemo {

// One per id in use. Every field but data.result is guarded by the pool's mutex; data.result is
// also read by callers of msg_id_pool_get_data who poll it without the mutex, so it is always
// accessed with atomic operations.
struct MsgRecord {
  msg_data_t data;  // first: msg_id_pool_get_data hands out its address
  MsgDeliverHook hook;
  int hook_status;
  bool answered;       // the first answer has come, or the holder gave up (no hook runs after)
  bool delivering;     // the hook runs outside the mutex: the holder and the returners wait
  bool awaiting_late;  // the holder gave up before any answer came: one may still come
};

constexpr int32_t kNone = -1;

struct Slot {
  MsgRecord *record;  // null while the id is idle or quarantined
  CondVar changed;    // the holder sleeps here; signalled on an answer, a hook's end, a close
  bool quarantined;
  uint32_t quarantined_at;
  int32_t newer_quarantined;  // the FIFO of quarantined slots, by index; kNone at its ends
  int32_t older_quarantined;
};

}  // namespace vemo

struct msg_id_pool {
  vemo::Mutex mutex;
  vemo::CondVar id_freed;
  int32_t max_size = 0;  // set at creation, never changed: read without the mutex
  int32_t next GUARDED_BY(mutex) = 0;
  int32_t used GUARDED_BY(mutex) = 0;  // ids held or quarantined
  vemo::Slot *data PT_GUARDED_BY(mutex) = nullptr;
  int32_t oldest_quarantined GUARDED_BY(mutex) = vemo::kNone;
  int32_t newest_quarantined GUARDED_BY(mutex) = vemo::kNone;
  bool closed GUARDED_BY(mutex) = false;
  int32_t waiting_takers GUARDED_BY(mutex) = 0;
  int32_t waiting_holders GUARDED_BY(mutex) = 0;
};

namespace vemo {

// The pools' clock: get_tick_count, unless a test replaced it.
uint32_t msg_id_pool_now_tick();

// The argument test of the exported operation `function`, logged under its name: the client's
// internal twins log exactly as the exported operations do.
bool id_in_range(const msg_id_pool_t *pool, int id, const char *function);

// Ends the quarantine of slot i: the id is idle, and one taker can have it.
void end_quarantine(msg_id_pool_t *pool, int32_t i) REQUIRES(pool->mutex);

}  // namespace vemo

#endif
