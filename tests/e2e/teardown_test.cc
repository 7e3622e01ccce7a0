// Teardown over the real socket: ordered by the daemon (server_notify type 1), right after the
// greeting, and the daemon closing the connection without ordering anything.
#include <sys/resource.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

class Teardown : public E2ETest {};

Signal g_requests;
void answer_ok(const char *, char **response) {
  g_requests.notify();
  *response = strdup("ok");
}
void hello_request(char **response) { *response = strdup("hi"); }
void hello_response(const char *) {}
const vemo_hello_cloud_cb_t kHello = {hello_request, hello_response};

std::string frame(const std::string &text) {
  std::string f = "\xA1\xB2";
  const uint32_t n = static_cast<uint32_t>(text.size());
  for (int shift = 24; shift >= 0; shift -= 8) f += static_cast<char>((n >> shift) & 0xFF);
  return f + text;
}

const char kNotify0[] = R"({"inner_method":"server_notify","inner_params":{"type":0}})";
const char kNotify1[] = R"({"inner_method":"server_notify","inner_params":{"type":1}})";

double cpu_seconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST_F(Teardown, ServerNotifyOfType1TearsTheClientDown) {
  ASSERT_EQ(0, vemo_register_callback(answer_ok, &kHello));
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(1000);
  ASSERT_EQ(1000, vemo_send_request_async("pending", 5000, 0, nullptr));

  ASSERT_EQ(1, daemon_.send_server_notify(1));
  ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_EQ((Strings{"begin to destroy the client...", "destroy the task pool", "destroy the response list",
                     "destroy the message id pool", "close the client file description",
                     "end to destroy the client..."}),
            Messages("client_destroy", "DEBUG"));
  EXPECT_EQ(1, CountLogged("task_receive", "DEBUG", "end the task to receive from the server..."));
  EXPECT_EQ(1, CountLogged("task_timeout_check", "DEBUG", "end the task to check the time out..."));
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1101"));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the socket stays open";
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));

  // The next call connects again; the handlers and the pending response did not survive.
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));
  daemon_.send_cloud_request("anyone?");
  daemon_.send_hello_request();
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103", 2));
  EXPECT_EQ(0, g_requests.count());
  EXPECT_TRUE(Replies().empty());
}

TEST_F(Teardown, TeardownOrderedTwiceRunsOnce) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  ASSERT_EQ(1, daemon_.send_bytes(frame(kNotify1) + frame(kNotify1)));
  // The teardown waits for every dispatch, so once it has ended the second order has been
  // dispatched too, or was never read from the closed socket.
  ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_EQ(1, CountLogged("client_destroy", "DEBUG", "begin to destroy the client..."));
  const int orders = CountLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1101");
  EXPECT_TRUE(orders == 1 || orders == 2) << orders;
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
}

// The daemon may order the teardown as soon as the greeting is out: the order reaches the
// client while it is still finishing its start-up, and must not be lost.
// The receiving task already runs while the start-up is finishing, so the order may be read in
// that window: it waits for the start-up to end, then tears down.
TEST_F(Teardown, TeardownOrderedRightAfterTheGreetingIsCarriedOut) {
  daemon_.disable_greeting();
  constexpr int kRounds = 300;
  for (int round = 1; round <= kRounds; ++round) {
    std::future<int> call = std::async(std::launch::async, [] { return vemo_reconnect_cloud(); });
    ASSERT_TRUE(daemon_.wait_for_connections(round, kWaitMs));
    ASSERT_EQ(1, daemon_.send_bytes(frame(kNotify0) + frame(kNotify1), round));
    const int rc = FinishOrDie(call, kWaitMs, "a call connecting to a daemon that orders a teardown");
    EXPECT_TRUE(rc == 0 || rc == VEMO_ERR_DISCONNECTED) << rc;
    ASSERT_TRUE(wait_client_idle(2000)) << "round " << round << ": the ordered teardown was not carried out";
  }
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client...", kRounds));
}

// A connection the daemon closes is torn down at once: the waiting caller is woken with -1101,
// pending responses go with it, and the next call connects afresh.
TEST_F(Teardown, ClosedConnectionIsTornDownAndTheNextCallConnectsAfresh) {
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(1000);
  ASSERT_EQ(1000, vemo_send_request_async("pending", 60000, 0, nullptr));
  std::future<int> waiter = std::async(std::launch::async, [] {
    char *text = nullptr;
    return vemo_send_request_sync("waiting", 60000, 0, &text);
  });
  ASSERT_TRUE(daemon_.wait_for_message([](const Received &m) { return m.request == "waiting"; }, kWaitMs));
  ASSERT_EQ(1, daemon_.close_connections());
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, FinishOrDie(waiter, kWaitMs, "the synchronous waiter"));
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_EQ(1, CountLogged("", "WARN", "the connection to the server is lost, error=-1102"));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));
  EXPECT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
}

// A listen-only application recovers by itself: the handler is announced again on a new
// connection and answers the next cloud request.
void answer_again(const char *request, char **response) { *response = strdup(request); }

TEST_F(Teardown, HandlerIsAnnouncedAgainAfterTheConnectionIsLost) {
  ASSERT_EQ(0, vemo_register_callback(answer_again, nullptr));
  ASSERT_EQ(1, daemon_.close_connections());
  ASSERT_TRUE(daemon_.wait_for_message(
      [](const Received &m) { return m.conn == 2 && m.method == "register_callback"; }, kWaitMs));
  EXPECT_TRUE(WaitLogged("", "INFO", "the callback is registered again, attempt=1"));
  daemon_.set_next_cloud_request_id(7);
  daemon_.send_cloud_request("still there?");
  std::optional<Received> reply = daemon_.wait_for_reply(7, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("still there?", reply->response);
}

}  // namespace
}  // namespace vemo_e2e
