// The lazy start-up over /tmp/cloud_svr: no daemon, a dead socket file, refused, malformed and
// missing greetings, tasks that cannot start, and several threads starting at once.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>

#include "support/e2e_fixture.h"
#include "util/task_pool_seam.h"

namespace vemo_e2e {
namespace {

class NoDaemon : public E2ETest {
 protected:
  bool start_daemon_in_setup() const override { return false; }
};
class Startup : public E2ETest {};

const char kNoServer[] = "WARN client_init: the socket server is not started";
const char kNoFd[] = "ERROR send_with_recv: fail to get the file description of the client, error=-1100";

int dead_socket_file() {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", VEMO_SOCKET_PATH);
  bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
  close(fd);
  const int rc = vemo_reconnect_cloud();
  unlink(VEMO_SOCKET_PATH);
  return rc;
}

struct CallRow {
  const char *name;
  std::function<int()> call;
  int code;
  Strings lines;  // every WARN and ERROR line of the call
};

// Every call fails at once, opens nothing and says why (a dead socket file too); the first call after the daemon is up
// connects, and the registration that failed left no handler.
TEST_F(NoDaemon, EveryCallFailsWith1100UntilTheDaemonIsUp) {
  const int descriptors = vemo_test::open_descriptor_count();
  char *response = nullptr;
  const CallRow rows[] = {
      {"async", [] { return vemo_send_request_async("a", 1000, 0, nullptr); }, VEMO_ERR_NO_SERVER,
       {kNoServer, kNoFd, "ERROR vemo_send_request_async: fail to send the request, error=-1100"}},
      {"sync", [&] { return vemo_send_request_sync("b", 1000, 0, &response); }, VEMO_ERR_NO_SERVER,
       {kNoServer, kNoFd, "ERROR vemo_send_request_async: fail to send the request, error=-1100"}},
      {"register", [] { return vemo_register_callback(echo, nullptr); }, VEMO_ERR_NO_SERVER,
       {kNoServer, kNoFd, "ERROR vemo_register_callback: fail to register the client to the server, error=-1100"}},
      {"unregister", [] { return vemo_unregister_callback(); }, VEMO_ERR_NO_SERVER,
       {kNoServer, kNoFd, "ERROR vemo_unregister_callback: fail to clear the client from the server, error=-1100"}},
      {"reconnect", [] { return vemo_reconnect_cloud(); }, VEMO_ERR_NO_SERVER, {kNoServer, kNoFd}},
      {"get_response", [&] { return vemo_get_response(1000, &response); }, VEMO_ERR_NOT_FOUND, {}},
      {"socket file without listener, as a crashed daemon leaves it", dead_socket_file, VEMO_ERR_DISCONNECTED,
       {"ERROR ipc_socket_init_as_client: fail to connect the unix socket, error=111",
        "ERROR connect_server: fail to initialize the socket client, code=-1101",
        "ERROR client_init: fail to connect to the server, code=-1101",
        "ERROR send_with_recv: fail to get the file description of the client, error=-1101"}},
  };
  for (const CallRow &row : rows) {
    SCOPED_TRACE(row.name);
    log_.clear();
    EXPECT_EQ(row.code, row.call());
    EXPECT_TRUE(golden_lines(row.lines, log_.summary()));
  }
  EXPECT_EQ(nullptr, response);
  EXPECT_EQ(descriptors, vemo_test::open_descriptor_count());

  ASSERT_NO_FATAL_FAILURE(StartDaemon());
  daemon_.set_next_request_id(77);
  EXPECT_EQ(77, vemo_send_request_async("late", 1000, 0, nullptr));
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_EQ(1, CountLogged("client_init", "DEBUG", "end to initialize the client..."));
  EXPECT_TRUE(Unhandled(Incoming::kCloudRequest));
}

struct GreetingRow {
  const char *name;
  const char *greeting;
  int code;
  Strings lines;
};

// A refused greeting closes the socket and leaves the client idle, not broken: each row's call
// connects anew. Only a response notification can dispatch to a positive result (the daemon's
// own code); it refuses the connection like any failure, with a negative code for the caller.
TEST_F(Startup, GreetingsAreCheckedBeforeTheClientIsUsed) {
  const std::string fd_line = "ERROR send_with_recv: fail to get the file description of the client, error=";
  const GreetingRow rows[] = {
      {"type 1", R"({"inner_method":"server_notify","inner_params":{"type":1}})", VEMO_ERR_DISCONNECTED,
       {"ERROR connect_server: fail to check the notify message from the server, code=-1101",
        "ERROR client_init: fail to connect to the server, code=-1101", fd_line + "-1101"}},
      {"not JSON", "hello, client", VEMO_ERR_BAD_FORMAT,
       {"ERROR dispatch_message: fail to parse the message",
        "ERROR connect_server: fail to check the notify message from the server, code=-10100",
        "ERROR client_init: fail to connect to the server, code=-10100", fd_line + "-10100"}},
      {"no type", R"({"inner_method":"server_notify","inner_params":{}})", VEMO_ERR_MISSING_KEY,
       {"ERROR dispatch_request: fail to get the type from the parameters",
        "ERROR connect_server: fail to check the notify message from the server, code=-20104",
        "ERROR client_init: fail to connect to the server, code=-20104", fd_line + "-20104"}},
      {"positive code", R"({"inner_error_code":5})", VEMO_ERR_DISCONNECTED,
       {"ERROR dispatch_notify: the error code of the response=5",
        "ERROR connect_server: fail to check the notify message from the server, code=5",
        "ERROR client_init: fail to connect to the server, code=-1101", fd_line + "-1101"}},
      // The one wait for the full 5000 ms.
      {"silent daemon", "", VEMO_ERR_RECV_TIMEOUT,
       {"ERROR connect_server: fail to receive the message, error=-3000",
        "ERROR client_init: fail to connect to the server, code=-3000", fd_line + "-3000"}},
      {"type 2", R"({"inner_method":"server_notify","inner_params":{"type":2}})", 0, {}},
  };
  daemon_.disable_greeting();
  for (const GreetingRow &row : rows) {
    SCOPED_TRACE(row.name);
    log_.clear();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(row.code, CallWithGreeting(row.greeting, [] { return vemo_reconnect_cloud(); }, 8000));
    EXPECT_EQ(row.code == VEMO_ERR_RECV_TIMEOUT, std::chrono::steady_clock::now() - start > std::chrono::milliseconds(4990));
    EXPECT_TRUE(golden_lines(row.lines, log_.summary()));
    EXPECT_TRUE(daemon_.wait_for_open_connections(row.code == 0 ? 1 : 0, kWaitMs)) << "the socket stays open";
  }
  EXPECT_EQ(6, daemon_.connections_seen());
  EXPECT_EQ(1u, ReceivedMethod("reconnect_cloud").size()) << "a refused connection was used";
}

std::atomic<int> g_call_in_greeting{1};
void calls_from_the_greeting(const char *request, char **response) {
  g_call_in_greeting = vemo_send_request_async("inside the greeting", 1000, 0, nullptr);
  *response = strdup(("seen:" + std::string(request)).c_str());
}

// A greeting may be any message. A cloud request reaches the handler that the registration in
// progress has just stored, on the thread that is starting the client: a call the handler makes
// cannot wait for that start-up, and fails at once instead of hanging.
TEST_F(Startup, HandlerCalledFromTheGreetingDoesNotWaitForItsOwnStartup) {
  daemon_.disable_greeting();
  EXPECT_EQ(0, CallWithGreeting(R"({"inner_method":"cloud_request","inner_id":5,"inner_params":{"request":"first"}})",
                                [] { return vemo_register_callback(calls_from_the_greeting, nullptr); }));
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, g_call_in_greeting.load());
  std::optional<Received> reply = daemon_.wait_for_reply(5, kWaitMs);
  ASSERT_TRUE(reply.has_value()) << "the greeting's reply went nowhere";
  EXPECT_EQ("seen:first", reply->response);
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_EQ(1u, ReceivedMethod("register_callback").size());
}

TEST_F(Startup, TwoThreadsStartingAtOnceMakeOneConnection) {
  daemon_.disable_greeting();
  daemon_.set_next_request_id(300);
  // The first thread starts the client and waits for the greeting, which the test holds back
  // until the second thread sleeps on the start-up in progress.
  std::future<int> first = std::async(std::launch::async, [] { return vemo_reconnect_cloud(); });
  ASSERT_TRUE(daemon_.wait_for_connections(1, kWaitMs));
  std::atomic<pid_t> second_tid{0};
  std::future<int> second = std::async(std::launch::async, [&second_tid] {
    second_tid = current_tid();
    return vemo_send_request_async("second", 3000, 0, nullptr);
  });
  ASSERT_TRUE(eventually([&] { return second_tid.load() != 0; }));
  EXPECT_TRUE(wait_thread_in_futex(second_tid.load())) << "the second thread never waited";
  EXPECT_EQ(1, daemon_.send_text(R"({"inner_method":"server_notify","inner_params":{"type":0}})", 1));
  EXPECT_EQ(0, FinishOrDie(first, kWaitMs, "the first start-up"));
  EXPECT_EQ(300, FinishOrDie(second, kWaitMs, "the second caller"));
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_EQ(Strings{"the client is already available"}, Messages("client_init", "WARN"));
  EXPECT_EQ(1, CountLogged("client_init", "DEBUG", "begin to initialize the client..."));
}

// Thread starts fail on demand through the thread-start seam: after this many more pass, one
// fails (below zero: none).
std::atomic<int> g_fail_after{-1};
int flaky_starter(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *), void *arg) {
  return g_fail_after.fetch_sub(1) == 0 ? EAGAIN : pthread_create(thread, attr, entry, arg);
}

