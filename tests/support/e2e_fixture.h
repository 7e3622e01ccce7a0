// End-to-end fixture: the client library against the in-process twin of the reference daemon on
// the real socket path /tmp/cloud_svr, with the library's log captured.
//
// The client context is process-wide and cannot be reset; every test case runs in a process of
// its own, so each one starts from an idle client. TearDown tears the client down before the log
// capture and the twin go, so that no library thread outlives them.
#ifndef VEMO_TESTS_SUPPORT_E2E_FIXTURE_H
#define VEMO_TESTS_SUPPORT_E2E_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <condition_variable>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "vemo/vemo.h"
// By its path: the helper library is built for every suite, and only the end-to-end suite links
// the twin (the other suites never pull this file's object in).
#include "../../tools/vemo_cloudd/include/vemo_cloudd/cloud_daemon.h"

namespace vemo_e2e {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;
using vemo::cloudd::Sent;

// The bound of every wait for something that is due promptly. Only a hang reaches it.
constexpr int kWaitMs = 5000;
// How long a test waits for another process to stop serving /tmp/cloud_svr.
constexpr int kPathBusyWaitMs = 60000;
// Held (flock) by every end-to-end test process while it uses /tmp/cloud_svr. Other programs that
// serve or use the path in tests should take it too.
constexpr char kPathLockFile[] = "/tmp/cloud_svr.lock";

// A counter that threads bump and a test waits on.
class Signal {
 public:
  void notify() {
    std::lock_guard<std::mutex> hold(mu_);
    ++count_;
    cv_.notify_all();
  }
  bool wait_for(int count, int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> hold(mu_);
    return cv_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] { return count_ >= count; });
  }
  int count() {
    std::lock_guard<std::mutex> hold(mu_);
    return count_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int count_ = 0;
};

// Holds the threads that pass() it until open() is called (or timeout_ms pass: false).
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> hold(mu_);
    open_ = true;
    cv_.notify_all();
  }
  bool pass(int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> hold(mu_);
    return cv_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] { return open_; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool open_ = false;
};

// Re-tests pred every millisecond until it holds; false when timeout_ms pass first. Only for
// conditions that nobody signals (a log line, a thread's sleep, a response to collect).
bool wait_until(const std::function<bool()> &pred, int timeout_ms = kWaitMs);

// The kernel id of the calling thread.
pid_t current_tid();

// True once thread tid (of this process) sleeps in a futex wait, that is on a mutex or a
// condition variable; false when it does not within timeout_ms.
bool wait_thread_in_futex(pid_t tid, int timeout_ms = kWaitMs);

// True once the client context is idle: no start-up or teardown runs, and none is left to
// finish (read under the context's lock).
bool wait_client_idle(int timeout_ms = kWaitMs);

// Polls vemo_get_response while the response has not arrived. The last result; on 0 the text
// is stored at *text (the caller frees it).
int collect_response(int id, char **text, int timeout_ms = kWaitMs);

// Ends the process with a failure message: a thread hangs in the library, so the test can
// neither go on nor tear down. Prints the captured log first.
[[noreturn]] void die_hung(const char *what, int bound_ms);

// The value of a call run on another thread, once it ends within bound_ms; otherwise die_hung.
template <typename T>
T FinishOrDie(std::future<T> &result, int bound_ms, const char *what) {
  if (result.wait_for(std::chrono::milliseconds(bound_ms)) != std::future_status::ready)
    die_hung(what, bound_ms);
  return result.get();
}

// A child process with standard input and output on pipes (standard error is inherited).
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills the child if it still runs
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  // extra_env entries are "NAME=VALUE", added to this process's environment.
  bool start(const std::vector<std::string> &argv, const std::vector<std::string> &extra_env = {});
  bool write_line(const std::string &line);
  // The first line of standard output (from the start) that satisfies pred.
  std::optional<std::string> wait_for_line(const std::function<bool(const std::string &)> &pred,
                                           int timeout_ms = kWaitMs);
  // The exit status as from waitpid; nullopt while the child runs on after timeout_ms.
  std::optional<int> wait_exit(int timeout_ms = kWaitMs);
  std::string output();  // standard output so far
  std::vector<std::string> output_lines();

 private:
  int pump(int timeout_ms);  // 1: read something, 0: nothing in time, -1: output closed
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string out_text_;
  bool exited_ = false;
  int status_ = 0;
};

// The message part of a library log line ("... | function | - message"), with its function and
// level; false for other lines.
struct LogLine {
  std::string level;
  std::string function;
  std::string message;
};
bool parse_log_line(const std::string &line, LogLine *out);

class E2ETest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Fixtures whose tests begin without a daemon override this.
  virtual bool start_daemon_in_setup() const { return true; }

  // Starts the twin on /tmp/cloud_svr (ASSERTs).
  void StartDaemon();
  // Waits until no process answers on /tmp/cloud_svr; false when one still does after
  // kPathBusyWaitMs.
  bool WaitPathFree();
  // Connects the client with a call that changes nothing on the client: reconnect_cloud,
  // acknowledged with 0 (ASSERTs).
  void Connect();

  // Message parts of the captured lines of function (any when empty) at level (any when empty).
  std::vector<std::string> Messages(const std::string &function, const std::string &level = "");
  int CountLogged(const std::string &function, const std::string &level, const std::string &message);
  bool Logged(const std::string &function, const std::string &level, const std::string &message) {
    return CountLogged(function, level, message) > 0;
  }
  // Waits until the line has been logged count times.
  bool WaitLogged(const std::string &function, const std::string &level, const std::string &message,
                  int count = 1, int timeout_ms = kWaitMs);

  // What the twin received: messages with the method, and replies (to cloud_request or hello).
  std::vector<Received> ReceivedMethod(const std::string &method);
  std::vector<Received> Replies();

  // Sends greeting as the first frame of the next connection (the twin's own greeting must be
  // disabled), while call() runs on another thread; the call's result, or a failure when it
  // does not end within bound_ms.
  int CallWithGreeting(const std::string &greeting, const std::function<int()> &call,
                       int bound_ms = kWaitMs);

  vemo_test::LogCapture log_;  // first: it outlives the twin and every library thread
  CloudDaemon daemon_;         // on /tmp/cloud_svr

 private:
  int path_lock_ = -1;
  std::mutex lines_mu_;
  std::vector<std::string> daemon_lines_;
};

}  // namespace vemo_e2e

#endif
