// The message-id pool: ids 1..max_size handed out in rotation, one heap record per id in use.
//
// Waiting is done on conditions, never by polling: a taker that finds every id in use sleeps on
// id_freed, and the holder of an id sleeps on its slot's own condition until the answer is
// written, so a delivery wakes exactly the thread that waits for it.

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <new>

#include "client/msg_id_pool_internal.h"
#include "client/msg_id_pool_probe.h"
#include "util/clock.h"
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
  bool answered;    // the first answer has come (the hook runs for it only)
  bool delivering;  // the hook runs outside the mutex: the holder and msg_id_put_to_idle wait
};

struct Slot {
  MsgRecord *record;  // null while the id is idle
  CondVar changed;    // the holder sleeps here; signalled on an answer, a hook's end, a close
};

}  // namespace
}  // namespace vemo

struct msg_id_pool {
  vemo::Mutex mutex;
  vemo::CondVar id_freed;
  int32_t max_size = 0;  // set at creation, never changed: read without the mutex
  int32_t next GUARDED_BY(mutex) = 0;
  int32_t used GUARDED_BY(mutex) = 0;
  vemo::Slot *data PT_GUARDED_BY(mutex) = nullptr;
  bool closed GUARDED_BY(mutex) = false;
  int32_t waiting_takers GUARDED_BY(mutex) = 0;
  int32_t waiting_holders GUARDED_BY(mutex) = 0;
};