// A start-up whose timeout task (started first) or receiving task cannot start fails with
// -10000 under client_init and leaves nothing behind. A message whose handler thread cannot
// start waits for the receiving task's next quiet turn: answered, not dropped, and never run on
// the receiving task.
TEST_F(Startup, ThreadsThatCannotStart) {
  vemo::task_pool_set_thread_starter(flaky_starter);
  const char kNoTask[] = "ERROR client_init: fail to start the task to receive the message, error=-10000";
  const char kNoFd10000[] = "ERROR send_with_recv: fail to get the file description of the client, error=-10000";
  g_fail_after = 0;
  EXPECT_EQ(VEMO_ERR_NO_RESOURCE, vemo_reconnect_cloud());
  EXPECT_TRUE(golden_lines({kNoTask, kNoFd10000}, log_.summary()));
  EXPECT_EQ(1, CountLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  g_fail_after = 1;
  EXPECT_EQ(VEMO_ERR_NO_RESOURCE, vemo_reconnect_cloud());
  EXPECT_TRUE(golden_lines({kNoTask, kNoFd10000, kNoTask, kNoFd10000}, log_.summary()));
  // The timeout task that did start was waited out by the teardown of the failed start-up.
  EXPECT_EQ(1, CountLogged("task_timeout_check", "DEBUG", "end the task to check the time out..."));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the socket stays open";

  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  EXPECT_EQ(3, daemon_.connections_seen());
  g_fail_after = 0;
  EXPECT_EQ("no thread for me", Ask(5, "no thread for me"));
  EXPECT_EQ(Strings{"fail to create a task to dispatch the message, error=-10000"}, Messages("task_receive", "WARN"));
  vemo::task_pool_set_thread_starter(nullptr);
}

}  // namespace
}  // namespace vemo_e2e
