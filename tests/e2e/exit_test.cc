// The teardown at process exit. A child process (this test program again, running one scenario
// registered only when the child's environment asks for it) uses the client against the twin
// that the parent serves, then exits; the parent reads the child's log on its standard output.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

constexpr char kScenarioVariable[] = "VEMO_E2E_EXIT_SCENARIO";
constexpr char kDoneMarker[] = "exit child: calls done";

// ---- The child's side ---------------------------------------------------------------------------

// One session: a request, then exit with the client running.
void one_session() {
  char *text = nullptr;
  int rc = vemo_send_request_sync("from the child", 3000, 0, &text);
  printf("exit child: request %d %s\n", rc, text != nullptr ? text : "(null)");
  free(text);
}

// Two sessions: the daemon orders a teardown, the next call connects again, then exit.
void two_sessions() {
  int rc = vemo_send_request_async("order teardown", 3000, 0, nullptr);
  printf("exit child: first %s\n", rc >= 0 || rc == VEMO_ERR_DISCONNECTED ? "ok" : "unexpected");
  bool torn_down = wait_client_idle();
  printf("exit child: torn down %d\n", torn_down ? 1 : 0);
  char *text = nullptr;
  rc = vemo_send_request_sync("second session", 3000, 0, &text);
  printf("exit child: request %d %s\n", rc, text != nullptr ? text : "(null)");
  free(text);
}

class ExitScenario : public ::testing::Test {
 public:
  explicit ExitScenario(std::function<void()> body) : body_(std::move(body)) {}
  void TestBody() override {
    body_();
    printf("%s\n", kDoneMarker);
    fflush(stdout);
  }

 private:
  std::function<void()> body_;
};

// Registered before main runs, and only in a child: the parent's test list never shows it.
const bool kScenarioRegistered = [] {
  const char *name = getenv(kScenarioVariable);
  if (name == nullptr) return false;
  std::function<void()> body;
  if (strcmp(name, "one_session") == 0) body = one_session;
  if (strcmp(name, "two_sessions") == 0) body = two_sessions;
  if (!body) return false;
  ::testing::RegisterTest("ExitScenario", name, nullptr, nullptr, __FILE__, __LINE__,
                          [body]() -> ExitScenario * { return new ExitScenario(body); });
  return true;
}();

// ---- The parent's side --------------------------------------------------------------------------

class Exit : public E2ETest {
 protected:
  // Runs the scenario in a child and returns its standard output lines; ASSERTs a clean exit.
  void RunChild(const std::string &scenario, std::vector<std::string> *lines) {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    ASSERT_GT(n, 0);
    self[n] = '\0';
    ChildProcess child;
    ASSERT_TRUE(child.start({self, "--gtest_filter=ExitScenario." + scenario},
                            {std::string(kScenarioVariable) + "=" + scenario}));
    // A sanitizer build starts slowly; the bound only catches a hang.
    std::optional<int> status = child.wait_exit(60000);
    ASSERT_TRUE(status.has_value()) << "the child never exited:\n" << child.output();
    *lines = child.output_lines();
    ASSERT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
        << "the child ended with status " << *status << ":\n" << child.output();
  }

  // The client_destroy and task lines that the child wrote after its last call: the exit's own.
  static Strings ExitLines(const std::vector<std::string> &lines) {
    Strings out;
    bool after = false;
    LogLine l;
    for (const std::string &line : lines) {
      if (line == kDoneMarker) after = true;
      if (after && parse_log_line(line, &l) && l.level == "DEBUG" &&
          (l.function == "client_destroy" || l.function == "task_receive" ||
           l.function == "task_timeout_check"))
        out.push_back(l.function + ": " + l.message);
    }
    return out;
  }

  static int Count(const std::vector<std::string> &lines, const std::string &function,
                   const std::string &message) {
    int n = 0;
    LogLine l;
    for (const std::string &line : lines)
      n += parse_log_line(line, &l) && l.function == function && l.message == message ? 1 : 0;
    return n;
  }
};

bool contains(const std::vector<std::string> &lines, const std::string &wanted) {
  for (const std::string &line : lines)
    if (line == wanted) return true;
  return false;
}

TEST_F(Exit, RunningClientIsTornDownAtExit) {
  std::vector<std::string> lines;
  ASSERT_NO_FATAL_FAILURE(RunChild("one_session", &lines));
  EXPECT_TRUE(contains(lines, "exit child: request 0 from the child"));
  Strings exit_lines = ExitLines(lines);
  ASSERT_FALSE(exit_lines.empty()) << "nothing was torn down at exit";
  EXPECT_EQ("client_destroy: begin to destroy the client...", exit_lines.front());
  EXPECT_EQ("client_destroy: end to destroy the client...", exit_lines.back());
  for (const char *step : {"client_destroy: destroy the task pool", "client_destroy: close the client file description",
                           "task_receive: end the task to receive from the server...",
                           "task_timeout_check: end the task to check the time out..."}) {
    EXPECT_NE(exit_lines.end(), std::find(exit_lines.begin(), exit_lines.end(), step)) << step;
  }
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
  EXPECT_EQ(1, daemon_.connections_seen());
}

TEST_F(Exit, ClientStartedTwiceIsTornDownOnceMoreAtExit) {
  daemon_.set_handler([](CloudDaemon &d, const Received &m) {
    if (m.method == "device_request" && m.request == "order teardown") d.send_server_notify(1, m.conn);
    return false;
  });
  std::vector<std::string> lines;
  ASSERT_NO_FATAL_FAILURE(RunChild("two_sessions", &lines));
  EXPECT_TRUE(contains(lines, "exit child: first ok"));
  EXPECT_TRUE(contains(lines, "exit child: torn down 1"));
  EXPECT_TRUE(contains(lines, "exit child: request 0 second session"));
  EXPECT_EQ(2, Count(lines, "client_init", "end to initialize the client..."));
  EXPECT_EQ(2, Count(lines, "client_destroy", "begin to destroy the client..."));
  EXPECT_EQ(2, Count(lines, "client_destroy", "end to destroy the client..."));
  Strings exit_lines = ExitLines(lines);
  ASSERT_FALSE(exit_lines.empty()) << "nothing was torn down at exit";
  EXPECT_EQ("client_destroy: begin to destroy the client...", exit_lines.front());
  EXPECT_EQ("client_destroy: end to destroy the client...", exit_lines.back());
  EXPECT_EQ(2, daemon_.connections_seen());
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
}

}  // namespace
}  // namespace vemo_e2e
