// The response list: cloud responses by request id, newest first, each pending until it
// arrives and then kept for its timeout_ms until collected.
//
// A synchronous caller does not poll: it sleeps on a condition of its own that it hangs into
// its entry, and the delivery of that id wakes it alone.

#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <new>

#include "client/response_internal.h"
#include "client/response_probe.h"
#include "util/clock.h"
#include "util/log_internal.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/util.h"

namespace vemo {
namespace {

struct ResponseEntry;

// A thread waiting for the response of one id; lives on that thread's stack.
struct ResponseWaiter {
  CondVar woken;
  ResponseEntry *entry = nullptr;  // the entry it hangs in; null once that entry was removed
  ResponseWaiter *next = nullptr;  // the entry's other waiters
};

// Every field is guarded by the list's mutex while the entry is linked; an unlinked entry
// belongs to the thread that unlinked it.
struct ResponseEntry {
  uint32_t recv_tick;
  // Kept apart from recv_tick: the tick counter does read 0 (after a wrap, or when the clock
  // cannot be read), and a response stored at that moment has arrived all the same.
  bool arrived;
  int32_t timeout_ms;
  int id;
  char *response;
  vemo_response_cb callback;
  ResponseEntry *next;
  ResponseWaiter *waiters;
};

std::atomic<TickSource> g_tick_source{nullptr};

uint32_t now_tick() {
  TickSource source = g_tick_source.load(std::memory_order_acquire);
  return source != nullptr ? source() : get_tick_count();
}

}  // namespace
}  // namespace vemo

struct response_list {
  vemo::Mutex mutex;
  vemo::ResponseEntry *head GUARDED_BY(mutex) = nullptr;
  bool closed GUARDED_BY(mutex) = false;
  int32_t waiters GUARDED_BY(mutex) = 0;
};

