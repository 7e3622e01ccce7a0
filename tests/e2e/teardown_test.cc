// Teardowns over the real socket, ordered by the daemon (server_notify type 1) or by the daemon
// closing the connection, and the work they meet: a thread waiting for its response, handlers
// calling the API, handlers still running, and start-ups racing them.
#include <string.h>

#include <atomic>
#include <map>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

class Teardown : public E2ETest {};

const char kNotify0[] = R"({"inner_method":"server_notify","inner_params":{"type":0}})";
const char kNotify1[] = R"({"inner_method":"server_notify","inner_params":{"type":1}})";
const char kDestroyed[] = "end to destroy the client...";

void hello_request(char **response) { *response = strdup("hi"); }
void hello_response(const char *) {}
const vemo_hello_cloud_cb_t kHello = {hello_request, hello_response};

// A connection lost either way wakes a caller asleep on its response with -1101 and takes the
// pending responses along. A closed connection is torn down at once and the handler announced
// again on a new one; the order, even given twice at once, tears down once, in its steps, and
// forgets the handlers: the next call connects.
TEST_F(Teardown, LostConnectionWakesTheWaiterAndForgetsThePending) {
  for (const bool ordered : {false, true}) {
    SCOPED_TRACE(ordered ? "ordered" : "closed");
    log_.clear();
    ASSERT_EQ(0, vemo_register_callback(echo, &kHello));
    daemon_.set_drop_response(true);
    daemon_.set_next_request_id(1000);
    const size_t sent = daemon_.sent().size();
    ASSERT_EQ(1000, vemo_send_request_async("pending", 5000, 0, nullptr));
    std::atomic<pid_t> tid{0};
    std::future<int> waiter = std::async(std::launch::async, [&tid] {
      tid = current_tid();
      char *text = nullptr;
      return vemo_send_request_sync("waiting", 20000, 0, &text);
    });
    ASSERT_TRUE(daemon_.wait_for_sent([](const Sent &s) { return s.text.find(R"({"id":1001})") != std::string::npos; },
                                      kWaitMs, sent));  // acknowledged, and the waiter asleep on its response
    ASSERT_TRUE(eventually([&] { return tid.load() != 0; }));
    ASSERT_TRUE(wait_thread_in_futex(tid.load()));
    ASSERT_EQ(1, ordered ? daemon_.send_bytes(frame_of(kNotify1) + frame_of(kNotify1)) : daemon_.close_connections());
    EXPECT_EQ(VEMO_ERR_DISCONNECTED, FinishOrDie(waiter, kWaitMs, "the synchronous waiter"));
    ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", kDestroyed));
    char *text = nullptr;
    EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));
    if (!ordered) {
      EXPECT_EQ(1, CountLogged("", "WARN", "the connection to the server is lost, error=-1102"));
      EXPECT_TRUE(WaitLogged("", "INFO", "the callback is registered again, attempt=1"));
      EXPECT_TRUE(daemon_.wait_for_message([](const Received &m) { return m.conn == 2 && m.method == "register_callback"; },
                                           kWaitMs));
      EXPECT_EQ("still there?", Ask(7, "still there?"));
      daemon_.set_drop_response(true);
      continue;
    }
    EXPECT_EQ((Strings{"begin to destroy the client...", "destroy the task pool", "destroy the response list",
                       "destroy the message id pool", "close the client file description", kDestroyed}),
              Messages("client_destroy", "DEBUG"));
    EXPECT_EQ(1, CountLogged("task_receive", "DEBUG", "end the task to receive from the server..."));
    EXPECT_EQ(1, CountLogged("task_timeout_check", "DEBUG", "end the task to check the time out..."));
    // The second order was dispatched before the teardown ended, or never read from the socket.
    const int orders = CountLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1101");
    EXPECT_TRUE(orders == 1 || orders == 2) << orders;
    EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the socket stays open";
    ASSERT_EQ(0, vemo_reconnect_cloud());
    EXPECT_EQ(3, daemon_.connections_seen());
    EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(1000, &text));
    EXPECT_TRUE(Unhandled(Incoming::kCloudRequest));
    EXPECT_TRUE(Unhandled(Incoming::kHelloRequest));
  }
}

// The order may come as soon as the greeting is out, while the client is still finishing its
// start-up (its receiving task already runs): it waits for the start-up to end, then tears down.
TEST_F(Teardown, TeardownOrderedRightAfterTheGreetingIsCarriedOut) {
  daemon_.disable_greeting();
  constexpr int kRounds = 300;
  for (int round = 1; round <= kRounds; ++round) {
    std::future<int> call = std::async(std::launch::async, [] { return vemo_reconnect_cloud(); });
    ASSERT_TRUE(daemon_.wait_for_connections(round, kWaitMs));
    ASSERT_EQ(1, daemon_.send_bytes(frame_of(kNotify0) + frame_of(kNotify1), round));
    const int rc = FinishOrDie(call, kWaitMs, "a call connecting to a daemon that orders a teardown");
    EXPECT_TRUE(rc == 0 || rc == VEMO_ERR_DISCONNECTED) << rc;
    ASSERT_TRUE(wait_client_idle(2000)) << "round " << round << ": the ordered teardown was not carried out";
  }
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", kDestroyed, kRounds));
}

// ---- Handlers calling the API while the client is torn down, or on themselves -------------------

