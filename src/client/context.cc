#include "client/context.h"

#include <pthread.h>
#include <stdlib.h>

#include <new>

#include "client/msg_id_pool_internal.h"
#include "client/response_internal.h"
#include "util/task_pool_internal.h"
#include "util/worker_pool.h"
#include "vemo/util.h"

namespace vemo {
namespace {

// At exit, handlers still running get this long to finish (and send their answers) before the
// connection goes; one that never returns does not hold the process's exit up any longer.
constexpr int kExitHandlerWaitMs = 1000;

pthread_once_t g_client_once = PTHREAD_ONCE_INIT;
alignas(cloud_client_t) unsigned char g_client_storage[sizeof(cloud_client_t)];

// pthread_once rather than a function-local static: no C++ runtime guard is needed.
void make_client() { new (g_client_storage) cloud_client_t(); }

void set_state(cloud_client_t &c, ClientState state) REQUIRES(c.lock) {
  c.state = state;
  c.state_changed.broadcast();
}

void forget_handlers(cloud_client_t &c) REQUIRES(c.lock) {
  c.handlers = HandlerSet();
  c.handlers_epoch += 1;
}

// Takes the Stopping state for a teardown of generation (any, when generation is null).
// False when another teardown got there first or the client is not running.
bool begin_teardown(cloud_client_t &c, const uint32_t *generation) {
  MutexLock hold(c.lock);
  // The receiving task runs before the start-up has quite finished: an order read in that
  // window waits for the start-up to end. It cannot deadlock: once the receiving task has
  // started, the start-up can no longer fail, and it holds the lock only to publish its state.
  while (c.state == ClientState::kStarting) c.state_changed.wait(c.lock);
  if (c.state != ClientState::kRunning) return false;
  if (generation != nullptr && *generation != c.generation.load(std::memory_order_acquire)) {
    return false;
  }
  set_state(c, ClientState::kStopping);
  return true;
}

void end_teardown(cloud_client_t &c) {
  MutexLock hold(c.lock);
  set_state(c, ClientState::kIdle);
}

}  // namespace

cloud_client_t &client() {
  pthread_once(&g_client_once, make_client);
  return *reinterpret_cast<cloud_client_t *>(g_client_storage);
}

HandlerSet client_handlers() {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  return c.handlers;
}

int client_acquire(const Deadline &deadline, uint32_t *generation) {
  cloud_client_t &c = client();
  if (client_starting_here()) return VEMO_ERR_DISCONNECTED;
  MutexLock hold(c.lock);
  // A start-up or a teardown in progress is waited out (a task of the pool being torn down
  // cannot wait for its own teardown); the caller may then start the client afresh.
  while (c.state == ClientState::kStarting ||
         (c.state == ClientState::kStopping && !task_pool_is_own_thread(c.task_pool))) {
    int32_t left = deadline.remaining_ms(get_tick_count());
    if (left <= 0) return VEMO_ERR_TIMEOUT;
    c.state_changed.wait_for_ms(c.lock, left);
  }
  if (c.state != ClientState::kRunning) return VEMO_ERR_DISCONNECTED;
  ++c.users;
  if (generation != nullptr) *generation = c.generation.load(std::memory_order_acquire);
  return 0;
}

void client_release() {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  if (--c.users == 0) c.state_changed.broadcast();
}

void client_destroy(Teardown why) {
  cloud_client_t &c = client();
  LOG_PRINT("DEBUG", "begin to destroy the client...");
  c.running.store(0, std::memory_order_release);
  {
    MutexLock hold(c.lock);
    c.wake_tasks.broadcast();
  }
  // End all traffic at once: a receive blocked in the middle of a frame, or a send blocked on a
  // daemon that stopped reading, returns now instead of holding the teardown up.
  if (c.conn != nullptr) c.conn->shut();
  // Wake every sender and synchronous waiter; they return VEMO_ERR_DISCONNECTED.
  if (c.msg_id_pool != nullptr) msg_id_pool_close(c.msg_id_pool);
  if (c.response_list != nullptr) response_list_close(c.response_list);
  if (c.task_pool != nullptr) {
    LOG_PRINT("DEBUG", "destroy the task pool");
    task_pool_destroy(c.task_pool);  // the two tasks only; never the calling one
  }
  {
    MutexLock hold(c.lock);
    while (c.users > 0) c.state_changed.wait(c.lock);
  }
  if (c.response_list != nullptr) {
    LOG_PRINT("DEBUG", "destroy the response list");
    response_list_destroy(c.response_list);
  }
  if (c.msg_id_pool != nullptr) {
    LOG_PRINT("DEBUG", "destroy the message id pool");
    msg_id_pool_destroy(c.msg_id_pool);
  }
  if (c.conn != nullptr) {
    LOG_PRINT("DEBUG", "close the client file description");
    // Handlers still answering hold references of their own: the descriptor closes with the last.
    c.conn->unref();
  }
  {
    // Reset under the lock: threads waiting for this teardown look at the fields as they wake.
    MutexLock hold(c.lock);
    // A lost connection keeps the handlers for the reconnection, and so does a failed start-up
    // (the reconnection may be the one that failed; a registration that fails clears its own).
    if (why == Teardown::kOrdered) c.wiped_epoch = c.handlers_epoch;
    if (why == Teardown::kOrdered || why == Teardown::kExit) forget_handlers(c);
    c.conn = nullptr;
    c.msg_id_pool = nullptr;
    c.task_pool = nullptr;
    c.response_list = nullptr;
  }
  c.running.store(0, std::memory_order_release);
  LOG_PRINT("DEBUG", "end to destroy the client...");
}

void client_teardown_ordered() {
  cloud_client_t &c = client();
  if (!begin_teardown(c, nullptr)) return;
  client_destroy(Teardown::kOrdered);
  end_teardown(c);
  client_tell(VEMO_EVENT_TORN_DOWN, VEMO_ERR_DISCONNECTED);
}

bool client_tear_down_lost(uint32_t generation) {
  cloud_client_t &c = client();
  if (!begin_teardown(c, &generation)) return false;
  client_destroy(Teardown::kLost);
  end_teardown(c);
  return true;
}

void client_close() {
  cloud_client_t &c = client();
  bool own = false;
  {
    MutexLock hold(c.lock);
    while (c.state == ClientState::kStarting ||
           (c.state == ClientState::kStopping && !task_pool_is_own_thread(c.task_pool)))
      c.state_changed.wait(c.lock);
    if (c.state == ClientState::kRunning || c.state == ClientState::kIdle) {
      set_state(c, ClientState::kStopping);
      own = true;
    }
  }
  if (!own) return;  // a teardown runs on the very task that called this
  client_destroy(Teardown::kExit);
  end_teardown(c);
}

void client_exit_hook() {
  cloud_client_t &c = client();
  c.exiting.store(true, std::memory_order_release);
  {
    MutexLock hold(c.lock);
    c.wake_tasks.broadcast();  // a reconnection pausing between attempts gives up
  }
  // Answers that handlers are still sending get out before the connection goes, within a bound.
  handler_pool().wait_idle(kExitHandlerWaitMs);
  client_close();
}

void client_clear_callback() {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  forget_handlers(c);
}

void client_clear_callback_of(uint32_t epoch) {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  if (c.handlers_epoch == epoch) forget_handlers(c);
}

int client_set_callback(const HandlerSet &handlers, uint32_t *epoch) {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  forget_handlers(c);
  c.handlers = handlers;
  *epoch = c.handlers_epoch;
  return 0;
}

bool client_confirm_callback(uint32_t epoch, uint32_t generation, const HandlerSet &handlers) {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  if (c.handlers_epoch == epoch) return true;
  // A teardown ordered by the daemon wiped exactly these handlers and nothing has touched them
  // since: when the acknowledgement came from the connection made after that teardown, the
  // daemon holds the registration, so the handlers go back in place. Otherwise the registration
  // went with the old connection and the call fails without handlers.
  bool wiped_by_order = c.wiped_epoch == epoch && c.handlers_epoch == epoch + 1;
  if (!wiped_by_order || generation != c.generation.load(std::memory_order_acquire) ||
      c.state != ClientState::kRunning) {
    return false;
  }
  c.handlers = handlers;
  c.handlers_epoch += 1;
  return true;
}

}  // namespace vemo