namespace vemo {
namespace {

enum class Removal { kNever, kAlways, kIfArrived };

// The one look-up of the list: the first entry of id, unlinked when removal says so.
ResponseEntry *response_list_find(response_list_t *list, int id, Removal removal)
    REQUIRES(list->mutex) {
  for (ResponseEntry **link = &list->head; *link != nullptr; link = &(*link)->next) {
    ResponseEntry *entry = *link;
    if (entry->id != id) continue;
    if (removal == Removal::kAlways || (removal == Removal::kIfArrived && entry->arrived)) {
      *link = entry->next;
      entry->next = nullptr;
    }
    return entry;
  }
  return nullptr;
}

void wake_waiters(ResponseEntry *entry) {
  for (ResponseWaiter *w = entry->waiters; w != nullptr; w = w->next) w->woken.signal();
}

// For an entry that has just been unlinked: its waiters must not refer to it any more, and
// they look again at once (they find a replacement, or report the id as gone).
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

void attach_waiter(ResponseEntry *entry, ResponseWaiter *waiter) {
  waiter->entry = entry;
  waiter->next = entry->waiters;
  entry->waiters = waiter;
}

void detach_waiter(ResponseWaiter *waiter) {
  if (waiter->entry == nullptr) return;
  for (ResponseWaiter **link = &waiter->entry->waiters; *link != nullptr; link = &(*link)->next) {
    if (*link == waiter) {
      *link = waiter->next;
      break;
    }
  }
  waiter->entry = nullptr;
  waiter->next = nullptr;
}

void free_entry(ResponseEntry *entry) {
  free(entry->response);
  free(entry);
}

// The helpers below carry the name of the exported collection whose log lines they write: a
// log line names the function it stands in, and the synchronous wait must log exactly as the
// collection does.

struct ArgCheck {};
struct Missing {};

bool response_data_get_response(ArgCheck, response_list_t *list, char **response) {
  if (list == nullptr || response == nullptr || *response != nullptr) {
    LOG_PRINT("WARN", "the list or response is NULL, or *response is not NULL");
    return false;
  }
  return true;
}

int response_data_get_response(Missing, int id) {
  LOG_PRINT("ERROR", "can not find the message id, id=%d", id);
  return VEMO_ERR_NOT_FOUND;
}

// Hands the text of an unlinked, arrived entry to the caller and frees the entry. The entry's
// text is already a private heap copy, so it is handed over rather than copied once more.
int response_data_get_response(ResponseEntry *taken, char **response) {
  char *text = taken->response;
  taken->response = nullptr;
  free_entry(taken);
  if (text == nullptr) {
    // The copy failed when the response was stored: the response is lost.
    LOG_PRINT("ERROR", "fail to get the response");
    return VEMO_ERR_NO_RESOURCE;
  }
  *response = text;
  return VEMO_OK;
}

}  // namespace

int response_data_wait_response(response_list_t *list, int id, uint32_t start_tick,
                                int32_t timeout_ms, char **response) {
  if (!vemo::response_data_get_response(ArgCheck{}, list, response)) return VEMO_ERR_INVALID_ARG;
  enum class Outcome { kClosed, kMissing, kTaken, kTimedOut } outcome;
  ResponseEntry *taken = nullptr;
  ResponseWaiter waiter;
  {
    MutexLock lock(list->mutex);
    for (;;) {
      if (list->closed) {
        outcome = Outcome::kClosed;
        break;
      }
      // The look comes before the clock: a response that is there is never reported late.
      ResponseEntry *entry = response_list_find(list, id, Removal::kIfArrived);
      if (entry == nullptr) {
        outcome = Outcome::kMissing;
        break;
      }
      if (entry->arrived) {
        release_waiters(entry);
        taken = entry;
        outcome = Outcome::kTaken;
        break;
      }
      int64_t elapsed = tick_elapsed(now_tick(), start_tick);
      if (elapsed >= timeout_ms) {
        outcome = Outcome::kTimedOut;
        break;
      }
      int64_t remaining = static_cast<int64_t>(timeout_ms) - elapsed;
      attach_waiter(entry, &waiter);
      list->waiters += 1;
      waiter.woken.wait_for_ms(list->mutex,
                               static_cast<int32_t>(remaining > INT32_MAX ? INT32_MAX : remaining));
      list->waiters -= 1;
      detach_waiter(&waiter);
    }
  }
  switch (outcome) {
    case Outcome::kClosed:
      return VEMO_ERR_DISCONNECTED;
    case Outcome::kMissing:
      return vemo::response_data_get_response(Missing{}, id);
    case Outcome::kTaken:
      return vemo::response_data_get_response(taken, response);
    case Outcome::kTimedOut:
      break;
  }
  return VEMO_ERR_TIMEOUT;
}

void response_list_close(response_list_t *list) {
  if (list == nullptr) return;
  MutexLock lock(list->mutex);
  list->closed = true;
  for (ResponseEntry *entry = list->head; entry != nullptr; entry = entry->next) wake_waiters(entry);
}

void response_list_set_tick_source(TickSource source) {
  g_tick_source.store(source, std::memory_order_release);
}

int32_t response_list_waiters(response_list_t *list) {
  MutexLock lock(list->mutex);
  return list->waiters;
}

}  // namespace vemo

extern "C" VEMO_API response_list_t *response_list_init(void) {
  void *memory = malloc(sizeof(response_list_t));
  if (memory == nullptr) {
    LOG_PRINT("ERROR", "fail to malloc, size=%d", static_cast<int>(sizeof(response_list_t)));
    return nullptr;
  }
  return new (memory) response_list_t();
}

