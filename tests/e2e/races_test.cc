// Teardowns that meet other work over the real socket: a thread waiting for its response, an
// application handler calling the API while the client goes away, handlers and callbacks calling
// the API on themselves, and start-ups racing teardowns.
#include <string.h>

#include <atomic>
#include <future>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

class Races : public E2ETest {};

TEST_F(Races, TeardownDuringSyncWaitReturns1101ToTheWaiter) {
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(1000);
  ASSERT_NO_FATAL_FAILURE(Connect());
  std::atomic<pid_t> tid{0};
  std::future<std::pair<int, char *>> waiter = std::async(std::launch::async, [&tid] {
    tid = current_tid();
    char *text = nullptr;
    int rc = vemo_send_request_sync("waiting", 20000, 0, &text);
    return std::make_pair(rc, text);
  });
  // Acknowledged, and the waiter asleep on its response.
  ASSERT_TRUE(daemon_.wait_for_sent(
      [](const Sent &s) { return s.text.find(R"("inner_result":{"id":1000})") != std::string::npos; },
      kWaitMs));
  ASSERT_TRUE(wait_until([&] { return tid.load() != 0; }));
  ASSERT_TRUE(wait_thread_in_futex(tid.load()));
  ASSERT_EQ(1, daemon_.send_server_notify(1));
  std::pair<int, char *> result = FinishOrDie(waiter, kWaitMs, "the synchronous waiter");
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, result.first);
  EXPECT_EQ(nullptr, result.second);
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
}

// ---- A handler calling the API while the client is torn down ------------------------------------

enum class Api { kSync, kRegister, kUnregister };
struct HandlerCase {
  const char *name;
  Api api;
  const char *method;  // what the handler's call sends
};

void PrintTo(const HandlerCase &c, std::ostream *os) { *os << c.name; }

std::atomic<Api> g_api{Api::kSync};
std::atomic<int> g_result{0};
Signal g_entered;
Signal g_done;

void other_handler(const char *, char **) {}

void calling_handler(const char *, char **response) {
  g_entered.notify();
  int rc = 0;
  switch (g_api.load()) {
    case Api::kSync: {
      char *text = nullptr;
      rc = vemo_send_request_sync("from the handler", 3000, 0, &text);
      free(text);
      break;
    }
    case Api::kRegister:
      rc = vemo_register_callback(other_handler, nullptr);
      break;
    case Api::kUnregister:
      rc = vemo_unregister_callback();
      break;
  }
  g_result = rc;
  *response = strdup("answered late");  // goes nowhere: the connection is being closed
  g_done.notify();
}

class HandlerCallsDuringTeardown : public Races, public ::testing::WithParamInterface<HandlerCase> {};

// The daemon orders the teardown when the handler's own message reaches it, so the handler is
// inside its call when the teardown begins.
TEST_P(HandlerCallsDuringTeardown, CallReturns1101AndTheTeardownCompletes) {
  const HandlerCase &c = GetParam();
  g_api = c.api;
  ASSERT_EQ(0, vemo_register_callback(calling_handler, nullptr));
  std::atomic<bool> armed{false};
  daemon_.set_handler([&armed, method = std::string(c.method)](CloudDaemon &d, const Received &m) {
    if (!armed.load() || m.method != method) return false;
    d.send_server_notify(1, m.conn);
    return true;
  });
  armed = true;
  daemon_.send_cloud_request("call the API");
  ASSERT_TRUE(g_entered.wait_for(1));
  EXPECT_TRUE(g_done.wait_for(1)) << "the handler's call never returned";
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, g_result.load());
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."))
      << "the teardown never completed";
  daemon_.set_handler(nullptr);

  // Nothing of the old registration survives, whatever the handler's call did meanwhile.
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
  daemon_.send_cloud_request("anyone?");
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(1, g_entered.count());
}

const HandlerCase kHandlerCases[] = {
    {"SyncRequestDuringTheCall", Api::kSync, "device_request"},
    {"RegisterDuringTheCall", Api::kRegister, "register_callback"},
    {"UnregisterDuringTheCall", Api::kUnregister, "unregister_callback"},
};

INSTANTIATE_TEST_SUITE_P(Api, HandlerCallsDuringTeardown, ::testing::ValuesIn(kHandlerCases),
                         [](const ::testing::TestParamInfo<HandlerCase> &info) { return info.param.name; });

// A teardown ordered while a handler runs completes without waiting for it; the handler's late
// answer goes nowhere (its connection is shut), and the next call connects afresh.
Gate *g_hold = nullptr;
void held_handler(const char *, char **response) {
  g_entered.notify();
  if (!g_hold->pass()) ADD_FAILURE() << "the gate never opened";
  *response = strdup("too late");
  g_done.notify();
}

TEST_F(Races, OrderedTeardownDoesNotWaitForARunningHandler) {
  Gate gate;
  g_hold = &gate;
  ASSERT_EQ(0, vemo_register_callback(held_handler, nullptr));
  daemon_.set_next_cloud_request_id(9);
  daemon_.send_cloud_request("hold on");
  ASSERT_TRUE(g_entered.wait_for(1));
  ASSERT_EQ(1, daemon_.send_server_notify(1));
  EXPECT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  gate.open();
  ASSERT_TRUE(g_done.wait_for(1));
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-1101"));
  EXPECT_FALSE(daemon_.wait_for_reply(9, 100).has_value());
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
}

