// The message-id pool: ids 1..max_size handed out in rotation, one heap record per id in use.
// This file has the ids' lifecycle; the passing of answers to holders is in msg_id_answer.cc.
//
// Waiting is done on conditions, never by polling: a taker that finds every id in use sleeps on
// id_freed until an id is returned, a quarantine ends, or its deadline passes.
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
#include "client/msg_id_pool_state.h"
#include "util/clock.h"
#include "util/log_internal.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/util.h"

namespace vemo {
namespace {

std::atomic<TickSource> g_tick_source{nullptr};

}  // namespace

uint32_t msg_id_pool_now_tick() {
  TickSource source = g_tick_source.load(std::memory_order_acquire);
  return source != nullptr ? source() : get_tick_count();
}

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

void end_quarantine(msg_id_pool_t *pool, int32_t i) {
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

namespace {

int32_t quarantine_left_ms(const Slot &slot, uint32_t now) {
  int32_t elapsed = tick_elapsed(now, slot.quarantined_at);
  if (elapsed >= kIdQuarantineMs) return 0;
  return elapsed > 0 ? kIdQuarantineMs - elapsed : kIdQuarantineMs;
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
      // The clock is read only when it matters: a quarantine may have ended, or none is free.
      bool quarantines = pool->oldest_quarantined != kNone;
      uint32_t now = quarantines ? msg_id_pool_now_tick() : 0;
      if (quarantines) end_passed_quarantines(pool, now);
      // A free id is taken even past the deadline: the look comes before the clock.
      if (pool->used < pool->max_size) {
        id = store_in_free_slot(pool, record);
        // Several ids may have come free at once (quarantines ending together): pass it on.
        if (pool->used < pool->max_size && pool->waiting_takers > 0) pool->id_freed.signal();
        break;
      }
      if (!quarantines) now = msg_id_pool_now_tick();
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
      quarantine(pool, id - 1, msg_id_pool_now_tick());
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

void msg_id_pool_set_tick_source(TickSource source) {
  g_tick_source.store(source, std::memory_order_release);
}

int32_t msg_id_pool_waiting_takers(msg_id_pool_t *pool) {
  MutexLock lock(pool->mutex);
  return pool->waiting_takers;
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
