// The extensions of <vemo/vemo_ext.h> over the real socket: connection events, handlers with a
// user pointer, the shutdown call and the socket path override.
#include <string.h>

#include <mutex>

#include "support/e2e_fixture.h"
#include "vemo/vemo_ext.h"

namespace vemo_e2e {
namespace {

class Extensions : public E2ETest {};

struct EventLog {
  std::mutex mu;
  std::vector<std::pair<int, int>> events;
  Signal told;
};

void record_event(int event, int code, void *user) {
  auto *log = static_cast<EventLog *>(user);
  {
    std::lock_guard<std::mutex> hold(log->mu);
    log->events.emplace_back(event, code);
  }
  log->told.notify();
}

void echo(const char *request, char **response) { *response = strdup(request); }

// One application lifetime: connected, lost (the daemon closed the connection), connected and
// registered again in the background, then torn down by the daemon's order.
TEST_F(Extensions, EventsTellTheConnectionsLifeInOrder) {
  EventLog log;
  ASSERT_EQ(0, vemo_set_event_callback(record_event, &log));
  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  ASSERT_TRUE(log.told.wait_for(1));
  ASSERT_EQ(1, daemon_.close_connections());
  ASSERT_TRUE(log.told.wait_for(4));
  ASSERT_EQ(1, daemon_.send_server_notify(1));
  ASSERT_TRUE(log.told.wait_for(5));
  std::lock_guard<std::mutex> hold(log.mu);
  const std::vector<std::pair<int, int>> want = {
      {VEMO_EVENT_CONNECTED, 0},     {VEMO_EVENT_LOST, VEMO_ERR_PEER_CLOSED},
      {VEMO_EVENT_CONNECTED, 0},     {VEMO_EVENT_REREGISTERED, 0},
      {VEMO_EVENT_TORN_DOWN, VEMO_ERR_DISCONNECTED}};
  EXPECT_EQ(want, log.events);
}

struct UserState {
  std::string seen;
  Signal hello_answered;
};

void answer_with_user(const char *request, char **response, void *user) {
  *response = strdup((std::string(request) + "@" + static_cast<UserState *>(user)->seen).c_str());
}
void hello_with_user(char **response, void *user) {
  *response = strdup(static_cast<UserState *>(user)->seen.c_str());
}
void hello_answer_with_user(const char *response, void *user) {
  static_cast<UserState *>(user)->seen = response;
  static_cast<UserState *>(user)->hello_answered.notify();
}

TEST_F(Extensions, HandlersWithAUserPointerReceiveIt) {
  UserState state{"state-1", {}};
  const vemo_hello_cloud_ex_cb_t hello = {hello_with_user, hello_answer_with_user};
  ASSERT_EQ(0, vemo_register_callback_ex(answer_with_user, &hello, &state));
  ASSERT_EQ(1, ReceivedMethod("register_callback").at(0).hello_cloud);
  daemon_.set_next_cloud_request_id(4);
  daemon_.send_cloud_request("ping");
  std::optional<Received> reply = daemon_.wait_for_reply(4, kWaitMs);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ("ping@state-1", reply->response);
  daemon_.send_hello_request();
  std::optional<Received> hello_reply = daemon_.wait_for_hello_reply(kWaitMs);
  ASSERT_TRUE(hello_reply.has_value());
  EXPECT_EQ("state-1", hello_reply->response);
  daemon_.send_hello_response("cloud says hi");
  ASSERT_TRUE(state.hello_answered.wait_for(1));
  EXPECT_EQ("cloud says hi", state.seen);
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_register_callback_ex(nullptr, nullptr, &state));
}

struct Outcome {
  std::mutex mu;
  std::vector<std::string> seen;  // "id code text"
  Signal told;
};
void record_outcome(int id, int code, const char *response, void *user) {
  auto *outcome = static_cast<Outcome *>(user);
  {
    std::lock_guard<std::mutex> hold(outcome->mu);
    outcome->seen.push_back(std::to_string(id) + " " + std::to_string(code) + " " +
                            (response != nullptr ? response : "(null)"));
  }
  outcome->told.notify();
}

// The callback with a user pointer hears of the response, and of a failure that the cloud
// reports for the request: a notification with inner_error_code and the request's id.
TEST_F(Extensions, AsyncCallbackWithAUserPointerHearsResponsesAndFailures) {
  Outcome outcome;
  daemon_.set_next_request_id(500);
  ASSERT_EQ(500, vemo_send_request_async_ex("fine", 3000, 0, record_outcome, &outcome));
  ASSERT_TRUE(outcome.told.wait_for(1));
  daemon_.set_drop_response(true);
  ASSERT_EQ(501, vemo_send_request_async_ex("doomed", 3000, 0, record_outcome, &outcome));
  daemon_.send_text(R"({"inner_error_code":-7,"inner_result":{"id":501}})");
  ASSERT_TRUE(outcome.told.wait_for(2));
  std::lock_guard<std::mutex> hold(outcome.mu);
  EXPECT_EQ((std::vector<std::string>{"500 0 fine", "501 -7 (null)"}), outcome.seen);
  EXPECT_EQ(1, CountLogged("dispatch_notify", "ERROR", "the error code of the response=-7"));
}

// A failure the cloud reports completes the synchronous call at once with the daemon's code,
// and is what vemo_get_response returns for an asynchronous request.
TEST_F(Extensions, ReportedFailureCompletesTheRequestWithTheDaemonsCode) {
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(900);
  std::future<int> sync = std::async(std::launch::async, [] {
    char *text = nullptr;
    return vemo_send_request_sync("will fail", 20000, 0, &text);
  });
  ASSERT_TRUE(daemon_.wait_for_sent([](const Sent &s) { return s.text.find("\"id\":900") != std::string::npos; },
                                    kWaitMs));
  daemon_.send_text(R"({"inner_error_code":-9,"inner_result":{"id":900}})");
  EXPECT_EQ(-9, FinishOrDie(sync, kWaitMs, "the synchronous call"));
  ASSERT_EQ(901, vemo_send_request_async("also fails", 3000, 0, nullptr));
  daemon_.send_text(R"({"inner_error_code":-4,"inner_result":{"id":901}})");
  char *text = nullptr;
  EXPECT_EQ(-4, collect_response(901, &text));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(901, &text));
}

