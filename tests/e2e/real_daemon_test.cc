// The shipped daemon executable with the library: started as a child process on /tmp/cloud_svr,
// driven through its standard input, watched through its output lines.
#include <string.h>
#include <sys/wait.h>

#include "support/e2e_fixture.h"

#ifdef VEMO_CLOUDD_PATH

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

class RealDaemon : public E2ETest {
 protected:
  bool start_daemon_in_setup() const override { return false; }

  void StartRealDaemon() {
    ASSERT_TRUE(daemon_process_.start({VEMO_CLOUDD_PATH}));
    ASSERT_TRUE(WaitLine("listening on " VEMO_SOCKET_PATH)) << daemon_process_.output();
  }

  // The daemon's lines begin with their time: the rest must be line.
  bool WaitLine(const std::string &line) {
    return daemon_process_.wait_for_line([&line](const std::string &l) {
                                           return l.size() >= line.size() &&
                                                  l.compare(l.size() - line.size(), line.size(), line) == 0;
                                         },
                                         kWaitMs).has_value();
  }

  // Quits the daemon, which must exit with 0.
  void Quit() {
    ASSERT_TRUE(daemon_process_.write_line("quit"));
    std::optional<int> status = daemon_process_.wait_exit(kWaitMs);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  }

  ChildProcess daemon_process_;
};

std::mutex g_mu;
Strings g_seen;
Signal g_calls;

void record(const std::string &what) {
  {
    std::lock_guard<std::mutex> hold(g_mu);
    g_seen.push_back(what);
  }
  g_calls.notify();
}

Strings seen() {
  std::lock_guard<std::mutex> hold(g_mu);
  return g_seen;
}

void answer_pong(const char *request, char **response) {
  record(std::string("request ") + request);
  *response = strdup(("pong:" + std::string(request)).c_str());
}
void hello_request(char **response) {
  record("hello request");
  *response = strdup("hi from the device");
}
void hello_response(const char *response) { record(std::string("hello response ") + response); }

TEST_F(RealDaemon, ServesRequestsCloudRequestsAndTeardowns) {
  ASSERT_NO_FATAL_FAILURE(StartRealDaemon());
  ASSERT_EQ(0, vemo_register_callback(answer_pong, nullptr));
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("hello daemon", 3000, 0, &text));
  EXPECT_STREQ("hello daemon", text);  // the daemon echoes by default
  free(text);

  ASSERT_TRUE(daemon_process_.write_line("cloud_request ping"));
  EXPECT_TRUE(WaitLine("answer 1 cloud_request 1 code=0 \"pong:ping\"")) << daemon_process_.output();
  EXPECT_EQ(Strings{"request ping"}, seen());

  // The daemon's order tears the client down; the next call connects again.
  ASSERT_TRUE(daemon_process_.write_line("notify 1"));
  ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_TRUE(WaitLine("disconnected 1 (closed by the client)"));
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_TRUE(WaitLine("connected 2"));
  ASSERT_NO_FATAL_FAILURE(Quit());
}

TEST_F(RealDaemon, CarriesTheHelloConversation) {
  ASSERT_NO_FATAL_FAILURE(StartRealDaemon());
  const vemo_hello_cloud_cb_t hello = {hello_request, hello_response};
  ASSERT_EQ(0, vemo_register_callback(answer_pong, &hello));
  ASSERT_TRUE(daemon_process_.write_line("hello_request"));
  EXPECT_TRUE(WaitLine("answer 1 request_of_hello_cloud code=0 \"hi from the device\""))
      << daemon_process_.output();
  ASSERT_TRUE(daemon_process_.write_line("hello_response welcome aboard"));
  ASSERT_TRUE(g_calls.wait_for(2));
  EXPECT_EQ((Strings{"hello request", "hello response welcome aboard"}), seen());
  ASSERT_TRUE(daemon_process_.write_line("notify 1"));
  ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  ASSERT_NO_FATAL_FAILURE(Quit());
}

}  // namespace
}  // namespace vemo_e2e

#endif  // VEMO_CLOUDD_PATH
