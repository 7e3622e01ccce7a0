// The receiving task, and what follows when its connection fails: the teardown and, for an
// application with registered handlers, the reconnection in the background.
#include <stdlib.h>

#include <algorithm>

#include "client/context.h"
#include "client/dispatch_internal.h"
#include "client/exchange.h"
#include "client/json_bounds.h"
#include "client/messages.h"
#include "ipc/frame_reader.h"
#include "util/log_internal.h"
#include "util/worker_pool.h"
#include "vemo/util.h"

namespace vemo {
namespace {

constexpr int kReceiveTurnMs = 50;
// Pauses between reconnection attempts: from the first, doubling up to the last. The first is
// short because a restarting daemon is usually back within a moment; the last keeps a device
// whose daemon is gone from spinning.
constexpr int kReconnectFirstPauseMs = 50;
constexpr int kReconnectMaxPauseMs = 5000;
constexpr int kAnnounceTimeoutMs = 5000;

void dispatch_received(const char *text, uint32_t length, Connection *conn) {
  int rc = 0;
  // A frame whose tree would cost far more than its bytes (a flood of tiny values or deep
  // nesting) is dropped before it is parsed; the stream is still in step.
  if (!json_within_bounds(text, length)) {
    LOG_PRINT_AS("dispatch_message", "ERROR", "the message is too complex to parse, size=%u",
                 length);
    rc = VEMO_ERR_BAD_FORMAT;
  } else {
    JsonPtr root(cJSON_Parse(text));
    if (!root) {
      LOG_PRINT_AS("dispatch_message", "ERROR", "fail to parse the message");
      rc = VEMO_ERR_BAD_FORMAT;
    } else {
      rc = dispatch_tree(root.get(), DispatchContext{conn, false});
    }
  }
  if (rc != 0) LOG_PRINT_AS("task_dispatch", "ERROR", "fail to dispatch the message, error=%d", rc);
}

// Connects again and announces the handlers, pausing ever longer between attempts, until it
// succeeds, the handlers are withdrawn, or the process exits.
void reconnect_in_background() {
  cloud_client_t &c = client();
  int pause_ms = kReconnectFirstPauseMs;
  for (int attempt = 1;; ++attempt) {
    {
      MutexLock hold(c.lock);
      if (!c.exiting.load(std::memory_order_acquire)) c.wake_tasks.wait_for_ms(c.lock, pause_ms);
    }
    HandlerSet handlers = client_handlers();
    if (!handlers.registered() || c.exiting.load(std::memory_order_acquire)) return;
    LOG_PRINT("INFO", "connect to the server again, attempt=%d", attempt);
    uint32_t generation = 0;
    int rc = client_announce(handlers.has_hello, Deadline::after_ms(kAnnounceTimeoutMs, get_tick_count()),
                             &generation);
    if (rc == 0) {
      LOG_PRINT("INFO", "the callback is registered again, attempt=%d", attempt);
      client_tell(VEMO_EVENT_REREGISTERED, 0);
      return;
    }
    pause_ms = std::min(pause_ms * 2, kReconnectMaxPauseMs);
  }
}

}  // namespace

void task_receive(void *arg) {
  Connection *conn = static_cast<Connection *>(arg);
  cloud_client_t &c = client();
  const uint32_t generation = c.generation.load(std::memory_order_acquire);
  LOG_PRINT("DEBUG", "begin the task to receive from the server...");
  int lost = 0;
  {
    FrameReader reader(conn->fd());
    while (client_serving(c, generation)) {
      const char *text = nullptr;
      uint32_t length = 0;
      int rc = reader.next(kReceiveTurnMs, &text, &length);
      if (rc == 0) {
        dispatch_received(text, length, conn);
        continue;
      }
      if (rc == VEMO_ERR_RECV_TIMEOUT) {
        // A handler thread that could not be started is tried again on every quiet turn (and
        // with every message), so queued messages are never stranded.
        if (handler_pool().retry()) {
          LOG_PRINT("WARN", "fail to create a task to dispatch the message, error=%d",
                    VEMO_ERR_NO_RESOURCE);
        }
        continue;
      }
      // A teardown shuts the socket down under us: that is not a failure worth a line.
      if (!client_serving(c, generation)) break;
      LOG_PRINT("ERROR", "fail to receive the message, error=%d", rc);
      lost = rc;
      break;
    }
  }
  LOG_PRINT("DEBUG", "end the task to receive from the server...");
  conn->unref();
  if (lost != 0) client_connection_lost(generation, lost);
}

void client_connection_lost(uint32_t generation, int code) {
  // Callers waiting on the dead connection are woken (VEMO_ERR_DISCONNECTED), pending responses
  // go with it, and the next call connects afresh. The classic client stayed "running" on a
  // dead socket until the process exited; this one recovers.
  LOG_PRINT("WARN", "the connection to the server is lost, error=%d", code);
  if (!client_tear_down_lost(generation)) return;
  client_tell(VEMO_EVENT_LOST, code);
  reconnect_in_background();
}

}  // namespace vemo
