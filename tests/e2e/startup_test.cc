// The lazy start-up over /tmp/cloud_svr: no daemon, a refused or malformed greeting, a silent
// daemon, and several threads starting the client at once.
#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

class NoDaemon : public E2ETest {
 protected:
  bool start_daemon_in_setup() const override { return false; }
};

class Startup : public E2ETest {};

int open_descriptors() {
  int n = 0;
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (readdir(dir) != nullptr) ++n;
  closedir(dir);
  return n;
}

void never_called(const char *, char **) { ADD_FAILURE() << "the handler must not be called"; }

const char kGreetingType0[] = R"({"inner_method":"server_notify","inner_params":{"type":0}})";

TEST_F(NoDaemon, AsyncRequestFailsWith1100AndLogsEveryStep) {
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_send_request_async("hi", 1000, 0, nullptr));
  Strings failures;
  for (const std::string &line : log_.lines()) {
    LogLine l;
    if (parse_log_line(line, &l) && l.level != "DEBUG") failures.push_back(l.function + ": " + l.message);
  }
  EXPECT_EQ((Strings{"client_init: the socket server is not started",
                     "send_with_recv: fail to get the file description of the client, error=-1100",
                     "vemo_send_request_async: fail to send the request, error=-1100"}),
            failures);
  EXPECT_EQ(Strings{"the socket server is not started"}, Messages("client_init", "WARN"));
}

TEST_F(NoDaemon, EveryCallFailsWith1100AndOpensNoSocket) {
  const int before = open_descriptors();
  char *response = nullptr;
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_send_request_async("a", 1000, 0, nullptr));
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_send_request_sync("b", 1000, 0, &response));
  EXPECT_EQ(nullptr, response);
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_register_callback(never_called, nullptr));
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_unregister_callback());
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_reconnect_cloud());
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &response));
  EXPECT_EQ(before, open_descriptors());
  EXPECT_EQ(5, CountLogged("client_init", "WARN", "the socket server is not started"));
  EXPECT_EQ(5, CountLogged("send_with_recv", "ERROR",
                           "fail to get the file description of the client, error=-1100"));
  EXPECT_EQ(Strings{"fail to register the client to the server, error=-1100"},
            Messages("vemo_register_callback", "ERROR"));
  EXPECT_EQ(Strings{"fail to clear the client from the server, error=-1100"},
            Messages("vemo_unregister_callback", "ERROR"));
  EXPECT_TRUE(Messages("connect_server").empty());
  EXPECT_TRUE(Messages("ipc_socket_init_as_client").empty());
}

TEST_F(NoDaemon, NextCallConnectsOnceTheDaemonIsUp) {
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_send_request_async("early", 1000, 0, nullptr));
  ASSERT_NO_FATAL_FAILURE(StartDaemon());
  daemon_.set_next_request_id(77);
  EXPECT_EQ(77, vemo_send_request_async("late", 1000, 0, nullptr));
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_EQ(1, CountLogged("client_init", "DEBUG", "end to initialize the client..."));
}

TEST_F(NoDaemon, RegistrationWithoutDaemonLeavesNoHandler) {
  EXPECT_EQ(VEMO_ERR_NO_SERVER, vemo_register_callback(never_called, nullptr));
  ASSERT_NO_FATAL_FAILURE(StartDaemon());
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.send_cloud_request("anyone there?");
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(Strings{"the function is NULL"}, Messages("dispatch_request", "WARN"));
  EXPECT_TRUE(Replies().empty());
}

TEST_F(NoDaemon, SocketFileWithoutListenerFailsToConnect) {
  // A socket file that nobody listens on, as a crashed daemon leaves it.
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", VEMO_SOCKET_PATH);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr));
  close(fd);
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, vemo_reconnect_cloud());
  unlink(VEMO_SOCKET_PATH);
  EXPECT_EQ(Strings{"fail to initialize the socket client, code=-1101"},
            Messages("connect_server", "ERROR"));
  EXPECT_EQ(Strings{"fail to connect to the server, code=-1101"}, Messages("client_init", "ERROR"));
}