enum class Api { kSync, kRegister, kUnregister };
std::atomic<Api> g_api{Api::kSync};
std::atomic<int> g_result{0};
Counter g_entered;
Counter g_done;
Gate *g_hold = nullptr;  // when set, handlers wait for it

void calling_handler(const char *, char **response) {
  g_entered.notify();
  char *text = nullptr;
  switch (g_api.load()) {
    case Api::kSync:
      g_result = vemo_send_request_sync("from the handler", 3000, 0, &text);
      break;
    case Api::kRegister:
      g_result = vemo_register_callback(echo, nullptr);
      break;
    case Api::kUnregister:
      g_result = vemo_unregister_callback();
      break;
  }
  free(text);
  if (g_hold != nullptr && !g_hold->pass()) ADD_FAILURE() << "the gate never opened";
  *response = strdup("answered late");  // goes nowhere when the connection is being closed
  g_done.notify();
}

// The daemon orders the teardown when the handler's own message reaches it, so the handler is
// inside its call when the teardown begins. Nothing of the old registration survives.
TEST_F(Teardown, HandlerCallingTheApiDuringTheTeardownGets1101) {
  const std::pair<Api, const char *> rows[] = {
      {Api::kSync, "device_request"}, {Api::kRegister, "register_callback"}, {Api::kUnregister, "unregister_callback"}};
  int round = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.second);
    ++round;
    g_api = row.first;
    ASSERT_EQ(0, vemo_register_callback(calling_handler, nullptr));
    daemon_.set_handler([method = std::string(row.second)](CloudDaemon &d, const Received &m) {
      if (m.method != method) return false;
      d.send_server_notify(1, m.conn);
      return true;
    });
    daemon_.send_cloud_request("call the API");
    ASSERT_TRUE(g_done.wait_for(round)) << "the handler's call never returned";
    EXPECT_EQ(VEMO_ERR_DISCONNECTED, g_result.load());
    EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", kDestroyed, round)) << "the teardown never completed";
    daemon_.set_handler(nullptr);
    ASSERT_EQ(0, vemo_reconnect_cloud());
    EXPECT_EQ(round + 1, daemon_.connections_seen());
    EXPECT_TRUE(Unhandled(Incoming::kCloudRequest));
  }
  EXPECT_EQ(3, g_entered.count());
}

// A teardown ordered while a handler runs completes without waiting for it; the handler's late
// answer goes nowhere (its connection is shut).
TEST_F(Teardown, OrderedTeardownDoesNotWaitForARunningHandler) {
  Gate gate;
  g_hold = &gate;
  g_api = Api::kUnregister;
  g_result = 1;
  ASSERT_EQ(0, vemo_register_callback(calling_handler, nullptr));
  daemon_.set_next_cloud_request_id(9);
  daemon_.send_cloud_request("hold on");
  ASSERT_TRUE(g_entered.wait_for(1));
  ASSERT_TRUE(eventually([] { return g_result.load() != 1; })) << "a handler unregistering itself hangs";
  ASSERT_EQ(1, daemon_.send_server_notify(1));
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", kDestroyed));
  gate.open();
  ASSERT_TRUE(g_done.wait_for(1));
  EXPECT_EQ(0, g_result.load()) << "a handler unregistering itself";
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1101"));
  EXPECT_FALSE(daemon_.wait_for_reply(9, 100).has_value());
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
  g_hold = nullptr;
}

// Threads waiting for a teardown look at the context as they wake, while the teardown resets it
// (under ThreadSanitizer this also checks that the reset is made under the lock). The lines that
// open and close start-ups and teardowns must never interleave.
TEST_F(Teardown, StartupsRightAfterTeardownsDoNotOverlapThem) {
  daemon_.set_response_delay_ms(0);
  std::atomic<int> requests{0};
  daemon_.set_handler([&requests](CloudDaemon &d, const Received &m) {
    if (m.method == "device_request" && ++requests % 8 == 0) d.send_server_notify(1, m.conn);
    return false;
  });
  std::vector<std::future<Strings>> workers;
  for (int t = 0; t < 4; ++t) {
    workers.push_back(std::async(std::launch::async, [] {
      Strings unexpected;
      for (int i = 0; i < 60; ++i) {
        const int rc = vemo_send_request_async("hammer", 3000, 0, nullptr);
        if (rc < 0 && rc != VEMO_ERR_DISCONNECTED) unexpected.push_back(std::to_string(rc));
      }
      return unexpected;
    }));
  }
  for (auto &w : workers) EXPECT_EQ(Strings{}, FinishOrDie(w, 60000, "a hammering thread"));
  daemon_.set_handler(nullptr);
  EXPECT_GE(daemon_.connections_seen(), 5) << "too few teardowns to race with";
  EXPECT_TRUE(eventually([] { return vemo_send_request_async("after", 3000, 0, nullptr) >= 0; }));
  const std::map<std::string, int> opens = {{"client_init: begin to initialize the client...", 1},
                                            {"client_init: end to initialize the client...", -1},
                                            {"client_destroy: begin to destroy the client...", 1},
                                            {"client_destroy: end to destroy the client...", -1}};
  int depth = 0;
  for (const std::string &line : log_.summary(true)) {
    auto step = opens.find(line.substr(line.find(' ') + 1));
    if (step == opens.end()) continue;
    depth += step->second;
    ASSERT_TRUE(depth == 0 || depth == 1) << "overlapping at: " << line;
  }
}

}  // namespace
}  // namespace vemo_e2e
