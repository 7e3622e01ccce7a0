#include "client/context.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>

#include "client/msg_id_pool_internal.h"
#include "client/response_internal.h"
#include "vemo/ipc_socket.h"
#include "util/task_pool_internal.h"
#include "vemo/util.h"

namespace vemo {
namespace {
thread_local int t_greeting_fd = -1;

// True while a greeting is being checked on this thread (the context is still Starting).
bool in_greeting() { return t_greeting_fd >= 0; }

void set_state(cloud_client_t &c, ClientState state) REQUIRES(c.lock) {
  c.state = state;
  c.state_changed.broadcast();
}

// Placement into static storage: constructed on first use, never destroyed. pthread_once
// orders the first use among threads: the library is built without thread-safe statics (they
// would need the C++ runtime), so a function-local static would not.
alignas(cloud_client_t) unsigned char g_client_storage[sizeof(cloud_client_t)];
cloud_client_t *g_client = nullptr;
pthread_once_t g_client_once = PTHREAD_ONCE_INIT;
void construct_client() { g_client = new (g_client_storage) cloud_client_t(); }
}  // namespace

cloud_client_t &client() {
  pthread_once(&g_client_once, construct_client);
  return *g_client;
}

ClientHandlers client_handlers() {
  cloud_client_t &c = client();
  ClientHandlers h;
  MutexLock hold(c.lock);
  h.request_cb = c.request_cb;
  if (c.hello_cb != nullptr) {
    h.hello = *c.hello_cb;
    h.has_hello = true;
  }
  return h;
}

bool client_in_greeting() { return in_greeting(); }

int client_acquire() {
  cloud_client_t &c = client();
  if (in_greeting()) return VEMO_ERR_DISCONNECTED;  // the start-up is this very thread's
  MutexLock hold(c.lock);
  while (c.state == ClientState::kStarting) c.state_changed.wait(c.lock);
  if (c.state != ClientState::kRunning) return VEMO_ERR_DISCONNECTED;
  ++c.users;
  return 0;
}

void client_release() {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  if (--c.users == 0) c.state_changed.broadcast();
}

int client_send(int fd, const char *text) {
  MutexLock hold(client().send_lock);
  return ipc_socket_send(fd, text);
}

int client_reply_fd() { return in_greeting() ? t_greeting_fd : client().fd; }
void client_set_greeting_fd(int fd) { t_greeting_fd = fd; }

void client_destroy() {
  cloud_client_t &c = client();
  LOG_PRINT("DEBUG", "begin to destroy the client...");
  c.running.store(0, std::memory_order_release);
  {
    MutexLock hold(c.lock);
    c.wake_tasks.broadcast();
  }
  // End all traffic at once: a receive blocked in the middle of a frame, or a send blocked on a
  // daemon that stopped reading, returns now instead of holding the teardown up for ever.
  if (c.fd != 0) ::shutdown(c.fd, SHUT_RDWR);
  // Wake every sender and synchronous waiter; they return VEMO_ERR_DISCONNECTED.
  if (c.msg_id_pool != nullptr) msg_id_pool_close(c.msg_id_pool);
  if (c.response_list != nullptr) response_list_close(c.response_list);
  if (c.task_pool != nullptr) {
    LOG_PRINT("DEBUG", "destroy the task pool");
    task_pool_destroy(c.task_pool);  // does not wait for the calling task
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
  if (c.fd != 0) {
    LOG_PRINT("DEBUG", "close the client file description");
    ::close(c.fd);
  }
  {
    // Reset under the lock: threads waiting for this teardown look at task_pool as they wake.
    MutexLock hold(c.lock);
    free(c.hello_cb);
    c.hello_cb = nullptr;
    c.request_cb = nullptr;
    c.fd = 0;
    c.msg_id_pool = nullptr;
    c.task_pool = nullptr;
    c.response_list = nullptr;
  }
  c.running.store(0, std::memory_order_release);
  LOG_PRINT("DEBUG", "end to destroy the client...");
}

// Runs on a dispatch task (or on the receiving task when no dispatch task could be started).
// It takes the Stopping state instead of holding the lock across the teardown, so a handler
// running on another dispatch task can still take the lock, and a start-up that another thread
// begins meanwhile waits until the teardown is complete. The task pool does not wait for the
// task that runs this.
void client_teardown_ordered() {
  cloud_client_t &c = client();
  if (in_greeting()) {
    // Refused at the greeting: nothing is set up yet; the starting thread cleans up its socket.
    client_destroy();
    return;
  }
  {
    MutexLock hold(c.lock);
    // The receiving task runs before the start-up has quite finished: an order read in that
    // window waits for the start-up to end, then tears down. This cannot deadlock: once the
    // receiving task has started, the start-up can no longer fail (and so never waits for the
    // tasks), and it holds the lock only to publish its state.
    while (c.state == ClientState::kStarting) c.state_changed.wait(c.lock);
    if (c.state != ClientState::kRunning) return;  // another teardown got there first
    set_state(c, ClientState::kStopping);
  }
  client_destroy();
  MutexLock hold(c.lock);
  set_state(c, ClientState::kIdle);
}

void client_exit_hook() {
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
  if (!own) return;  // a teardown runs on the very task that called exit
  client_destroy();
  MutexLock hold(c.lock);
  set_state(c, ClientState::kIdle);
}

void client_clear_callback() {
  cloud_client_t &c = client();
  MutexLock hold(c.lock);
  c.request_cb = nullptr;
  free(c.hello_cb);
  c.hello_cb = nullptr;
}

int client_set_callback(vemo_cloud_request_cb callback, const vemo_hello_cloud_cb_t *hello) {
  cloud_client_t &c = client();
  {
    MutexLock hold(c.lock);
    if (hello != nullptr) {
      c.hello_cb = static_cast<vemo_hello_cloud_cb_t *>(malloc(sizeof(vemo_hello_cloud_cb_t)));
      if (c.hello_cb == nullptr) {
        LOG_PRINT("ERROR", "fail to malloc, size=%d", (int)sizeof(vemo_hello_cloud_cb_t));
        c.request_cb = nullptr;
      } else {
        *c.hello_cb = *hello;
      }
    }
    if (hello == nullptr || c.hello_cb != nullptr) {
      c.request_cb = callback;
      return 0;
    }
  }
  return VEMO_ERR_NO_RESOURCE;
}

}  // namespace vemo
