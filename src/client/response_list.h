// The state of a response list, shared by its operations (response.cc) and its synchronous
// wait (response_wait.cc). Nothing else includes this.
#ifndef VEMO_CLIENT_RESPONSE_LIST_H
#define VEMO_CLIENT_RESPONSE_LIST_H

#include <stdint.h>

#include "client/response_index.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/response.h"

namespace vemo {

// A thread waiting for the response of one id; lives on that thread's stack. Guarded by the
// list's mutex.
struct ResponseWaiter {
  CondVar woken;
  ResponseEntry *entry = nullptr;  // the entry it hangs in; null once that entry was removed
  ResponseWaiter *next = nullptr;  // the entry's other waiters
};

}  // namespace vemo

struct response_list {
  vemo::Mutex mutex;
  vemo::ResponseIndex index GUARDED_BY(mutex);
  bool closed GUARDED_BY(mutex) = false;
  int32_t waiters GUARDED_BY(mutex) = 0;
};

namespace vemo {

// The lists' clock: get_tick_count, unless a test replaced it.
uint32_t response_now_tick();

// Wakes the waiters of entry, which stays in the list.
void wake_waiters(ResponseEntry *entry);

// Takes entry out of the index and releases its waiters (they look again at once); the caller
// owns the entry from now on.
void take_out(response_list_t *list, ResponseEntry *entry) REQUIRES(list->mutex);

// The parts of response_data_get_response that the synchronous wait shares, logged under
// that operation's name: the argument check, the report of an unknown id (VEMO_ERR_NOT_FOUND),
// and the hand-over of a taken entry's text to the caller, which frees the entry.
bool collect_args_ok(response_list_t *list, char **response);
int report_missing(int id);
int hand_over(ResponseEntry *taken, char **response);

}  // namespace vemo

#endif