namespace vemo {
namespace {

constexpr int kNotAnswered = VEMO_ERR_NOT_ARRIVED;

// The helpers below carry the names of the exported operations whose log lines they write: a
// log line names the function it stands in, and the client's lines must read exactly as the
// exported operations' do.

struct RangeCheck {};

// The argument test of the exported look-up, shared with the client's delivery.
bool msg_id_pool_get_data(const msg_id_pool_t *pool, int id, RangeCheck) {
  if (pool == nullptr) {
    LOG_PRINT("ERROR", "the msg_id_pool_t is NULL");
    return false;
  }
  if (id < 1 || id > pool->max_size) {
    LOG_PRINT("ERROR", "the message is out of range");
    return false;
  }
  return true;
}

// The take behind msg_id_get_from_idle and msg_id_take.
int msg_id_get_from_idle(msg_id_pool_t *pool, const msg_data_t *data, const MsgDeliverHook *hook) {
  if (pool == nullptr || data == nullptr) {
    LOG_PRINT("ERROR", "the msg_id_pool_t or msg_data_t is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  // Allocated before the lock is taken, so the mutex is never held across malloc.
  auto *record = static_cast<MsgRecord *>(malloc(sizeof(MsgRecord)));
  if (record == nullptr) {
    LOG_PRINT("ERROR", "fail to malloc, size=%d", static_cast<int>(sizeof(MsgRecord)));
    return VEMO_ERR_NO_RESOURCE;
  }
  record->data = *data;  // the caller's record is not referred to afterwards
  record->hook = hook != nullptr ? *hook : MsgDeliverHook{nullptr, nullptr};
  record->hook_status = 0;
  record->answered = false;
  record->delivering = false;

  int id = 0;
  {
    MutexLock lock(pool->mutex);
    // No upper bound: the wait ends when a holder returns an id, or when the pool is closed.
    while (!pool->closed && pool->used >= pool->max_size) {
      pool->waiting_takers += 1;
      pool->id_freed.wait(pool->mutex);
      pool->waiting_takers -= 1;
    }
    if (!pool->closed) {
      // Rotation: the search starts after the slot last handed out, so an id just returned is
      // not reused at once and a late answer for it cannot reach its next holder soon.
      int32_t i = pool->next;
      for (;;) {
        pool->next = (i + 1) % pool->max_size;
        if (pool->data[i].record == nullptr) break;
        i = pool->next;
      }
      pool->data[i].record = record;
      pool->used += 1;
      id = i + 1;
    }
  }
  if (id == 0) {
    free(record);
    return VEMO_ERR_DISCONNECTED;
  }
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

}  // namespace

int msg_id_take(msg_id_pool_t *pool, const msg_data_t *data, const MsgDeliverHook *hook) {
  return vemo::msg_id_get_from_idle(pool, data, hook);
}

int msg_id_deliver(msg_id_pool_t *pool, int id, int value) {
  if (!vemo::msg_id_pool_get_data(pool, id, RangeCheck{})) return VEMO_ERR_NOT_FOUND;
  pool->mutex.lock();
  Slot &slot = pool->data[id - 1];
  MsgRecord *record = slot.record;
  if (record == nullptr) {
    // A late answer: the holder gave the id back already. Nothing to write to.
    pool->mutex.unlock();
    return VEMO_ERR_NOT_FOUND;
  }
  bool run_hook = !record->answered && record->hook.fn != nullptr;
  record->answered = true;
  if (run_hook) {
    // The hook may take locks of its own and do I/O, so it runs unlocked. The record cannot go
    // away meanwhile: the holder, msg_id_put_to_idle and msg_id_pool_destroy all wait while
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
  // Broadcast: besides the holder, a msg_id_put_to_idle may be waiting for the hook's end.
  slot.changed.broadcast();
  pool->mutex.unlock();
  return VEMO_OK;
}

int msg_id_wait_result(msg_id_pool_t *pool, int id, uint32_t start_tick, int32_t timeout_ms,
                       int *hook_status) {
  if (hook_status != nullptr) *hook_status = 0;
  // A holder that gives up stops taking answers at once, not only when it returns the id: a
  // late acknowledgement must not run the hook (and, say, enter a request id in the response
  // list) for a sender that has already reported a failure.
  auto give_up = [](Slot &slot, int code) NO_THREAD_SAFETY_ANALYSIS {
    if (slot.record != nullptr && !slot.record->delivering) slot.record->answered = true;
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
  if (!vemo::msg_id_pool_get_data(pool, id, RangeCheck{})) return VEMO_ERR_NO_ANSWER;
  MutexLock lock(pool->mutex);
  Slot &slot = pool->data[id - 1];
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
    int64_t elapsed = tick_elapsed(get_tick_count(), start_tick);
    if (elapsed >= timeout_ms) return give_up(slot, VEMO_ERR_TIMEOUT);
    int64_t remaining = static_cast<int64_t>(timeout_ms) - elapsed;
    pool->waiting_holders += 1;
    slot.changed.wait_for_ms(pool->mutex,
                             static_cast<int32_t>(remaining > INT32_MAX ? INT32_MAX : remaining));
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
  for (int i = 0; i < size; ++i) new (&slots[i]) vemo::Slot{nullptr, {}};
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
  if (!vemo::msg_id_pool_get_data(pool, id, vemo::RangeCheck{})) return nullptr;
  // The slot is read under the mutex because a take or a return may write it at this moment;
  // what the caller does with the record afterwards is bounded by its holder's return.
  vemo::MutexLock lock(pool->mutex);
  vemo::MsgRecord *record = pool->data[id - 1].record;
  return record != nullptr ? &record->data : nullptr;
}

extern "C" VEMO_API int msg_id_get_from_idle(msg_id_pool_t *pool, const msg_data_t *data) {
  return vemo::msg_id_get_from_idle(pool, data, nullptr);
}

extern "C" VEMO_API void msg_id_put_to_idle(msg_id_pool_t *pool, int id) {
  if (pool == nullptr) {
    LOG_PRINT("ERROR", "the msg_id_pool_t is NULL");
    return;
  }
  if (id < 1 || id > pool->max_size) {
    LOG_PRINT("ERROR", "the message is out of range");
    return;
  }
  vemo::MsgRecord *record = nullptr;
  {
    vemo::MutexLock lock(pool->mutex);
    vemo::Slot &slot = pool->data[id - 1];
    // A holder that gave up without waiting (timeout 0) may return its id while a hook of it
    // still runs; the hook's ctx and the record must outlive it.
    vemo::wait_hook_done(pool, slot);
    record = slot.record;
    if (record == nullptr) return;  // returning an idle id changes nothing
    slot.record = nullptr;
    pool->used -= 1;
    // One id came free: one taker can have it.
    pool->id_freed.signal();
  }
  free(record);
}
