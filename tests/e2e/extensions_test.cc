// The extensions of <vemo/vemo_ext.h> over the real socket: connection events, handlers with a
// user pointer, failures the cloud reports, the shutdown call and the socket path override.
#include <string.h>

#include "support/e2e_fixture.h"
#include "vemo/vemo_ext.h"

namespace vemo_e2e {
namespace {

class Extensions : public E2ETest {};

void record_event(int event, int code, void *user) {
  static_cast<Recorder *>(user)->add(std::to_string(event) + " " + std::to_string(code));
}

// One application lifetime: connected, lost (the daemon closed the connection), connected and
// registered again in the background, then torn down by the daemon's order.
TEST_F(Extensions, EventsTellTheConnectionsLifeInOrder) {
  Recorder told;
  ASSERT_EQ(0, vemo_set_event_callback(record_event, &told));
  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  ASSERT_TRUE(told.count.wait_for(1));
  ASSERT_EQ(1, daemon_.close_connections());
  ASSERT_TRUE(told.count.wait_for(4));
  ASSERT_EQ(1, daemon_.send_server_notify(1));
  ASSERT_TRUE(told.count.wait_for(5));
  auto event = [](int e, int code) { return std::to_string(e) + " " + std::to_string(code); };
  EXPECT_EQ((Strings{event(VEMO_EVENT_CONNECTED, 0), event(VEMO_EVENT_LOST, VEMO_ERR_PEER_CLOSED),
                     event(VEMO_EVENT_CONNECTED, 0), event(VEMO_EVENT_REREGISTERED, 0),
                     event(VEMO_EVENT_TORN_DOWN, VEMO_ERR_DISCONNECTED)}),
            told.all());
}

void answer_with_user(const char *request, char **response, void *user) {
  static_cast<Recorder *>(user)->add("request " + std::string(request));
  *response = strdup((std::string(request) + "@user").c_str());
}
void hello_with_user(char **response, void *user) {
  static_cast<Recorder *>(user)->add("hello request");
  *response = strdup("hello@user");
}
void hello_answer_with_user(const char *response, void *user) {
  static_cast<Recorder *>(user)->add("hello response " + std::string(response));
}

TEST_F(Extensions, HandlersWithAUserPointerReceiveIt) {
  Recorder told;
  const vemo_hello_cloud_ex_cb_t hello = {hello_with_user, hello_answer_with_user};
  ASSERT_EQ(0, vemo_register_callback_ex(answer_with_user, &hello, &told));
  EXPECT_EQ(1, ReceivedMethod("register_callback").at(0).hello_cloud);
  EXPECT_EQ("ping@user", Ask(4, "ping"));
  daemon_.send_hello_request();
  std::optional<Received> hello_reply = daemon_.wait_for_hello_reply(kWaitMs);
  ASSERT_TRUE(hello_reply.has_value());
  EXPECT_EQ("hello@user", hello_reply->response);
  daemon_.send_hello_response("cloud says hi");
  ASSERT_TRUE(told.count.wait_for(3));
  EXPECT_EQ((Strings{"request ping", "hello request", "hello response cloud says hi"}), told.all());
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_register_callback_ex(nullptr, nullptr, &told));
}

void record_outcome(int id, int code, const char *response, void *user) {
  static_cast<Recorder *>(user)->add(std::to_string(id) + " " + std::to_string(code) + " " +
                                 (response != nullptr ? response : "(null)"));
}

// A failure the cloud reports (a notification with inner_error_code and the request's id)
// reaches the callback with a user pointer, completes the synchronous call at once with the
// daemon's code, and is what vemo_get_response returns for an asynchronous request.
TEST_F(Extensions, ReportedFailuresCompleteTheirRequests) {
  Recorder told;
  daemon_.set_next_request_id(500);
  ASSERT_EQ(500, vemo_send_request_async_ex("fine", 3000, 0, record_outcome, &told));
  ASSERT_TRUE(told.count.wait_for(1));
  daemon_.set_drop_response(true);
  ASSERT_EQ(501, vemo_send_request_async_ex("doomed", 3000, 0, record_outcome, &told));
  daemon_.send_text(R"({"inner_error_code":-7,"inner_result":{"id":501}})");
  ASSERT_TRUE(told.count.wait_for(2));
  EXPECT_EQ((Strings{"500 0 fine", "501 -7 (null)"}), told.all());
  EXPECT_EQ(1, CountLogged("dispatch_notify", "ERROR", "the error code of the response=-7"));

  std::future<int> sync = std::async(std::launch::async, [] {
    char *text = nullptr;
    return vemo_send_request_sync("will fail", 20000, 0, &text);
  });
  ASSERT_TRUE(daemon_.wait_for_sent([](const Sent &s) { return s.text.find("\"id\":502") != std::string::npos; }, kWaitMs));
  daemon_.send_text(R"({"inner_error_code":-9,"inner_result":{"id":502}})");
  EXPECT_EQ(-9, FinishOrDie(sync, kWaitMs, "the synchronous call"));
  ASSERT_EQ(503, vemo_send_request_async("also fails", 3000, 0, nullptr));
  daemon_.send_text(R"({"inner_error_code":-4,"inner_result":{"id":503}})");
  char *text = nullptr;
  EXPECT_EQ(-4, collect_response(503, &text));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(503, &text));
}

Gate *g_gate = nullptr;
Counter g_in_handler;
void slow_answer(const char *request, char **response) {
  g_in_handler.notify();
  if (!g_gate->pass()) ADD_FAILURE() << "the gate never opened";
  *response = strdup(request);
}

// A shutdown lets the answer being made get out, withdraws the registration, closes the
// connection; the next call connects again. It gives up on a handler that does not return.
TEST_F(Extensions, ShutdownWaitsForTheAnswerThenClosesAndUnregisters) {
  Gate first, second;
  g_gate = &first;
  ASSERT_EQ(0, vemo_register_callback(slow_answer, nullptr));
  daemon_.set_next_cloud_request_id(3);
  daemon_.send_cloud_request("last words");
  ASSERT_TRUE(g_in_handler.wait_for(1));
  std::future<int> shut = std::async(std::launch::async, [] { return vemo_shutdown(5000); });
  EXPECT_EQ(std::future_status::timeout, shut.wait_for(std::chrono::milliseconds(50)));
  first.open();
  EXPECT_EQ(0, FinishOrDie(shut, kWaitMs, "vemo_shutdown"));
  EXPECT_TRUE(daemon_.wait_for_reply(3, kWaitMs).has_value()) << "the answer was lost";
  EXPECT_EQ(1u, ReceivedMethod("unregister_callback").size());
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));

  g_gate = &second;
  ASSERT_EQ(0, vemo_register_callback(slow_answer, nullptr));
  EXPECT_EQ(2, daemon_.connections_seen());
  daemon_.send_cloud_request("never mind");
  ASSERT_TRUE(g_in_handler.wait_for(2));
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_shutdown(100));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
  second.open();
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
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_set_socket_path(std::string(200, 'x').c_str()));
  EXPECT_EQ(VEMO_ERR_INVALID_ARG, vemo_set_socket_path(""));
  ASSERT_EQ(0, vemo_shutdown(1000));
  ASSERT_EQ(0, vemo_set_socket_path(nullptr));
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(1, daemon_.connections_seen());
}

}  // namespace
}  // namespace vemo_e2e
