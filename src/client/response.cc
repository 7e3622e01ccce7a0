// The response list: cloud responses by request id, pending until they arrive, then kept for
// their timeout_ms until collected.
//
// The entries sit in an index (response_index.h) that finds an id without walking the list and
// keeps the entries ordered by the tick at which they run out, so the sweep of the timeout task
// looks only at the entries that are due. The synchronous wait is in response_wait.cc.

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <new>

#include "client/response_internal.h"
#include "client/response_list.h"
#include "client/response_probe.h"
#include "util/clock.h"
#include "client/texts.h"
#include "util/log_internal.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/util.h"

namespace vemo {
namespace {

std::atomic<TickSource> g_tick_source{nullptr};

// Exported names under which helpers log: a line names the operation it stands for.
constexpr const char *kCollect = "response_data_get_response";
constexpr const char *kClear = "response_data_clear";

// For an entry that has just been removed: its waiters must not refer to it any more, and they
// look again at once (they find a replacement, or report the id as gone).
void release_waiters(ResponseEntry *entry) {
  ResponseWaiter *w = entry->waiters;
  entry->waiters = nullptr;
  while (w != nullptr) {
    ResponseWaiter *next = w->next;
    w->entry = nullptr;
    w->next = nullptr;
    w->woken.signal();
    w = next;
  }
}

void free_entry(ResponseEntry *entry) {
  free(entry->response);
  free(entry);
}

}  // namespace

uint32_t response_now_tick() {
  TickSource source = g_tick_source.load(std::memory_order_acquire);
  return source != nullptr ? source() : get_tick_count();
}

void wake_waiters(ResponseEntry *entry) {
  for (ResponseWaiter *w = entry->waiters; w != nullptr; w = w->next) w->woken.signal();
}

void take_out(response_list_t *list, ResponseEntry *entry) {
  list->index.remove(entry);
  release_waiters(entry);
}

bool collect_args_ok(response_list_t *list, char **response) {
  if (list == nullptr || response == nullptr || *response != nullptr) {
    LOG_PRINT_AS(kCollect, "WARN", "the list or response is NULL, or *response is not NULL");
    return false;
  }
  return true;
}

int report_missing(int id) {
  LOG_PRINT_AS(kCollect, "ERROR", "can not find the message id, id=%d", id);
  return VEMO_ERR_NOT_FOUND;
}

// The entry's text is already a private heap copy, so it is handed over rather than copied
// once more.
int hand_over(ResponseEntry *taken, char **response) {
  char *text = taken->response;
  const int code = taken->code;
  taken->response = nullptr;
  free_entry(taken);
  if (code != 0) return code;  // the cloud failed the request: its code, and no text
  if (text == nullptr) {
    // The copy failed when the response was stored: the response is lost.
    LOG_PRINT_AS(kCollect, "ERROR", "fail to get the response");
    return VEMO_ERR_NO_RESOURCE;
  }
  *response = text_hand_out(text);  // the application's now, whichever free() it calls
  return VEMO_OK;
}

namespace {

void log_alloc_failure(const char *function, size_t bytes) {
  LOG_PRINT_AS(function, "ERROR", "fail to malloc, size=%d",
               bytes > INT_MAX ? INT_MAX : static_cast<int>(bytes));
}

// Puts an index of capacity slots in place, allocated while the lock is not held. A resize that
// another thread made meanwhile wins: the new block is then dropped. False when memory is short.
bool resize_index(response_list_t *list, int32_t capacity, bool grow) {
  size_t bytes = capacity > 0 ? ResponseIndex::block_bytes(capacity) : 0;
  void *block = bytes != 0 ? malloc(bytes) : nullptr;
  if (block == nullptr) return false;
  void *unused = block;
  {
    MutexLock lock(list->mutex);
    int32_t current = list->index.capacity();
    bool suits = grow ? capacity > current
                      : capacity < current && list->index.count() * 2 <= capacity;
    if (suits) unused = list->index.adopt(block, capacity);
  }
  free(unused);
  return true;
}

// The capacity to shrink to: an index at most an eighth full halves until it is more than an
// eighth and at most a quarter full. Growth doubles a full index, so the two never chase each
// other, and a list that once held a burst gives the memory back.
int32_t shrunk_capacity(const ResponseIndex &index) {
  int32_t target = index.capacity();
  while (target > ResponseIndex::kMinCapacity && index.count() * 8 <= target) target /= 2;
  return target;
}

enum class Sweep { kEverything, kArrivedDue, kAllDue };

// Removes what `what` names, and logs each removal newest first (the order of the list) once
// the lock is released, so that a slow output never holds up a delivery. An arrived entry is
// due once timeout_ms have passed since its arrival; a pending one once timeout_ms and then
// pending_grace_ms have passed since it was added. This is the rule of a walk over the list
// (elapsed time since arrival, read as a signed 32-bit difference, at least timeout_ms) as
// long as an entry has waited less than 2^31 ms (24.8 days); an entry older than that, which
// the walk would keep until the counter came round again, is removed.
void sweep(response_list_t *list, Sweep what, int32_t pending_grace_ms) {
  ResponseEntry *removed = nullptr;
  uint32_t now = 0;
  int32_t shrink_to = 0;
  {
    MutexLock lock(list->mutex);
    ResponseIndex &index = list->index;
    now = response_now_tick();
    if (what == Sweep::kEverything) {
      ResponseEntry **tail = &removed;
      while (ResponseEntry *entry = index.newest()) {
        take_out(list, entry);
        *tail = entry;
        tail = &entry->older;
      }
    } else {
      // The due ticks of each heap are in order: the sweep stops at the first that is not due.
      ResponseEntry *entry;
      while ((entry = index.first_due(true)) != nullptr && tick_elapsed(now, entry->due) >= 0) {
        if (index.postpone(entry)) continue;
        take_out(list, entry);
        entry->older = removed;
        removed = entry;
      }
      while (what == Sweep::kAllDue && (entry = index.first_due(false)) != nullptr &&
             tick_elapsed(now, entry->due) >= pending_grace_ms) {
        if (index.postpone(entry)) continue;
        take_out(list, entry);
        entry->older = removed;
        removed = entry;
      }
      removed = ResponseIndex::sort_newest_first(removed);
    }
    shrink_to = shrunk_capacity(index);
    if (shrink_to == index.capacity()) shrink_to = 0;
  }
  while (removed != nullptr) {
    ResponseEntry *next = removed->older;
    if (what != Sweep::kEverything && removed->arrived) {
      LOG_PRINT_AS(kClear, "DEBUG", "response info, id=%d, time out=%d ms, time spend=%d ms",
                   removed->id, removed->timeout_ms, tick_elapsed(now, removed->recv_tick));
    } else if (what != Sweep::kEverything) {
      LOG_PRINT_AS(kClear, "DEBUG", "no response has arrived, id=%d, time out=%d ms, time spend=%d ms",
                   removed->id, removed->timeout_ms, tick_elapsed(now, removed->added_tick));
    }
    LOG_PRINT_AS(kClear, "DEBUG", "clear the message id, id=%d", removed->id);
    free_entry(removed);
    removed = next;
  }
  // Memory is short if this fails; the larger index then simply stays.
  if (shrink_to != 0) resize_index(list, shrink_to, false);
}

}  // namespace

void response_data_remove(response_list_t *list, int id) {
  if (list == nullptr) {
    LOG_PRINT("WARN", "the list is NULL");
    return;
  }
  ResponseEntry *entry = nullptr;
  {
    MutexLock lock(list->mutex);
    entry = list->index.find(id);
    if (entry != nullptr) take_out(list, entry);
  }
  if (entry == nullptr) return;  // collected, cleared or never added: nothing to tell
  // Logged like every other removal of an uncollected entry: a late response for this id logs
  // "can not find the message id", and this line tells the reader why.
  LOG_PRINT("DEBUG", "clear the message id, id=%d", id);
  free_entry(entry);
}

void response_data_expire(response_list_t *list, int32_t pending_grace_ms) {
  if (list == nullptr) {
    LOG_PRINT_AS(kClear, "WARN", "the list is NULL");
    return;
  }
  sweep(list, Sweep::kAllDue, pending_grace_ms);
}

void response_list_set_tick_source(TickSource source) {
  g_tick_source.store(source, std::memory_order_release);
}

int32_t response_list_capacity(response_list_t *list) {
  MutexLock lock(list->mutex);
  return list->index.capacity();
}

}  // namespace vemo

