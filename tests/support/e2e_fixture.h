// The client library against the in-process twin of the reference daemon on /tmp/cloud_svr, its
// log captured. The client context is process-wide and cannot be reset: every test case runs in a
// process of its own. TearDown tears the client down first, so no library thread outlives the
// capture or the twin.
#ifndef VEMO_TESTS_SUPPORT_E2E_FIXTURE_H
#define VEMO_TESTS_SUPPORT_E2E_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/waits.h"
#include "vemo/vemo.h"
// By its path: the helper library is built for every suite, and only the end-to-end suite links
// the twin (the other suites never pull this file's object in).
#include "../../tools/vemo_cloudd/include/vemo_cloudd/cloud_daemon.h"

namespace vemo_e2e {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;
using vemo::cloudd::Sent;
using vemo_test::Counter;
using vemo_test::eventually;
using vemo_test::frame_of;
using vemo_test::Gate;
using vemo_test::golden_lines;
using vemo_test::kWaitMs;
using vemo_test::LogLine;
using vemo_test::parse_log_line;
using Strings = std::vector<std::string>;

// Held (flock) by every test process while it serves or uses /tmp/cloud_svr, for at most
// kPathBusyWaitMs: ctest's resource lock only orders the tests of one run.
constexpr char kPathLockFile[] = "/tmp/cloud_svr.lock";
constexpr int kPathBusyWaitMs = 60000;

pid_t current_tid();
// True once thread tid (of this process) sleeps in a futex wait (a mutex or condition variable).
bool wait_thread_in_futex(pid_t tid, int timeout_ms = kWaitMs);
// True once no start-up or teardown runs or is left to finish.
bool wait_client_idle(int timeout_ms = kWaitMs);
bool listening_on(const std::string &path);  // in any process
// Polls vemo_get_response while the response has not arrived; the last result.
int collect_response(int id, char **text, int timeout_ms = kWaitMs);
void echo(const char *request, char **response);  // answers with the request

// Ends the process with a failure message and the captured log: a thread hangs in the library,
// so the test can neither go on nor tear down.
[[noreturn]] void die_hung(const char *what, int bound_ms);
template <typename T>
T FinishOrDie(std::future<T> &result, int bound_ms, const char *what) {
  if (result.wait_for(std::chrono::milliseconds(bound_ms)) != std::future_status::ready)
    die_hung(what, bound_ms);
  return result.get();
}

// What callbacks were handed, as texts, from any thread; count is bumped after each.
class Recorder {
 public:
  void add(const std::string &what) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      seen_.push_back(what);
    }
    count.notify();
  }
  Strings all() {
    std::lock_guard<std::mutex> hold(mu_);
    return seen_;
  }
  Counter count;

 private:
  std::mutex mu_;
  Strings seen_;
};

// What reaches the client in the checks of "no handler".
enum class Incoming { kCloudRequest, kHelloRequest, kHelloResponse };

class E2ETest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  virtual bool start_daemon_in_setup() const { return true; }
  void StartDaemon();  // on /tmp/cloud_svr once no other process serves it (ASSERTs)
  void Connect();      // with a call that changes nothing on the client (ASSERTs)

  Strings Messages(const std::string &function, const std::string &level = "") { return log_.messages(function, level); }
  int CountLogged(const std::string &function, const std::string &level, const std::string &message);
  bool Logged(const std::string &function, const std::string &level, const std::string &message) {
    return CountLogged(function, level, message) > 0;
  }
  bool WaitLogged(const std::string &function, const std::string &level, const std::string &message,
                  int count = 1, int timeout_ms = kWaitMs);

  // What the twin received: messages with the method ("" for replies to cloud_request or hello).
  std::vector<Received> ReceivedMethod(const std::string &method);
  std::vector<Received> Replies() { return ReceivedMethod(""); }

  // The reply of the registered handler to a cloud request sent with id; "<none>" when none came.
  std::string Ask(int id, const std::string &request);
  // Sends what and waits for the lines of a message that finds no handler: it is dropped.
  bool Unhandled(Incoming what);

  // Sends greeting as the first frame of the next connection (the twin's own greeting must be
  // disabled; none when empty) while call() runs on another thread; the call's result.
  int CallWithGreeting(const std::string &greeting, const std::function<int()> &call,
                       int bound_ms = kWaitMs);

  vemo_test::LogCapture log_;  // first: it outlives the twin and every library thread
  CloudDaemon daemon_;         // on /tmp/cloud_svr

 private:
  int path_lock_ = -1;
};

}  // namespace vemo_e2e

#endif
