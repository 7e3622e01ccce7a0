// The lazy start-up: connect, check the greeting, create the pools, start the two tasks.
#include <stdlib.h>
#include <unistd.h>

#include <atomic>

#include "client/context.h"
#include "client/messages.h"
#include "util/task_pool_internal.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace vemo {
namespace {

constexpr int kGreetingWaitMs = 5000;
constexpr int kMessageIdPoolSize = 256;
constexpr int kTimeoutTaskPeriodMs = 50;

std::atomic<bool> g_exit_hook_registered{false};

void exit_hook_trampoline() { client_exit_hook(); }

int connect_server(const char *path) {
  int fd = ipc_socket_init_as_client(path);
  if (fd < 0) {
    LOG_PRINT("ERROR", "fail to initialize the socket client, code=%d", fd);
    return fd;
  }
  char *text = nullptr;
  int rc = ipc_socket_recv_timed(fd, kGreetingWaitMs, &text);
  if (rc != 0) {
    free(text);
    LOG_PRINT("ERROR", "fail to receive the message, error=%d", rc);
    close(fd);
    return rc;
  }
  client_set_greeting_fd(fd);
  rc = dispatch_message(text);
  client_set_greeting_fd(-1);
  free(text);
  if (rc != 0) {
    LOG_PRINT("ERROR", "fail to check the notify message from the server, code=%d", rc);
    close(fd);
    // Only a response notification with a positive daemon code dispatches to a positive result;
    // the connection is refused all the same, and the caller must see a failure.
    return rc > 0 ? VEMO_ERR_DISCONNECTED : rc;
  }
  return fd;
}

}  // namespace

int client_init() {
  cloud_client_t &c = client();
  // A handler called from the greeting runs on the starting thread, which cannot wait for
  // itself.
  if (client_in_greeting()) return VEMO_ERR_DISCONNECTED;
  {
    MutexLock hold(c.lock);
    // A start-up or a teardown in progress is waited out, not overlapped. A task of the pool
    // being torn down cannot wait for its own teardown: it is told the client is going away.
    while (c.state == ClientState::kStarting ||
           (c.state == ClientState::kStopping && !task_pool_is_own_thread(c.task_pool)))
      c.state_changed.wait(c.lock);
    if (c.state == ClientState::kStopping) return VEMO_ERR_DISCONNECTED;
    if (c.state == ClientState::kRunning) {
      LOG_PRINT("WARN", "the client is already available");
      return 0;
    }
    c.state = ClientState::kStarting;
  }
  LOG_PRINT("DEBUG", "begin to initialize the client...");
  // Every step logs under this function's name, so the steps stand here in one sequence; a
  // failure after the connection tears down whatever was made.
  int rc = 0;
  do {
    char path[kSocketPathCapacity];
    client_socket_path(path);
    if (access(path, F_OK) != 0) {
      LOG_PRINT("WARN", "the socket server is not started");
      rc = VEMO_ERR_NO_SERVER;
      break;
    }
    int fd = connect_server(path);
    if (fd < 0) {
      LOG_PRINT("ERROR", "fail to connect to the server, code=%d", fd);
      rc = fd;
      break;
    }
    c.fd = fd;
    c.msg_id_pool = msg_id_pool_init(kMessageIdPoolSize);
    if (c.msg_id_pool == nullptr) {
      LOG_PRINT("ERROR", "fail to initialize the message id pool");
      rc = VEMO_ERR_NO_RESOURCE;
      break;
    }
    c.response_list = response_list_init();
    if (c.response_list == nullptr) {
      LOG_PRINT("ERROR", "fail to initialize the response list");
      rc = VEMO_ERR_NO_RESOURCE;
      break;
    }
    c.task_pool = task_pool_init();
    if (c.task_pool == nullptr) {
      LOG_PRINT("ERROR", "fail to initialize the task pool");
      rc = VEMO_ERR_NO_RESOURCE;
      break;
    }
    // The flag goes up before the tasks start, so neither can see 0 on its first test and end
    // at once; a failure below clears it again in client_destroy.
    c.generation.fetch_add(1, std::memory_order_acq_rel);
    c.running.store(1, std::memory_order_release);
    rc = task_pool_add(c.task_pool, task_timeout_check, nullptr, nullptr);
    if (rc != 0) {
      LOG_PRINT("ERROR", "fail to start the task to receive the message, error=%d", rc);
      break;
    }
    rc = task_pool_add(c.task_pool, task_receive, nullptr, nullptr);
    if (rc != 0) LOG_PRINT("ERROR", "fail to start the task to receive the message, error=%d", rc);
  } while (false);
  if (rc != 0 && c.fd != 0) client_destroy();
  if (rc == 0) {
    // Registered once per process rather than once per start-up: a device whose daemon orders
    // many reconnections must not grow the exit table without bound.
    if (!g_exit_hook_registered.exchange(true) && atexit(exit_hook_trampoline) != 0) {
      g_exit_hook_registered.store(false);
      LOG_PRINT("WARN", "fail to register the function at exit");
    }
    LOG_PRINT("DEBUG", "end to initialize the client...");
  }
  MutexLock hold(c.lock);
  c.state = rc == 0 ? ClientState::kRunning : ClientState::kIdle;
  c.state_changed.broadcast();
  return rc;
}

bool client_serving(const cloud_client_t &c, uint32_t generation) {
  return c.running.load(std::memory_order_acquire) == 1 &&
         c.generation.load(std::memory_order_acquire) == generation;
}

void task_timeout_check(void *) {
  cloud_client_t &c = client();
  const uint32_t generation = c.generation.load(std::memory_order_acquire);
  LOG_PRINT("DEBUG", "begin the task to check the time out...");
  while (client_serving(c, generation)) {
    {
      // A pause the teardown can cut short, rather than a plain sleep.
      MutexLock hold(c.lock);
      if (client_serving(c, generation)) c.wake_tasks.wait_for_ms(c.lock, kTimeoutTaskPeriodMs);
    }
    response_data_clear(c.response_list, 0);
  }
  LOG_PRINT("DEBUG", "end the task to check the time out...");
}

}  // namespace vemo
