// The synchronous wait of the response list. A waiting caller does not poll: it sleeps on a
// condition of its own that it hangs into its entry, and the delivery of that id wakes it alone.

#include <stdint.h>

#include "client/response_internal.h"
#include "client/response_list.h"
#include "client/response_probe.h"
#include "util/clock.h"
#include "util/sync.h"

namespace vemo {
namespace {

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

}  // namespace

int response_data_wait_response(response_list_t *list, int id, uint32_t start_tick,
                                int32_t timeout_ms, char **response) {
  if (!collect_args_ok(list, response)) return VEMO_ERR_INVALID_ARG;
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
      ResponseEntry *entry = list->index.find(id);
      if (entry == nullptr) {
        outcome = Outcome::kMissing;
        break;
      }
      if (entry->arrived) {
        take_out(list, entry);
        taken = entry;
        outcome = Outcome::kTaken;
        break;
      }
      Deadline deadline{start_tick, timeout_ms};
      uint32_t now = response_now_tick();
      if (deadline.expired(now)) {
        outcome = Outcome::kTimedOut;
        break;
      }
      attach_waiter(entry, &waiter);
      list->waiters += 1;
      waiter.woken.wait_for_ms(list->mutex, deadline.remaining_ms(now));
      list->waiters -= 1;
      detach_waiter(&waiter);
    }
  }
  switch (outcome) {
    case Outcome::kClosed:
      return VEMO_ERR_DISCONNECTED;
    case Outcome::kMissing:
      return report_missing(id);
    case Outcome::kTaken:
      return hand_over(taken, response);
    case Outcome::kTimedOut:
      break;
  }
  return VEMO_ERR_TIMEOUT;
}

void response_list_close(response_list_t *list) {
  if (list == nullptr) return;
  MutexLock lock(list->mutex);
  list->closed = true;
  for (ResponseEntry *entry = list->index.newest(); entry != nullptr; entry = entry->older) {
    wake_waiters(entry);
  }
}

int32_t response_list_waiters(response_list_t *list) {
  MutexLock lock(list->mutex);
  return list->waiters;
}

}  // namespace vemo