// ---- Handlers and callbacks calling the API on themselves ----------------------------------------

std::atomic<int> g_unregister_result{1};
Signal g_unregistered;

void unregistering_handler(const char *, char **response) {
  g_unregister_result = vemo_unregister_callback();
  *response = strdup("bye");
  g_unregistered.notify();
}

TEST_F(Races, HandlerUnregisteringItselfIsNotDeadlocked) {
  ASSERT_EQ(0, vemo_register_callback(unregistering_handler, nullptr));
  daemon_.set_next_cloud_request_id(20);
  daemon_.send_cloud_request("leave");
  std::optional<Received> reply = daemon_.wait_for_reply(20, kWaitMs);
  ASSERT_TRUE(reply.has_value()) << "the handler never finished";
  EXPECT_EQ("bye", reply->response);
  EXPECT_EQ(0, g_unregister_result.load());
  EXPECT_EQ(1u, ReceivedMethod("unregister_callback").size());
  daemon_.send_cloud_request("gone?");
  EXPECT_TRUE(WaitLogged("task_dispatch", "ERROR", "fail to dispatch the message, error=-20103"));
  EXPECT_EQ(1, g_unregistered.count());
}

std::atomic<int> g_own_result{1};
std::string g_own_text;  // written before g_collected is signalled
Signal g_collected;

void collecting_callback(int id, const char *) {
  char *text = nullptr;
  g_own_result = vemo_get_response(id, &text);
  g_own_text = text != nullptr ? text : "<null>";
  free(text);
  g_collected.notify();
}

TEST_F(Races, ResponseCallbackCollectsItsOwnResponse) {
  daemon_.set_next_request_id(77);
  ASSERT_EQ(77, vemo_send_request_async("mine", 3000, 0, collecting_callback));
  ASSERT_TRUE(g_collected.wait_for(1)) << "the callback never finished";
  EXPECT_EQ(0, g_own_result.load());
  EXPECT_EQ("mine", g_own_text);
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(77, &text));
}

// ---- Start-ups racing teardowns -------------------------------------------------------------------

// The lines that open and close a start-up or a teardown, in the order they were written, must
// never interleave: a start-up by another thread right after a teardown waits for its end.
void ExpectNoOverlap(const std::vector<std::string> &lines) {
  bool starting = false;
  bool stopping = false;
  int starts = 0;
  LogLine l;
  for (const std::string &line : lines) {
    if (!parse_log_line(line, &l)) continue;
    if (l.function == "client_init" && l.message == "begin to initialize the client...") {
      EXPECT_FALSE(starting || stopping) << "a start-up began during another one or a teardown";
      starting = true;
      ++starts;
    } else if (l.function == "client_init" && l.message == "end to initialize the client...") {
      EXPECT_TRUE(starting);
      starting = false;
    } else if (l.function == "client_destroy" && l.message == "begin to destroy the client...") {
      EXPECT_FALSE(starting || stopping) << "a teardown began during a start-up or another teardown";
      stopping = true;
    } else if (l.function == "client_destroy" && l.message == "end to destroy the client...") {
      EXPECT_TRUE(stopping);
      stopping = false;
    }
  }
  EXPECT_GT(starts, 1);
}

// Threads waiting for a teardown look at the context as they wake, while the teardown resets it:
// under ThreadSanitizer this also checks that the reset is made under the lock.
TEST_F(Races, StartupsRightAfterTeardownsDoNotOverlapThem) {
  daemon_.set_response_delay_ms(0);
  std::atomic<int> requests{0};
  // Every eighth request makes the daemon order a teardown of the connection it came on.
  daemon_.set_handler([&requests](CloudDaemon &d, const Received &m) {
    if (m.method == "device_request" && ++requests % 8 == 0) d.send_server_notify(1, m.conn);
    return false;
  });
  constexpr int kThreads = 4;
  constexpr int kEach = 60;
  std::vector<std::future<Strings>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [] {
      Strings unexpected;
      for (int i = 0; i < kEach; ++i) {
        int rc = vemo_send_request_async("hammer", 3000, 0, nullptr);
        if (rc < 0 && rc != VEMO_ERR_DISCONNECTED) unexpected.push_back(std::to_string(rc));
      }
      return unexpected;
    }));
  }
  for (auto &w : workers) EXPECT_EQ(Strings{}, FinishOrDie(w, 60000, "a hammering thread"));
  daemon_.set_handler(nullptr);
  EXPECT_GE(daemon_.connections_seen(), 5) << "too few teardowns to race with";
  // The client still works once the last orders in flight have been carried out.
  EXPECT_TRUE(wait_until([] { return vemo_send_request_async("after", 3000, 0, nullptr) >= 0; }));
  ExpectNoOverlap(log_.lines());
}

}  // namespace
}  // namespace vemo_e2e
