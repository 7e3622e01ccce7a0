// Connection events told to the application (an extension). They run on a handler thread, one
// at a time and in the order they happened: events queue here, and a single runner on the
// handler pool tells them one after the other.
#include <stdlib.h>

#include "client/context.h"
#include "util/log_internal.h"
#include "util/worker_pool.h"
#include "vemo/util.h"
#include "vemo/vemo_ext.h"

namespace vemo {
namespace {

struct EventItem {
  EventItem *next;
  int event;
  int code;
};

// Guards the queue of events not yet told, and whether a runner is on its way.
Mutex g_events_mu;
EventItem *g_head GUARDED_BY(g_events_mu) = nullptr;
EventItem *g_tail GUARDED_BY(g_events_mu) = nullptr;
bool g_runner_queued GUARDED_BY(g_events_mu) = false;
Work g_runner;  // the one runner's work item; owned by the pool while g_runner_queued is set

void run_events(Work *) {
  cloud_client_t &c = client();
  for (;;) {
    EventItem *item = nullptr;
    {
      MutexLock hold(g_events_mu);
      item = g_head;
      if (item == nullptr) {
        g_runner_queued = false;
        return;
      }
      g_head = item->next;
      if (g_head == nullptr) g_tail = nullptr;
    }
    vemo_event_cb callback = nullptr;
    void *user = nullptr;
    {
      MutexLock hold(c.lock);
      callback = c.event_cb;
      user = c.event_user;
    }
    if (callback != nullptr) callback(item->event, item->code, user);
    free(item);
  }
}

}  // namespace

void client_tell(int event, int code) {
  cloud_client_t &c = client();
  {
    MutexLock hold(c.lock);
    if (c.event_cb == nullptr) return;
  }
  auto *item = static_cast<EventItem *>(malloc(sizeof(EventItem)));
  if (item == nullptr) {
    LOG_PRINT("ERROR", "fail to malloc, size=%d", static_cast<int>(sizeof(EventItem)));
    return;
  }
  *item = EventItem{nullptr, event, code};
  {
    MutexLock hold(g_events_mu);
    if (g_tail != nullptr) {
      g_tail->next = item;
    } else {
      g_head = item;
    }
    g_tail = item;
    if (g_runner_queued) return;  // the runner on its way tells this one too
    g_runner_queued = true;
    g_runner = Work{run_events, nullptr, sizeof(EventItem)};
  }
  bool failed_start = false;
  if (handler_pool().submit(&g_runner, &failed_start) != 0) {
    // The queue is full: the events wait for the next one that finds a free place.
    MutexLock hold(g_events_mu);
    g_runner_queued = false;
  }
}

}  // namespace vemo

extern "C" VEMO_API int vemo_set_event_callback(vemo_event_cb callback, void *user) {
  vemo::cloud_client_t &c = vemo::client();
  vemo::MutexLock hold(c.lock);
  c.event_cb = callback;
  c.event_user = user;
  return VEMO_OK;
}
