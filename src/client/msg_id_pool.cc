// The message-id pool: ids 1..max_size handed out in rotation, one heap record per id in use.
//
// Waiting is done on conditions, never by polling: a taker that finds every id in use sleeps on
// id_freed, and the holder of an id sleeps on its slot's own condition until the answer is
// written, so a delivery wakes exactly the thread that waits for it.
//
// An id whose holder gave up waiting is quarantined when the client releases it: its
// acknowledgement may still be on the way, and handed to the id's next holder it would answer
// the wrong request. The id comes free when that late acknowledgement arrives or when
// kIdQuarantineMs have passed. Quarantined slots sit in a FIFO ordered by the start of their
// quarantine, which (with one duration for all) is also the order in which they end.

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <new>

#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "util/clock.h"
#include "util/log_internal.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/util.h"

namespace vemo {
namespace {

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

std::atomic<TickSource> g_tick_source{nullptr};

uint32_t now_tick() {
  TickSource source = g_tick_source.load(std::memory_order_acquire);
  return source != nullptr ? source() : get_tick_count();
}

}  // namespace
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
namespace {

constexpr int kNotAnswered = VEMO_ERR_NOT_ARRIVED;

// The argument test of the exported operation `function`, logged under its name; the client's
// internal twins log exactly as the exported operations do.
bool id_in_range(const msg_id_pool_t *pool, int id, const char *function) {
  if (pool == nullptr) {
    LOG_PRINT_AS(function, "ERROR", "the msg_id_pool_t is NULL");
    return false;
  }
  if (id < 1 || id > pool->max_size) {
    LOG_PRINT_AS(function, "ERROR", "the message is out of range");
    return false;
  }
  return true;
}

int32_t quarantine_left_ms(const Slot &slot, uint32_t now) {
  int64_t left = static_cast<int64_t>(kIdQuarantineMs) - tick_elapsed(now, slot.quarantined_at);
  return left > 0 ? static_cast<int32_t>(left) : 0;
}

void quarantine(msg_id_pool_t *pool, int32_t i, uint32_t now) REQUIRES(pool->mutex) {
  Slot &slot = pool->data[i];
  slot.quarantined = true;
  slot.quarantined_at = now;
  slot.newer_quarantined = kNone;
  slot.older_quarantined = pool->newest_quarantined;
  if (pool->newest_quarantined != kNone) pool->data[pool->newest_quarantined].newer_quarantined = i;
  pool->newest_quarantined = i;
  if (pool->oldest_quarantined == kNone) pool->oldest_quarantined = i;
}

// Ends the quarantine of slot i: the id is idle, and one taker can have it.
void end_quarantine(msg_id_pool_t *pool, int32_t i) REQUIRES(pool->mutex) {
  Slot &slot = pool->data[i];
  int32_t newer = slot.newer_quarantined;
  int32_t older = slot.older_quarantined;
  if (newer != kNone) pool->data[newer].older_quarantined = older;
  if (older != kNone) pool->data[older].newer_quarantined = newer;
  if (pool->newest_quarantined == i) pool->newest_quarantined = older;
  if (pool->oldest_quarantined == i) pool->oldest_quarantined = newer;
  slot.quarantined = false;
  pool->used -= 1;
  pool->id_freed.signal();
}

void end_passed_quarantines(msg_id_pool_t *pool, uint32_t now) REQUIRES(pool->mutex) {
  while (pool->oldest_quarantined != kNone &&
         quarantine_left_ms(pool->data[pool->oldest_quarantined], now) == 0) {
    end_quarantine(pool, pool->oldest_quarantined);
  }
}

// Rotation: the search starts after the slot last handed out, so an id just returned is not
// reused at once. Requires a free slot.
int32_t store_in_free_slot(msg_id_pool_t *pool, MsgRecord *record) REQUIRES(pool->mutex) {
  int32_t i = pool->next;
  for (;;) {
    pool->next = (i + 1) % pool->max_size;
    if (pool->data[i].record == nullptr && !pool->data[i].quarantined) break;
    i = pool->next;
  }
  pool->data[i].record = record;
  pool->used += 1;
  return i + 1;
}

// The take behind msg_id_get_from_idle (deadline null: no bound) and msg_id_take.
int take(msg_id_pool_t *pool, const msg_data_t *data, const MsgDeliverHook *hook,
         const Deadline *deadline) {
  if (pool == nullptr || data == nullptr) {
    LOG_PRINT_AS("msg_id_get_from_idle", "ERROR", "the msg_id_pool_t or msg_data_t is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  // Allocated before the lock is taken, so the mutex is never held across malloc.
  auto *record = static_cast<MsgRecord *>(malloc(sizeof(MsgRecord)));
  if (record == nullptr) {
    LOG_PRINT_AS("msg_id_get_from_idle", "ERROR", "fail to malloc, size=%d",
                 static_cast<int>(sizeof(MsgRecord)));
    return VEMO_ERR_NO_RESOURCE;
  }
  *record = MsgRecord{*data, hook != nullptr ? *hook : MsgDeliverHook{nullptr, nullptr}, 0,
                      false, false, false};
  int id = VEMO_ERR_DISCONNECTED;
  {
    MutexLock lock(pool->mutex);
    while (!pool->closed) {
      uint32_t now = now_tick();
      end_passed_quarantines(pool, now);
      // A free id is taken even past the deadline: the look comes before the clock.
      if (pool->used < pool->max_size) {
        id = store_in_free_slot(pool, record);
        // Several ids may have come free at once (quarantines ending together): pass it on.
        if (pool->used < pool->max_size && pool->waiting_takers > 0) pool->id_freed.signal();
        break;
      }
      if (deadline != nullptr && deadline->expired(now)) {
        id = VEMO_ERR_TIMEOUT;
        break;
      }
      // Wake at the deadline or at the end of the oldest quarantine, whichever comes first.
      int32_t wait_ms = deadline != nullptr ? deadline->remaining_ms(now) : -1;
      if (pool->oldest_quarantined != kNone) {
        int32_t left = quarantine_left_ms(pool->data[pool->oldest_quarantined], now);
        if (wait_ms < 0 || left < wait_ms) wait_ms = left;
      }
      pool->waiting_takers += 1;
      if (wait_ms < 0) {
        pool->id_freed.wait(pool->mutex);
      } else {
        pool->id_freed.wait_for_ms(pool->mutex, wait_ms);
      }
      pool->waiting_takers -= 1;
    }
  }
  if (id < 0) free(record);
  return id;
}

// Waits (mutex held) until no hook of slot runs, so that its record may be freed.
void wait_hook_done(msg_id_pool_t *pool, Slot &slot) REQUIRES(pool->mutex) {
  while (slot.record != nullptr && slot.record->delivering) {
    pool->waiting_holders += 1;
    slot.changed.wait(pool->mutex);
    pool->waiting_holders -= 1;
  }
}

// The return behind msg_id_put_to_idle (never quarantines) and msg_id_release.
void give_back(msg_id_pool_t *pool, int id, bool quarantine_if_given_up) {
  if (!id_in_range(pool, id, "msg_id_put_to_idle")) return;
  MsgRecord *record = nullptr;
  {
    MutexLock lock(pool->mutex);
    Slot &slot = pool->data[id - 1];
    // A holder that gave up without waiting (timeout 0) may return its id while a hook of it
    // still runs; the hook's ctx and the record must outlive it.
    wait_hook_done(pool, slot);
    record = slot.record;
    if (record == nullptr) return;  // returning an idle id changes nothing
    slot.record = nullptr;
    if (quarantine_if_given_up && record->awaiting_late) {
      quarantine(pool, id - 1, now_tick());
    } else {
      pool->used -= 1;
      pool->id_freed.signal();
    }
  }
  free(record);
}

}  // namespace

int msg_id_take(msg_id_pool_t *pool, const msg_data_t *data, const MsgDeliverHook *hook,
                const Deadline &deadline) {
  return take(pool, data, hook, &deadline);
}

void msg_id_release(msg_id_pool_t *pool, int id) { give_back(pool, id, true); }

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
    uint32_t now = now_tick();
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

void msg_id_pool_set_tick_source(TickSource source) {
  g_tick_source.store(source, std::memory_order_release);
}

int32_t msg_id_pool_waiting_takers(msg_id_pool_t *pool) {
  MutexLock lock(pool->mutex);
  return pool->waiting_takers;
}

int32_t msg_id_pool_waiting_holders(msg_id_pool_t *pool) {
  MutexLock lock(pool->mutex);
  return pool->waiting_holders;
}

}  // namespace vemo

extern "C" VEMO_API msg_id_pool_t *msg_id_pool_init(int size) {
  if (size < 1) {
    LOG_PRINT("ERROR", "the size is not available");
    return nullptr;
  }
  LOG_PRINT("DEBUG", "begin to initialize the message id pool...");
  // Each slot carries its condition with it: one allocation for all of them, made here, so a
  // take never allocates more than its record.
  uint64_t bytes = static_cast<uint64_t>(size) * sizeof(vemo::Slot);
  void *slots_memory = bytes <= SIZE_MAX ? malloc(static_cast<size_t>(bytes)) : nullptr;
  if (slots_memory == nullptr) {
    LOG_PRINT("ERROR", "fail to malloc, size=%d", bytes > INT_MAX ? INT_MAX : static_cast<int>(bytes));
    return nullptr;
  }
  auto *slots = static_cast<vemo::Slot *>(slots_memory);
  for (int i = 0; i < size; ++i) new (&slots[i]) vemo::Slot{nullptr, {}, false, 0, vemo::kNone, vemo::kNone};
  void *pool_memory = malloc(sizeof(msg_id_pool_t));
  if (pool_memory == nullptr) {
    for (int i = 0; i < size; ++i) slots[i].~Slot();
    free(slots_memory);
    LOG_PRINT("ERROR", "fail to malloc, size=%d", static_cast<int>(sizeof(msg_id_pool_t)));
    return nullptr;
  }
  auto *pool = new (pool_memory) msg_id_pool_t();
  pool->max_size = size;
  {
    vemo::MutexLock lock(pool->mutex);
    pool->data = slots;
  }
  LOG_PRINT("DEBUG", "end to initialize the message id pool...");
  return pool;
}

extern "C" VEMO_API void msg_id_pool_destroy(msg_id_pool_t *pool) {
  if (pool == nullptr) {
    LOG_PRINT("ERROR", "the msg_id_pool_t is NULL");
    return;
  }
  LOG_PRINT("DEBUG", "begin to destroy the message id pool...");
  {
    vemo::MutexLock lock(pool->mutex);
    LOG_PRINT("DEBUG", "free the data in the message id pool");
    for (int32_t i = 0; i < pool->max_size; ++i) {
      vemo::Slot &slot = pool->data[i];
      vemo::wait_hook_done(pool, slot);
      free(slot.record);
      slot.record = nullptr;
      slot.~Slot();
    }
    free(pool->data);
    pool->data = nullptr;
  }
  pool->~msg_id_pool();
  free(pool);
  LOG_PRINT("DEBUG", "end to destroy the message id pool...");
}

extern "C" VEMO_API int msg_id_pool_get_max_size(msg_id_pool_t *pool) {
  if (pool == nullptr) {
    LOG_PRINT("ERROR", "the msg_id_pool_t is NULL");
    return 0;
  }
  return pool->max_size;
}

extern "C" VEMO_API msg_data_t *msg_id_pool_get_data(msg_id_pool_t *pool, int id) {
  if (!vemo::id_in_range(pool, id, __func__)) return nullptr;
  // The slot is read under the mutex because a take or a return may write it at this moment;
  // what the caller does with the record afterwards is bounded by its holder's return.
  vemo::MutexLock lock(pool->mutex);
  vemo::MsgRecord *record = pool->data[id - 1].record;
  return record != nullptr ? &record->data : nullptr;
}

extern "C" VEMO_API int msg_id_get_from_idle(msg_id_pool_t *pool, const msg_data_t *data) {
  // No bound: the wait ends when an id comes free, or when the pool is closed.
  return vemo::take(pool, data, nullptr, nullptr);
}

extern "C" VEMO_API void msg_id_put_to_idle(msg_id_pool_t *pool, int id) {
  // Frees the id at once, given up or not: the exported contract knows no quarantine.
  vemo::give_back(pool, id, false);
}
