// The process-wide client context and its life cycle.
//
// Life cycle: Idle -> Starting -> Running -> Stopping -> Idle. The start-up and the teardown run
// WITHOUT holding `lock` (they connect, wait for the greeting, drain the two tasks); the state
// field tells the other threads what is going on, and they wait on `state_changed`, each within
// its own deadline, instead of on the lock. No teardown waits for an application handler:
// handlers run on the handler pool and hold a reference to the connection they answer on.
//
// Users: every API call that touches the connection, the pools or the list registers as a user
// for the duration (ClientUse). A teardown first wakes every waiting user (they return
// VEMO_ERR_DISCONNECTED), then waits for the users to leave before it frees anything, so no
// record, pool or list is freed under a thread that still uses it.
//
// A connection that fails (the daemon closed it, a receive or send failed, a frame could not be
// trusted) is torn down at once; the handlers stay registered and the library connects again in
// the background and announces them anew. A teardown ordered by the daemon forgets them.
#ifndef VEMO_CLIENT_CONTEXT_H
#define VEMO_CLIENT_CONTEXT_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "client/connection.h"
#include "util/clock.h"
#include "util/sync.h"
#include "vemo/msg_id_pool.h"
#include "vemo/response.h"
#include "vemo/task_pool.h"
#include "vemo/vemo.h"
#include "vemo/vemo_ext.h"

namespace vemo {

enum class ClientState { kIdle, kStarting, kRunning, kStopping };

// The application's handlers: the classic ones or those with a user pointer (an extension).
struct HandlerSet {
  vemo_cloud_request_cb request_cb = nullptr;
  vemo_cloud_request_ex_cb request_ex = nullptr;
  vemo_hello_cloud_cb_t hello = {nullptr, nullptr};
  vemo_hello_cloud_ex_cb_t hello_ex = {nullptr, nullptr};
  bool has_hello = false;
  void *user = nullptr;
  bool registered() const { return request_cb != nullptr || request_ex != nullptr; }
};

// Why a teardown runs: it decides whether the handlers stay.
enum class Teardown { kOrdered, kLost, kExit, kFailedStart };

struct cloud_client_t {
  // 1 while the client's tasks are meant to run. Read without the lock by the tasks and by the
  // senders' fast path.
  std::atomic<int> running{0};
  // Counts start-ups. A task serves the start-up it was started by and ends when this moves on.
  std::atomic<uint32_t> generation{0};
  // Set once the process exits: nothing connects any more.
  std::atomic<bool> exiting{false};

  // The connection and the pools. Written only by the thread that owns the Starting or Stopping
  // state (with no users and, for a teardown, no tasks left); read by users and tasks, which the
  // state protocol orders after those writes. conn is null while there is no connection.
  Connection *conn = nullptr;
  msg_id_pool_t *msg_id_pool = nullptr;
  task_pool_t *task_pool = nullptr;
  response_list_t *response_list = nullptr;

  Mutex lock;
  // The context's own copy of the application's handlers (the pair included, by value).
  HandlerSet handlers GUARDED_BY(lock);
  vemo_event_cb event_cb GUARDED_BY(lock) = nullptr;
  void *event_user GUARDED_BY(lock) = nullptr;
  // Moves on whenever the handlers are set or cleared; wiped_epoch is the epoch a teardown
  // ordered by the daemon found (so a registration racing with it can tell what happened).
  uint32_t handlers_epoch GUARDED_BY(lock) = 0;
  uint32_t wiped_epoch GUARDED_BY(lock) = UINT32_MAX;
  ClientState state GUARDED_BY(lock) = ClientState::kIdle;
  int users GUARDED_BY(lock) = 0;
  CondVar state_changed;  // signalled on every state change and when users drops to 0
  CondVar wake_tasks;     // wakes the tasks' pauses and the reconnection's when running goes to 0
};

// The single context. Never destroyed: library threads may still use it while the process
// runs its exit handlers and static destructors.
cloud_client_t &client();

// The handlers as one consistent snapshot, taken under the lock. The caller then calls them with
// no lock held.
HandlerSet client_handlers();

// Tells the application's event callback, if any, of event on a handler thread.
void client_tell(int event, int code);

// Registers the calling thread as a user of a running client, waiting within deadline while it
// starts or is torn down. 0, VEMO_ERR_DISCONNECTED when the client is not running, VEMO_ERR_TIMEOUT when the
// deadline passed first. generation (may be null) receives the start-up it joined.
int client_acquire(const Deadline &deadline, uint32_t *generation);
void client_release();

// RAII form of client_acquire/client_release.
class ClientUse {
 public:
  explicit ClientUse(const Deadline &deadline, uint32_t *generation = nullptr)
      : code_(client_acquire(deadline, generation)) {}
  ~ClientUse() {
    if (code_ == 0) client_release();
  }
  ClientUse(const ClientUse &) = delete;
  ClientUse &operator=(const ClientUse &) = delete;
  int code() const { return code_; }

 private:
  int code_;
};

// Starts the client if it is idle (the lazy start-up), within deadline. 0 when it is running
// afterwards.
int client_init(const Deadline &deadline);

// Releases everything the context holds and resets it; the handlers go too unless the
// connection was lost. Runs with no lock held, by the thread that owns the Stopping state (or
// the failing start-up).
void client_destroy(Teardown why);

// The teardown ordered by the daemon, from the receiving task (or from the greeting).
void client_teardown_ordered();
// The connection of start-up generation failed with code: tear it down and, when handlers are
// registered, connect again in the background and announce them. Runs on the receiving task.
void client_connection_lost(uint32_t generation, int code);
// The teardown part of it: false when the client was not running that start-up any more.
bool client_tear_down_lost(uint32_t generation);

void client_exit_hook();
// Tears the client down on purpose (exit, vemo_shutdown): the handlers are forgotten.
void client_close();
void client_clear_callback();

// Installs the handlers (replacing any); the epoch they were installed at, or
// VEMO_ERR_NO_RESOURCE (nothing installed).
int client_set_callback(const HandlerSet &handlers, uint32_t *epoch);
// After the daemon acknowledged the registration of epoch on start-up generation: true when the
// handlers are in place (put back if a teardown ordered before that start-up wiped them).
bool client_confirm_callback(uint32_t epoch, uint32_t generation, const HandlerSet &handlers);
// Clears the handlers when they are still those of epoch.
void client_clear_callback_of(uint32_t epoch);

// The daemon's socket path for the next connection (VEMO_SOCKET_PATH unless the application
// chose another), copied with its terminator.
constexpr size_t kSocketPathCapacity = 108;
void client_socket_path(char out[kSocketPathCapacity]);

// True on the thread that is running a start-up (it must not wait for itself).
bool client_starting_here();

// True while the start-up that generation counts is running (the tasks' loop condition).
bool client_serving(const cloud_client_t &c, uint32_t generation);

// Dispatch-side entry points.
struct DispatchContext {
  Connection *conn;  // where answers go
  bool greeting;     // checked by the starting thread: handlers run right there
};
int dispatch_message(const char *text, const DispatchContext &ctx);
void task_receive(void *conn);
void task_timeout_check(void *arg);

}  // namespace vemo

#endif
