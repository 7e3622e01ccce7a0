// The passing of answers in the message-id pool: the dispatcher delivers an acknowledgement
// into the record of its id under the pool's mutex (so a late one never reaches a freed
// record), and the holder sleeps on its slot's own condition until it comes, so a delivery
// wakes exactly the thread that waits for it.

#include <stdint.h>

#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "client/msg_id_pool_state.h"
#include "util/clock.h"
#include "util/sync.h"
#include "vemo/util.h"

namespace vemo {
namespace {

constexpr int kNotAnswered = VEMO_ERR_NOT_ARRIVED;

}  // namespace

int msg_id_deliver(msg_id_pool_t *pool, int id, int value) {
  if (!id_in_range(pool, id, "msg_id_pool_get_data")) return VEMO_ERR_NOT_FOUND;
  pool->mutex.lock();
  Slot &slot = pool->data[id - 1];
  MsgRecord *record = slot.record;
  if (record == nullptr) {
    // A late answer: the holder gave the id back already. Nothing to write to; a quarantine
    // that waited for this answer is over.
    if (slot.quarantined) end_quarantine(pool, id - 1);
    pool->mutex.unlock();
    return VEMO_ERR_NOT_FOUND;
  }
  record->awaiting_late = false;
  bool run_hook = !record->answered && record->hook.fn != nullptr;
  record->answered = true;
  if (run_hook) {
    // The hook may take locks of its own and do I/O, so it runs unlocked. The record cannot go
    // away meanwhile: the holder, the returners and msg_id_pool_destroy all wait while
    // delivering is set.
    record->delivering = true;
    MsgDeliverHook hook = record->hook;
    pool->mutex.unlock();
    int status = hook.fn(hook.ctx, value);
    pool->mutex.lock();
    record->hook_status = status;
  }
  // Written after the hook, so that the holder gets the answer its hook saw even if a duplicate
  // came in while the hook ran. A duplicate never clears delivering: only the hook's runner does.
  __atomic_store_n(&record->data.result, value, __ATOMIC_RELEASE);
  if (run_hook) record->delivering = false;
  // Broadcast: besides the holder, a returner may be waiting for the hook's end.
  slot.changed.broadcast();
  pool->mutex.unlock();
  return VEMO_OK;
}

int msg_id_wait_result(msg_id_pool_t *pool, int id, uint32_t start_tick, int32_t timeout_ms,
                       int *hook_status) {
  if (hook_status != nullptr) *hook_status = 0;
  // A holder that gives up stops taking answers at once, not only when it returns the id: a
  // late acknowledgement must not run the hook (and, say, enter a request id in the response
  // list) for a sender that has already reported a failure. The release then quarantines it.
  auto give_up = [](Slot &slot, int code) NO_THREAD_SAFETY_ANALYSIS {
    MsgRecord *record = slot.record;
    if (record != nullptr && !record->delivering && !record->answered) {
      record->answered = true;
      record->awaiting_late = true;
    }
    return code;
  };
  if (timeout_ms <= 0) {
    // The answer is not looked at; the record is only marked as given up.
    if (pool != nullptr && id >= 1 && id <= pool->max_size) {
      MutexLock lock(pool->mutex);
      give_up(pool->data[id - 1], 0);
    }
    return VEMO_ERR_TIMEOUT;
  }
  if (!id_in_range(pool, id, "msg_id_pool_get_data")) return VEMO_ERR_NO_ANSWER;
  MutexLock lock(pool->mutex);
  Slot &slot = pool->data[id - 1];
  const Deadline deadline{start_tick, timeout_ms};
  for (;;) {
    MsgRecord *record = slot.record;
    if (record == nullptr) return VEMO_ERR_NO_ANSWER;
    if (record->delivering) {
      // The hook's ctx lives on this holder's stack: never leave while it runs, whatever the
      // clock or a close say. Hooks are short.
      pool->waiting_holders += 1;
      slot.changed.wait(pool->mutex);
      pool->waiting_holders -= 1;
      continue;
    }
    int result = __atomic_load_n(&record->data.result, __ATOMIC_ACQUIRE);
    if (result != kNotAnswered) {
      if (hook_status != nullptr) *hook_status = record->hook_status;
      return result;
    }
    if (pool->closed) return give_up(slot, VEMO_ERR_DISCONNECTED);
    uint32_t now = msg_id_pool_now_tick();
    if (deadline.expired(now)) return give_up(slot, VEMO_ERR_TIMEOUT);
    pool->waiting_holders += 1;
    slot.changed.wait_for_ms(pool->mutex, deadline.remaining_ms(now));
    pool->waiting_holders -= 1;
  }
}

void msg_id_pool_close(msg_id_pool_t *pool) {
  if (pool == nullptr) return;
  MutexLock lock(pool->mutex);
  pool->closed = true;
  for (int32_t i = 0; i < pool->max_size; ++i) pool->data[i].changed.broadcast();
  pool->id_freed.broadcast();
}

int32_t msg_id_pool_waiting_holders(msg_id_pool_t *pool) {
  MutexLock lock(pool->mutex);
  return pool->waiting_holders;
}

}  // namespace vemo