Gate *g_gate = nullptr;
Signal g_in_handler;
void slow_answer(const char *request, char **response) {
  g_in_handler.notify();
  if (!g_gate->pass()) ADD_FAILURE() << "the gate never opened";
  *response = strdup(request);
}

// A shutdown lets the answer being made get out, withdraws the registration, closes the
// connection; the next call connects again.
TEST_F(Extensions, ShutdownWaitsForTheAnswerThenClosesAndUnregisters) {
  Gate gate;
  g_gate = &gate;
  ASSERT_EQ(0, vemo_register_callback(slow_answer, nullptr));
  daemon_.set_next_cloud_request_id(3);
  daemon_.send_cloud_request("last words");
  ASSERT_TRUE(g_in_handler.wait_for(1));
  std::future<int> shut = std::async(std::launch::async, [] { return vemo_shutdown(5000); });
  EXPECT_EQ(std::future_status::timeout, shut.wait_for(std::chrono::milliseconds(50)));
  gate.open();
  EXPECT_EQ(0, FinishOrDie(shut, kWaitMs, "vemo_shutdown"));
  EXPECT_TRUE(daemon_.wait_for_reply(3, kWaitMs).has_value()) << "the answer was lost";
  EXPECT_EQ(1u, ReceivedMethod("unregister_callback").size());
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
}

TEST_F(Extensions, ShutdownGivesUpOnAHandlerThatDoesNotReturnInTime) {
  Gate gate;
  g_gate = &gate;
  ASSERT_EQ(0, vemo_register_callback(slow_answer, nullptr));
  daemon_.send_cloud_request("never mind");
  ASSERT_TRUE(g_in_handler.wait_for(1));
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_shutdown(100));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
  gate.open();
}

// A private daemon on a path of its own serves the client once the path is set; the default
// path comes back with NULL.
TEST_F(Extensions, SocketPathOverrideReachesAPrivateDaemon) {
  const std::string path = "/tmp/vemo-ext-" + std::to_string(getpid());
  CloudDaemon mine(path);
  ASSERT_EQ(0, mine.start());
  ASSERT_EQ(0, vemo_set_socket_path(path.c_str()));
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(1, mine.connections_seen());
  EXPECT_EQ(0, daemon_.connections_seen());
  const std::string too_long(200, 'x');
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_set_socket_path(too_long.c_str()));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_set_socket_path(""));
  ASSERT_EQ(0, vemo_shutdown(1000));
  ASSERT_EQ(0, vemo_set_socket_path(nullptr));
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(1, daemon_.connections_seen());
  mine.stop();
}

}  // namespace
}  // namespace vemo_e2e