extern "C" VEMO_API response_list_t *response_list_init(void) {
  void *memory = malloc(sizeof(response_list_t));
  if (memory == nullptr) {
    vemo::log_alloc_failure(__func__, sizeof(response_list_t));
    return nullptr;
  }
  size_t bytes = vemo::ResponseIndex::block_bytes(vemo::ResponseIndex::kMinCapacity);
  void *block = malloc(bytes);
  if (block == nullptr) {
    free(memory);
    vemo::log_alloc_failure(__func__, bytes);
    return nullptr;
  }
  auto *list = new (memory) response_list_t();
  vemo::MutexLock lock(list->mutex);
  list->index.start(block, vemo::ResponseIndex::kMinCapacity);
  return list;
}

extern "C" VEMO_API int response_data_add(response_list_t *list, int id, int timeout_ms,
                                          vemo_response_cb callback) {
  return vemo::response_data_add_with(list, id, timeout_ms, vemo::ResponseCallbacks{callback, nullptr, nullptr});
}

int vemo::response_data_add_with(response_list_t *list, int id, int timeout_ms,
                                 const ResponseCallbacks &callbacks) {
  static const char kAdd[] = "response_data_add";  // the lines name the exported operation
  if (list == nullptr) {
    LOG_PRINT_AS(kAdd, "WARN", "the list is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  auto *entry = static_cast<vemo::ResponseEntry *>(malloc(sizeof(vemo::ResponseEntry)));
  if (entry == nullptr) {
    vemo::log_alloc_failure(kAdd, sizeof(vemo::ResponseEntry));
    return VEMO_ERR_NO_RESOURCE;
  }
  *entry = vemo::ResponseEntry{};
  entry->id = id;
  entry->timeout_ms = timeout_ms;
  entry->callback = callbacks.classic;
  entry->callback_ex = callbacks.ex;
  entry->user = callbacks.user;
  entry->added_tick = vemo::response_now_tick();
  for (;;) {
    vemo::ResponseEntry *old = nullptr;
    int32_t grow_to = 0;
    {
      vemo::MutexLock lock(list->mutex);
      // At most one entry per id: the new one replaces the old (which also makes room for it).
      old = list->index.find(id);
      if (old != nullptr) vemo::take_out(list, old);
      if (!list->index.full()) {
        list->index.insert(entry);
      } else {
        int32_t capacity = list->index.capacity();
        grow_to = capacity <= INT32_MAX / 2 ? capacity * 2 : 0;
      }
    }
    if (old != nullptr) vemo::free_entry(old);
    if (grow_to == 0) return VEMO_OK;
    // Full: the index doubles, allocated with the lock released, and the add tries again.
    if (!vemo::resize_index(list, grow_to, true)) {
      free(entry);
      vemo::log_alloc_failure(kAdd, vemo::ResponseIndex::block_bytes(grow_to));
      return VEMO_ERR_NO_RESOURCE;
    }
  }
}

int vemo::response_data_deliver(response_list_t *list, int id, const char *response,
                                ResponseCallbacks *callbacks) {
  *callbacks = ResponseCallbacks{};
  if (list == nullptr || response == nullptr) {
    LOG_PRINT_AS("response_data_set_response", "WARN", "the list or response is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  // Copied before the lock is taken so that no allocation runs under it. A failed copy is not
  // logged here: it leaves the entry without text, and its collector reports the loss.
  char *copy = copy_string(response);
  char *previous = nullptr;
  bool found = false;
  {
    vemo::MutexLock lock(list->mutex);
    vemo::ResponseEntry *entry = list->index.find(id);
    if (entry != nullptr) {
      found = true;
      previous = entry->response;
      entry->response = copy;
      // The latest answer wins, as between two responses: a response after the cloud's failure
      // of the same id clears that code (else the collector would get the code and its text
      // would never be freed).
      entry->code = 0;
      list->index.arrive(entry, vemo::response_now_tick());
      // Read now: once it has arrived, a collector may free the entry as soon as we unlock.
      *callbacks = ResponseCallbacks{entry->callback, entry->callback_ex, entry->user};
      vemo::wake_waiters(entry);
    }
  }
  if (!found) {
    free(copy);
    LOG_PRINT_AS("response_data_set_response", "ERROR", "can not find the message id, id=%d", id);
    return VEMO_ERR_NOT_FOUND;
  }
  free(previous);
  return VEMO_OK;
}

extern "C" VEMO_API int response_data_set_response(response_list_t *list, int id,
                                                   const char *response) {
  vemo::ResponseCallbacks callbacks;
  int rc = vemo::response_data_deliver(list, id, response, &callbacks);
  // Unlocked: the callback may collect its own response (vemo_get_response) right here.
  if (rc == 0 && callbacks.classic != nullptr) callbacks.classic(id, response);
  if (rc == 0 && callbacks.ex != nullptr) callbacks.ex(id, 0, response, callbacks.user);
  return rc;
}

bool vemo::response_data_fail(response_list_t *list, int id, int code, ResponseCallbacks *callbacks) {
  *callbacks = ResponseCallbacks{};
  if (list == nullptr) return false;
  char *previous = nullptr;
  {
    vemo::MutexLock lock(list->mutex);
    vemo::ResponseEntry *entry = list->index.find(id);
    if (entry == nullptr) return false;
    previous = entry->response;
    entry->response = nullptr;
    entry->code = code;
    list->index.arrive(entry, vemo::response_now_tick());
    *callbacks = ResponseCallbacks{nullptr, entry->callback_ex, entry->user};
    vemo::wake_waiters(entry);
  }
  free(previous);
  return true;
}

extern "C" VEMO_API int response_data_get_response(response_list_t *list, int id, char **response) {
  if (!vemo::collect_args_ok(list, response)) return VEMO_ERR_INVALID_ARG;
  vemo::ResponseEntry *entry = nullptr;
  {
    vemo::MutexLock lock(list->mutex);
    entry = list->index.find(id);
    if (entry != nullptr && !entry->arrived) return VEMO_ERR_NOT_ARRIVED;  // stays in the list
    // Another thread waiting for this id learns at once that it is gone.
    if (entry != nullptr) vemo::take_out(list, entry);
  }
  if (entry == nullptr) return vemo::report_missing(id);
  return vemo::hand_over(entry, response);
}

extern "C" VEMO_API void response_data_clear(response_list_t *list, int all) {
  if (list == nullptr) {
    LOG_PRINT("WARN", "the list is NULL");
    return;
  }
  // A pending entry never expires here; response_data_expire is the one that also ends those.
  vemo::sweep(list, all != 0 ? vemo::Sweep::kEverything : vemo::Sweep::kArrivedDue, 0);
}

extern "C" VEMO_API void response_list_destroy(response_list_t *list) {
  if (list == nullptr) {
    LOG_PRINT("WARN", "the list is NULL");
    return;
  }
  response_data_clear(list, 1);
  {
    vemo::MutexLock lock(list->mutex);
    free(list->index.stop());
  }
  list->~response_list();
  free(list);
}
