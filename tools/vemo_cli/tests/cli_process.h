// Runs the built vemo-cli as a child process and watches its output; a fixture that serves a
// socket path of this test process's own with the in-process daemon for the end-to-end cases.
#ifndef VEMO_CLI_TESTS_CLI_PROCESS_H
#define VEMO_CLI_TESTS_CLI_PROCESS_H

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "child_process.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace vemo_cli_test {

// The bound of every wait for something due promptly; only a hang reaches it.
constexpr int kWaitMs = 10000;

// The socket path of this test process: every run of the tool gets --socket with it, so that
// cases in parallel processes (and /tmp/cloud_svr) never meet.
const std::string &test_socket_path();

// vemo-cli running with standard output and standard error on pipes, standard input on
// /dev/null.
class CliProcess : public tools_test::ChildProcess {
 public:
  // args without the program name (--socket test_socket_path() goes first).
  bool start(const std::vector<std::string> &args);
  std::optional<std::string> wait_for_line(const std::function<bool(const std::string &)> &pred,
                                           int timeout_ms = kWaitMs) {
    return ChildProcess::wait_for_line(pred, timeout_ms);
  }
  std::optional<int> wait_exit(int timeout_ms = kWaitMs) { return ChildProcess::wait_exit(timeout_ms); }
};

// The result of a run to the end.
struct CliRun {
  int status = -1000;  // exit status; minus the signal that ended it; -1000: it did not end in time
  std::string out;
  std::string err;
};
CliRun run_cli(const std::vector<std::string> &args, int timeout_ms = kWaitMs);

// The in-process daemon on test_socket_path(), with no response delay, which keeps the tests
// quick.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // True once the daemon has seen connection conn closed, after reading all that came on it.
  bool WaitDisconnected(int conn, int timeout_ms = kWaitMs);
  // What connection conn sent, in order. Other processes may talk to the daemon at the same
  // time (it serves the shared path): tests look at their own connection only.
  std::vector<vemo::cloudd::Received> ReceivedOn(int conn);

  vemo::cloudd::CloudDaemon daemon_{test_socket_path()};

 private:
  std::mutex lines_mu_;
  std::condition_variable lines_cv_;
  std::vector<std::string> daemon_lines_;  // guarded by lines_mu_; printed when the test fails
};

}  // namespace vemo_cli_test

#endif
