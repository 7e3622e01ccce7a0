// Runs the built vemo-cli as a child process and watches its output; a fixture that serves
// /tmp/cloud_svr with the in-process daemon for the end-to-end cases.
#ifndef VEMO_CLI_TESTS_CLI_PROCESS_H
#define VEMO_CLI_TESTS_CLI_PROCESS_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vemo_cloudd/cloud_daemon.h"

namespace vemo_cli_test {

// The bound of every wait for something due promptly; only a hang reaches it.
constexpr int kWaitMs = 10000;

// vemo-cli running with standard output and standard error on pipes, standard input on
// /dev/null.
class CliProcess {
 public:
  CliProcess() = default;
  ~CliProcess();  // kills the child if it still runs
  CliProcess(const CliProcess &) = delete;
  CliProcess &operator=(const CliProcess &) = delete;

  // args without the program name.
  bool start(const std::vector<std::string> &args);
  // The first complete line of standard output that satisfies pred, reading as needed.
  std::optional<std::string> wait_for_line(const std::function<bool(const std::string &)> &pred,
                                           int timeout_ms = kWaitMs);
  // Reads both outputs to their end and reaps the child: its exit status (-1 when it was
  // killed by a signal), or nullopt when it runs on after timeout_ms.
  std::optional<int> wait_exit(int timeout_ms = kWaitMs);
  bool send_signal(int signal);
  // Stops reading standard output: the tool's next write to it fails.
  void close_out();
  pid_t pid() const { return pid_; }
  const std::string &out() const { return out_; }
  const std::string &err() const { return err_; }
  std::vector<std::string> out_lines() const;

 private:
  bool pump(int timeout_ms);  // reads what is there; false when nothing came in time
  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::string out_;
  std::string err_;
};

// The result of a run to the end.
struct CliRun {
  int status = -2;  // exit status; -1: killed by a signal; -2: did not end in time (killed)
  std::string out;
  std::string err;
};
CliRun run_cli(const std::vector<std::string> &args, int timeout_ms = kWaitMs);

// True while some process listens on path (read from the kernel's socket table, so that we do
// not count as a client of somebody else's daemon).
bool someone_listens(const char *path);
// Waits until nobody serves /tmp/cloud_svr (other suites in other processes use it too).
bool wait_path_free();

// The in-process daemon on /tmp/cloud_svr, with a response delay that keeps the tests quick.
class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // True once the daemon has seen connection conn closed, after reading all that came on it.
  bool WaitDisconnected(int conn, int timeout_ms = kWaitMs);
  // What connection conn sent, in order. Other processes may talk to the daemon at the same
  // time (it serves the shared path): tests look at their own connection only.
  std::vector<vemo::cloudd::Received> ReceivedOn(int conn);

  vemo::cloudd::CloudDaemon daemon_;

 private:
  std::mutex lines_mu_;
  std::condition_variable lines_cv_;
  std::vector<std::string> daemon_lines_;  // guarded by lines_mu_; printed when the test fails
};

}  // namespace vemo_cli_test

#endif
