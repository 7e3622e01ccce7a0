// The teardown at process exit. A child process (this test program again, running a scenario
// registered only when the child's environment asks for it) uses the client against the twin
// that the parent serves, then exits; the parent reads the child's log on its standard output.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "child_process.h"  // tools/test_support
#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

constexpr char kScenarioVariable[] = "VEMO_E2E_EXIT_SCENARIO";
constexpr char kDoneMarker[] = "exit child: calls done";

// ---- The child's side: a session, a teardown ordered by the daemon, a second session, exit ----

class ExitScenario : public ::testing::Test {
 public:
  void TestBody() override {
    const int rc = vemo_send_request_async("order teardown", 3000, 0, nullptr);
    printf("exit child: first %s\n", rc >= 0 || rc == VEMO_ERR_DISCONNECTED ? "ok" : "unexpected");
    printf("exit child: torn down %d\n", wait_client_idle() ? 1 : 0);
    char *text = nullptr;
    printf("exit child: request %d ", vemo_send_request_sync("from the child", 3000, 0, &text));
    printf("%s\n%s\n", text != nullptr ? text : "(null)", kDoneMarker);
    fflush(stdout);
    free(text);
  }
};

// Registered before main runs, and only in a child: the parent's test list never shows it.
const bool kScenarioRegistered = getenv(kScenarioVariable) != nullptr &&
                                 ::testing::RegisterTest("ExitScenario", "Run", nullptr, nullptr, __FILE__, __LINE__,
                                                         []() -> ::testing::Test * { return new ExitScenario; });

// ---- The parent's side --------------------------------------------------------------------------

class Exit : public E2ETest {};

// The client the daemon tore down is started again, and the exit tears that one down too, in its
// steps (the tasks end on threads of their own: their lines are counted, not ordered).
TEST_F(Exit, ClientStartedTwiceIsTornDownOnceMoreAtExit) {
  daemon_.set_handler([](CloudDaemon &d, const Received &m) {
    if (m.method == "device_request" && m.request == "order teardown") d.send_server_notify(1, m.conn);
    return false;
  });
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  ASSERT_GT(n, 0);
  self[n] = '\0';
  tools_test::ChildProcess child;
  ASSERT_TRUE(child.start({self, "--gtest_filter=ExitScenario.Run"}, false, {std::string(kScenarioVariable) + "=1"}));
  const std::optional<int> status = child.wait_exit(60000);  // a sanitizer build starts slowly
  ASSERT_EQ(std::optional<int>(0), status) << child.out() << child.err();
  Strings lines;  // "function: message" of the log lines, and the child's own lines
  std::istringstream out(child.out());
  LogLine l;
  for (std::string line; std::getline(out, line);) {
    if (parse_log_line(line, &l)) lines.push_back(l.function + ": " + l.message);
    if (line.rfind("exit child: ", 0) == 0) lines.push_back(line);
  }
  for (const char *step : {"exit child: first ok", "exit child: torn down 1", "exit child: request 0 from the child",
                           "client_init: end to initialize the client...", "client_destroy: end to destroy the client..."})
    EXPECT_EQ(strncmp(step, "exit", 4) == 0 ? 1 : 2, std::count(lines.begin(), lines.end(), step)) << step;
  auto done = std::find(lines.begin(), lines.end(), kDoneMarker);
  Strings destroy;
  std::copy_if(done, lines.end(), std::back_inserter(destroy),
               [](const std::string &line) { return line.rfind("client_destroy: ", 0) == 0; });
  EXPECT_TRUE(golden_lines({"client_destroy: begin to destroy the client...", "client_destroy: destroy the task pool",
                            "client_destroy: destroy the response list", "client_destroy: destroy the message id pool",
                            "client_destroy: close the client file description",
                            "client_destroy: end to destroy the client..."},
                           destroy));
  for (const char *task : {"task_receive: end the task to receive from the server...",
                           "task_timeout_check: end the task to check the time out..."})
    EXPECT_EQ(1, std::count(done, lines.end(), task)) << task;
  EXPECT_EQ(2, daemon_.connections_seen());
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
}

}  // namespace
}  // namespace vemo_e2e
