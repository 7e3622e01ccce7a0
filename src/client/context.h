// The process-wide client context and its life cycle.
//
// Life cycle: Idle -> Starting -> Running -> Stopping -> Idle. The start-up and the teardown run
// WITHOUT holding `lock` (they connect, wait for the greeting, drain threads); the state field
// tells the other threads what is going on, and they wait on `state_changed` instead of on the
// lock. So a handler may call any vemo_ function at any time: nothing it needs is held across a
// wait.
//
// Users: every API call that touches the socket, the pools or the list registers as a user for
// the duration (client_acquire/client_release). A teardown first wakes every waiting user (they
// return VEMO_ERR_DISCONNECTED), then waits for the users to leave before it frees anything, so
// no record, pool or list is freed under a thread that still uses it.
#ifndef VEMO_CLIENT_CONTEXT_H
#define VEMO_CLIENT_CONTEXT_H

#include <stddef.h>

#include <atomic>

#include "util/sync.h"
#include "vemo/msg_id_pool.h"
#include "vemo/response.h"
#include "vemo/task_pool.h"
#include "vemo/vemo.h"

namespace vemo {

enum class ClientState { kIdle, kStarting, kRunning, kStopping };

struct cloud_client_t {
  // 1 while the client's tasks are meant to run. Read without the lock by the tasks and by the
  // senders' fast path.
  std::atomic<int> running{0};
  // Counts start-ups. A task serves the start-up it was started by and ends when this moves on,
  // even if it never saw running at 0 (a teardown that ran on the receiving task itself, then a
  // quick new start-up).
  std::atomic<uint32_t> generation{0};

  // The connection and the pools. Written only by the thread that starts or tears down the
  // client (state Starting or Stopping, with no users and, for teardown, no tasks left); read
  // by users and tasks, which the state protocol orders after those writes.
  int fd = 0;
  msg_id_pool_t *msg_id_pool = nullptr;
  task_pool_t *task_pool = nullptr;
  response_list_t *response_list = nullptr;

  Mutex lock;
  vemo_cloud_request_cb request_cb GUARDED_BY(lock) = nullptr;
  vemo_hello_cloud_cb_t *hello_cb GUARDED_BY(lock) = nullptr;  // the context's own copy
  ClientState state GUARDED_BY(lock) = ClientState::kIdle;
  int users GUARDED_BY(lock) = 0;
  CondVar state_changed;  // signalled on every state change and when users drops to 0
  CondVar wake_tasks;     // wakes the tasks' pauses when running goes to 0

  // Orders whole frames on the socket: a large frame goes out in several pieces, and the kernel
  // may interleave the pieces of two threads' frames. Held only across one frame's send, guards
  // no data, and is never taken together with another lock.
  Mutex send_lock;
};

// The single context. Never destroyed: library threads may still use it while the process
// runs its exit handlers and static destructors.
cloud_client_t &client();

// The handlers as one consistent snapshot, taken under the lock so that they are never read
// while being freed. The caller then calls them with no lock held.
struct ClientHandlers {
  vemo_cloud_request_cb request_cb = nullptr;
  vemo_hello_cloud_cb_t hello = {nullptr, nullptr};
  bool has_hello = false;
};
ClientHandlers client_handlers();

// Registers the calling thread as a user of a running client. 0, or VEMO_ERR_DISCONNECTED when
// the client is not running (waits while it is starting).
int client_acquire();
void client_release();

// RAII form of client_acquire/client_release.
class ClientUse {
 public:
  ClientUse() : code_(client_acquire()) {}
  ~ClientUse() {
    if (code_ == 0) client_release();
  }
  ClientUse(const ClientUse &) = delete;
  ClientUse &operator=(const ClientUse &) = delete;
  int code() const { return code_; }

 private:
  int code_;
};

// Starts the client if it is idle (the lazy start-up). 0 when it is running afterwards.
int client_init();

// Releases everything the context holds and resets it. Runs with no lock held, by the thread
// that owns the Starting or Stopping state.
void client_destroy();

// The teardown ordered by the daemon, from a dispatch (or from the greeting during start-up).
void client_teardown_ordered();

void client_exit_hook();
void client_clear_callback();
int client_set_callback(vemo_cloud_request_cb callback, const vemo_hello_cloud_cb_t *hello);

// The daemon's socket path for the next connection (VEMO_SOCKET_PATH unless the application
// chose another), copied with its terminator.
constexpr size_t kSocketPathCapacity = 108;
void client_socket_path(char out[kSocketPathCapacity]);

// Sends one frame on fd, in turn with every other sender of this process.
int client_send(int fd, const char *text);

// The greeting is dispatched by the starting thread before the context holds the connection;
// replies sent meanwhile go to the new connection.
int client_reply_fd();
// True on the thread that is checking a greeting: it must not wait for its own start-up.
bool client_in_greeting();
void client_set_greeting_fd(int fd);  // -1 ends the greeting

// True while the start-up that generation counts is running (the tasks' loop condition).
bool client_serving(const cloud_client_t &c, uint32_t generation);

// Dispatch-side entry points (dispatch.cc).
int dispatch_message(const char *text);
void task_receive(void *arg);
void task_timeout_check(void *arg);

}  // namespace vemo

#endif
