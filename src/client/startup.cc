// The lazy start-up: connect, check the daemon, check its greeting, create the pools, start the
// two tasks.
#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "client/context.h"
#include "client/messages.h"
#include "client/response_internal.h"
#include "util/log_internal.h"
#include "util/task_pool_internal.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace vemo {
namespace {

constexpr int kGreetingWaitMs = 5000;
constexpr int kMessageIdPoolSize = 256;
constexpr int kTimeoutTaskPeriodMs = 50;

std::atomic<bool> g_exit_hook_registered{false};

// Set on the thread that runs a start-up: a handler called from the greeting runs there and
// cannot wait for its own start-up; its calls fail at once instead.
thread_local bool t_starting = false;

void exit_hook_trampoline() { client_exit_hook(); }

// Anyone who can write to the socket's directory can bind the path while the daemon is down.
// Only a daemon running as root or as this process's own user is trusted with the
// application's requests and handlers; nothing is sent to another (a deliberate addition to
// the classic start-up, which took whoever answered).
bool daemon_trusted(int fd) {
  struct ucred peer;
  socklen_t length = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    LOG_PRINT_AS("connect_server", "ERROR", "fail to get the credentials of the server, error=%d",
                 errno);
    return false;
  }
  if (peer.uid == 0 || peer.uid == geteuid()) return true;
  LOG_PRINT_AS("connect_server", "ERROR", "the server runs as another user, uid=%d",
               static_cast<int>(peer.uid));
  return false;
}

// The connected, greeted connection, or null with *code set.
Connection *connect_server(const char *path, int greeting_wait_ms, int *code) {
  int fd = ipc_socket_init_as_client(path);
  if (fd < 0) {
    LOG_PRINT("ERROR", "fail to initialize the socket client, code=%d", fd);
    *code = fd;
    return nullptr;
  }
  if (!daemon_trusted(fd)) {
    close(fd);
    *code = VEMO_ERR_DISCONNECTED;
    return nullptr;
  }
  Connection *conn = Connection::adopt(fd);
  if (conn == nullptr) {
    *code = VEMO_ERR_NO_RESOURCE;
    return nullptr;
  }
  char *text = nullptr;
  int rc = ipc_socket_recv_timed(fd, greeting_wait_ms, &text);
  if (rc != 0) {
    free(text);
    LOG_PRINT("ERROR", "fail to receive the message, error=%d", rc);
    conn->unref();
    *code = rc;
    return nullptr;
  }
  rc = dispatch_message(text, DispatchContext{conn, true});
  free(text);
  if (rc != 0) {
    LOG_PRINT("ERROR", "fail to check the notify message from the server, code=%d", rc);
    conn->unref();
    // Only a response notification with a positive daemon code dispatches to a positive result;
    // the connection is refused all the same, and the caller must see a failure.
    *code = rc > 0 ? VEMO_ERR_DISCONNECTED : rc;
    return nullptr;
  }
  return conn;
}

// Waits within deadline while another thread starts or tears the client down. 0 when this
// thread now owns the Starting state, 1 when the client is running already, or a code.
int enter_starting(cloud_client_t &c, const Deadline &deadline) {
  if (t_starting) return VEMO_ERR_DISCONNECTED;
  MutexLock hold(c.lock);
  for (;;) {
    if (c.exiting.load(std::memory_order_acquire)) return VEMO_ERR_DISCONNECTED;
    if (c.state == ClientState::kRunning) return 1;
    if (c.state == ClientState::kIdle) break;
    // A task of the pool being torn down cannot wait for its own teardown.
    if (c.state == ClientState::kStopping && task_pool_is_own_thread(c.task_pool)) {
      return VEMO_ERR_DISCONNECTED;
    }
    int32_t left = deadline.remaining_ms(get_tick_count());
    if (left <= 0) return VEMO_ERR_TIMEOUT;
    c.state_changed.wait_for_ms(c.lock, left);
  }
  c.state = ClientState::kStarting;
  return 0;
}

}  // namespace

int client_init(const Deadline &deadline) {
  cloud_client_t &c = client();
  int entered = enter_starting(c, deadline);
  if (entered == 1) {
    LOG_PRINT("WARN", "the client is already available");
    return 0;
  }
  if (entered != 0) return entered;
  t_starting = true;
  LOG_PRINT("DEBUG", "begin to initialize the client...");
  // A call with a timeout waits for the greeting no longer than its own deadline; one without
  // (a timeout of 0 or less only means "do not wait for the answer") waits the classic 5000 ms.
  int greeting_wait = kGreetingWaitMs;
  if (deadline.timeout_ms > 0) {
    int32_t left = deadline.remaining_ms(get_tick_count());
    if (left < greeting_wait) greeting_wait = left;
  }
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
    c.conn = connect_server(path, greeting_wait, &rc);
    if (c.conn == nullptr) {
      LOG_PRINT("ERROR", "fail to connect to the server, code=%d", rc);
      break;
    }
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
    Connection *task_ref = c.conn->ref();
    rc = task_pool_add(c.task_pool, task_receive, nullptr, task_ref);
    if (rc != 0) {
      task_ref->unref();
      LOG_PRINT("ERROR", "fail to start the task to receive the message, error=%d", rc);
    }
  } while (false);
  if (rc != 0 && c.conn != nullptr) client_destroy(Teardown::kFailedStart);
  if (rc == 0) {
    // Registered once per process rather than once per start-up: a device whose daemon orders
    // many reconnections must not grow the exit table without bound.
    if (!g_exit_hook_registered.exchange(true) && atexit(exit_hook_trampoline) != 0) {
      g_exit_hook_registered.store(false);
      LOG_PRINT("WARN", "fail to register the function at exit");
    }
    LOG_PRINT("DEBUG", "end to initialize the client...");
  }
  if (rc == 0) client_tell(VEMO_EVENT_CONNECTED, 0);
  t_starting = false;
  MutexLock hold(c.lock);
  c.state = rc == 0 ? ClientState::kRunning : ClientState::kIdle;
  c.state_changed.broadcast();
  return rc;
}

bool client_starting_here() { return t_starting; }

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
    // Arrived responses nobody collected in time go, and so do pending entries whose response
    // never came (beyond their timeout and a grace).
    response_data_expire(c.response_list, kPendingGraceMs);
  }
  LOG_PRINT("DEBUG", "end the task to check the time out...");
}

}  // namespace vemo