extern "C" VEMO_API int response_data_add(response_list_t *list, int id, int timeout_ms,
                                          vemo_response_cb callback) {
  if (list == nullptr) {
    LOG_PRINT("WARN", "the list is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  auto *entry = static_cast<vemo::ResponseEntry *>(malloc(sizeof(vemo::ResponseEntry)));
  if (entry == nullptr) {
    LOG_PRINT("ERROR", "fail to malloc, size=%d", static_cast<int>(sizeof(vemo::ResponseEntry)));
    return VEMO_ERR_NO_RESOURCE;
  }
  *entry = vemo::ResponseEntry{0, false, timeout_ms, id, nullptr, callback, nullptr, nullptr};
  vemo::ResponseEntry *old = nullptr;
  {
    vemo::MutexLock lock(list->mutex);
    // At most one entry per id: the new one replaces the old.
    old = vemo::response_list_find(list, id, vemo::Removal::kAlways);
    if (old != nullptr) vemo::release_waiters(old);
    entry->next = list->head;
    list->head = entry;
  }
  if (old != nullptr) vemo::free_entry(old);
  return VEMO_OK;
}

int vemo::response_data_deliver(response_list_t *list, int id, const char *response,
                                vemo_response_cb *callback) {
  *callback = nullptr;
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
    vemo::ResponseEntry *entry = vemo::response_list_find(list, id, vemo::Removal::kNever);
    if (entry != nullptr) {
      found = true;
      previous = entry->response;
      entry->response = copy;
      entry->recv_tick = vemo::now_tick();
      entry->arrived = true;
      // Read now: once arrived is set, a collector may free the entry as soon as we unlock.
      *callback = entry->callback;
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
  vemo_response_cb callback = nullptr;
  int rc = vemo::response_data_deliver(list, id, response, &callback);
  // Unlocked: the callback may collect its own response (vemo_get_response) right here.
  if (rc == 0 && callback != nullptr) callback(id, response);
  return rc;
}

extern "C" VEMO_API int response_data_get_response(response_list_t *list, int id, char **response) {
  if (!vemo::response_data_get_response(vemo::ArgCheck{}, list, response)) {
    return VEMO_ERR_INVALID_ARG;
  }
  vemo::ResponseEntry *entry = nullptr;
  {
    vemo::MutexLock lock(list->mutex);
    entry = vemo::response_list_find(list, id, vemo::Removal::kIfArrived);
    if (entry != nullptr && !entry->arrived) return VEMO_ERR_NOT_ARRIVED;  // stays in the list
    // Another thread waiting for this id learns at once that it is gone.
    if (entry != nullptr) vemo::release_waiters(entry);
  }
  if (entry == nullptr) return vemo::response_data_get_response(vemo::Missing{}, id);
  return vemo::response_data_get_response(entry, response);
}

extern "C" VEMO_API void response_data_clear(response_list_t *list, int all) {
  if (list == nullptr) {
    LOG_PRINT("WARN", "the list is NULL");
    return;
  }
  // Removed entries are chained here and freed once the mutex is released.
  vemo::ResponseEntry *removed = nullptr;
  {
    vemo::MutexLock lock(list->mutex);
    uint32_t now = vemo::now_tick();
    vemo::ResponseEntry **link = &list->head;
    while (*link != nullptr) {
      vemo::ResponseEntry *entry = *link;
      if (all == 0) {
        // Expiry counts from arrival: a pending entry never expires.
        if (!entry->arrived) {
          link = &entry->next;
          continue;
        }
        int32_t elapsed = vemo::tick_elapsed(now, entry->recv_tick);
        if (elapsed < entry->timeout_ms) {
          link = &entry->next;
          continue;
        }
        LOG_PRINT("DEBUG", "response info, id=%d, time out=%d ms, time spend=%d ms", entry->id,
                  entry->timeout_ms, elapsed);
      }
      *link = entry->next;
      LOG_PRINT("DEBUG", "clear the message id, id=%d", entry->id);
      vemo::release_waiters(entry);
      entry->next = removed;
      removed = entry;
    }
  }
  while (removed != nullptr) {
    vemo::ResponseEntry *next = removed->next;
    vemo::free_entry(removed);
    removed = next;
  }
}

extern "C" VEMO_API void response_list_destroy(response_list_t *list) {
  if (list == nullptr) {
    LOG_PRINT("WARN", "the list is NULL");
    return;
  }
  response_data_clear(list, 1);
  list->~response_list();
  free(list);
}