TEST_F(Startup, GreetingOfType1IsRefusedAndTheClientStaysIdle) {
  daemon_.set_greeting(1);
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, vemo_send_request_async("refused", 1000, 0, nullptr));
  EXPECT_EQ(Strings{"fail to check the notify message from the server, code=-1101"},
            Messages("connect_server", "ERROR"));
  EXPECT_EQ(Strings{"fail to connect to the server, code=-1101"}, Messages("client_init", "ERROR"));
  EXPECT_EQ(Strings{"fail to get the file description of the client, error=-1101"},
            Messages("send_with_recv", "ERROR"));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the refused socket stays open";
  EXPECT_TRUE(ReceivedMethod("device_request").empty());
  char *response = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &response));

  // Idle, not broken: the next call connects anew.
  daemon_.set_greeting(0);
  daemon_.set_next_request_id(500);
  EXPECT_EQ(500, vemo_send_request_async("accepted", 1000, 0, nullptr));
  EXPECT_EQ(2, daemon_.connections_seen());
}

TEST_F(Startup, GreetingOfAnotherTypeIsAccepted) {
  daemon_.set_greeting(2);
  EXPECT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(1, daemon_.open_connections());
  EXPECT_TRUE(Messages("connect_server").empty());
}

TEST_F(Startup, GreetingThatIsNotJsonIsRefused) {
  daemon_.disable_greeting();
  EXPECT_EQ(VEMO_ERR_BAD_FORMAT, CallWithGreeting("hello, client", [] { return vemo_reconnect_cloud(); }));
  EXPECT_EQ(Strings{"fail to parse the message"}, Messages("dispatch_message", "ERROR"));
  EXPECT_EQ(Strings{"fail to check the notify message from the server, code=-10100"},
            Messages("connect_server", "ERROR"));
  EXPECT_EQ(Strings{"fail to connect to the server, code=-10100"}, Messages("client_init", "ERROR"));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
}

TEST_F(Startup, GreetingWithoutTypeIsRefused) {
  daemon_.disable_greeting();
  EXPECT_EQ(VEMO_ERR_MISSING_KEY,
            CallWithGreeting(R"({"inner_method":"server_notify","inner_params":{}})",
                             [] { return vemo_reconnect_cloud(); }));
  EXPECT_EQ(Strings{"fail to get the type from the parameters"}, Messages("dispatch_request", "ERROR"));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
}

// Only a response notification can dispatch to a positive result: the daemon's own code. It
// refuses the connection like any failure, and the caller sees a negative code.
TEST_F(Startup, GreetingWithPositiveDaemonCodeFailsTheConnection) {
  daemon_.disable_greeting();
  EXPECT_EQ(VEMO_ERR_DISCONNECTED,
            CallWithGreeting(R"({"inner_error_code":5})", [] { return vemo_reconnect_cloud(); }));
  EXPECT_EQ(Strings{"the error code of the response=5"}, Messages("dispatch_notify", "ERROR"));
  EXPECT_EQ(Strings{"fail to check the notify message from the server, code=5"},
            Messages("connect_server", "ERROR"));
  EXPECT_EQ(Strings{"fail to connect to the server, code=-1101"}, Messages("client_init", "ERROR"));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
  // Nothing of the failed start-up is left: the next call starts from scratch.
  daemon_.set_greeting(0);
  EXPECT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
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

// The one test of the full greeting wait (5000 ms).
TEST_F(Startup, SilentDaemonTimesOutAfter5000Ms) {
  daemon_.disable_greeting();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_RECV_TIMEOUT, vemo_reconnect_cloud());
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(waited, 4990);
  EXPECT_LT(waited, 8000);
  EXPECT_EQ(Strings{"fail to receive the message, error=-3000"}, Messages("connect_server", "ERROR"));
  EXPECT_EQ(Strings{"fail to connect to the server, code=-3000"}, Messages("client_init", "ERROR"));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the socket stays open";
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
  ASSERT_TRUE(wait_until([&] { return second_tid.load() != 0; }));
  EXPECT_TRUE(wait_thread_in_futex(second_tid.load())) << "the second thread never waited";
  EXPECT_EQ(1, daemon_.send_text(kGreetingType0, 1));
  EXPECT_EQ(0, FinishOrDie(first, kWaitMs, "the first start-up"));
  EXPECT_EQ(300, FinishOrDie(second, kWaitMs, "the second caller"));
  EXPECT_EQ(1, daemon_.connections_seen());
  EXPECT_EQ(Strings{"the client is already available"}, Messages("client_init", "WARN"));
  EXPECT_EQ(1, CountLogged("client_init", "DEBUG", "begin to initialize the client..."));
}

}  // namespace
}  // namespace vemo_e2e
