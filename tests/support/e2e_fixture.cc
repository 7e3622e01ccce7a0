#include "support/e2e_fixture.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>

#include "client/context.h"

namespace vemo_e2e {
namespace {

// The running test's capture, for die_hung.
std::atomic<vemo_test::LogCapture *> g_capture{nullptr};

void dump_log(vemo_test::LogCapture &capture) {
  const Strings lines = capture.lines();
  fprintf(stderr, "---- last library log lines ----\n");
  for (size_t i = lines.size() > 300 ? lines.size() - 300 : 0; i < lines.size(); ++i)
    fprintf(stderr, "%s\n", lines[i].c_str());
}

const char *const kDispatchFailed = "fail to dispatch the message, error=-20103";

}  // namespace

void die_hung(const char *what, int bound_ms) {
  fprintf(stderr, "FATAL: %s did not end within %d ms\n", what, bound_ms);
  if (vemo_test::LogCapture *capture = g_capture.load()) dump_log(*capture);
  fflush(stderr);
  _exit(3);
}

pid_t current_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool wait_thread_in_futex(pid_t tid, int timeout_ms) {
  const std::string dir = "/proc/self/task/" + std::to_string(tid) + "/";
  return eventually(
      [&] {
        std::ifstream stat(dir + "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        const size_t paren = text.rfind(')');
        if (paren == std::string::npos || paren + 2 >= text.size() || text[paren + 2] != 'S') return false;
        long number = -1;
        std::ifstream(dir + "syscall") >> number;
        if (number == SYS_futex) return true;
#ifdef SYS_futex_time64
        if (number == SYS_futex_time64) return true;
#endif
        // Under user-mode emulation the system-call number is the host's; the kernel's wait
        // channel still names the futex wait.
        std::string channel;
        std::ifstream(dir + "wchan") >> channel;
        return channel.compare(0, 5, "futex") == 0;
      },
      timeout_ms);
}

bool wait_client_idle(int timeout_ms) {
  return eventually(
      [] {
        vemo::cloud_client_t &c = vemo::client();
        vemo::MutexLock hold(c.lock);
        return c.state == vemo::ClientState::kIdle;
      },
      timeout_ms);
}

// Read from the kernel's table rather than by connecting: a connection would count as a client
// of that process's daemon.
bool listening_on(const std::string &path) {
  std::ifstream table("/proc/net/unix");
  std::string line;
  std::getline(table, line);  // the header
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string num, refs, protocol, flags, type, state, inode, where;
    fields >> num >> refs >> protocol >> flags >> type >> state >> inode >> where;
    if (where == path && flags == "00010000") return true;  // __SO_ACCEPTCON: it listens
  }
  return false;
}

int collect_response(int id, char **text, int timeout_ms) {
  int rc = VEMO_ERR_NOT_ARRIVED;
  eventually([&] { return (rc = vemo_get_response(id, text)) != VEMO_ERR_NOT_ARRIVED; }, timeout_ms);
  return rc;
}

void echo(const char *request, char **response) { *response = strdup(request); }

void E2ETest::SetUp() {
  g_capture.store(&log_);
  // The lock goes with the process.
  path_lock_ = open(kPathLockFile, O_CREAT | O_RDWR | O_CLOEXEC, 0666);
  ASSERT_TRUE(eventually([this] { return flock(path_lock_, LOCK_EX | LOCK_NB) == 0; }, kPathBusyWaitMs))
      << "another test process holds " << kPathLockFile;
  if (start_daemon_in_setup()) return StartDaemon();
  struct stat st;
  if (lstat(VEMO_SOCKET_PATH, &st) == 0) {
    ASSERT_TRUE(eventually([] { return !listening_on(VEMO_SOCKET_PATH); }, kPathBusyWaitMs))
        << "another process keeps serving " VEMO_SOCKET_PATH;
    unlink(VEMO_SOCKET_PATH);  // left behind by a daemon that ended without removing it
  }
}

void E2ETest::TearDown() {
  vemo::client_exit_hook();  // while the capture and the twin still exist
  daemon_.stop();
  if (path_lock_ >= 0) close(path_lock_);  // releases the lock
  g_capture.store(nullptr);
  if (HasFailure()) dump_log(log_);
}

void E2ETest::StartDaemon() {
  // Other suites serve the same path from processes of their own: wait for them to end.
  auto path_free = [] { return eventually([] { return !listening_on(VEMO_SOCKET_PATH); }, kPathBusyWaitMs); };
  ASSERT_TRUE(path_free()) << "another process keeps serving " VEMO_SOCKET_PATH;
  int rc = daemon_.start();
  if (rc != 0 && listening_on(VEMO_SOCKET_PATH) && path_free()) rc = daemon_.start();  // lost a race
  ASSERT_EQ(0, rc) << daemon_.last_error();
}

void E2ETest::Connect() {
  ASSERT_EQ(0, vemo_reconnect_cloud());
  ASSERT_GE(daemon_.connections_seen(), 1);
}

int E2ETest::CountLogged(const std::string &function, const std::string &level, const std::string &message) {
  const Strings m = Messages(function, level);
  return static_cast<int>(std::count(m.begin(), m.end(), message));
}

bool E2ETest::WaitLogged(const std::string &function, const std::string &level, const std::string &message,
                         int count, int timeout_ms) {
  return eventually([&] { return CountLogged(function, level, message) >= count; }, timeout_ms);
}

std::vector<Received> E2ETest::ReceivedMethod(const std::string &method) {
  std::vector<Received> out;
  for (const Received &r : daemon_.received())
    if (method.empty() ? r.is_reply() : r.method == method) out.push_back(r);
  return out;
}

std::string E2ETest::Ask(int id, const std::string &request) {
  daemon_.set_next_cloud_request_id(id);
  daemon_.send_cloud_request(request);
  std::optional<Received> reply = daemon_.wait_for_reply(id, kWaitMs);
  return reply.has_value() ? reply->response : "<none>";
}

bool E2ETest::Unhandled(Incoming what) {
  const int failed = CountLogged("task_dispatch", "ERROR", kDispatchFailed);
  const int warned = CountLogged("dispatch_request", "WARN", "the function is NULL");
  const size_t replies = Replies().size();
  if (what == Incoming::kCloudRequest) daemon_.send_cloud_request("anyone there?");
  if (what == Incoming::kHelloRequest) daemon_.send_hello_request();
  if (what == Incoming::kHelloResponse) daemon_.send_hello_response("anyone there?");
  return WaitLogged("task_dispatch", "ERROR", kDispatchFailed, failed + 1) &&
         CountLogged("dispatch_request", "WARN", "the function is NULL") == warned + 1 &&
         Replies().size() == replies;
}

int E2ETest::CallWithGreeting(const std::string &greeting, const std::function<int()> &call, int bound_ms) {
  const int seen = daemon_.connections_seen();
  std::future<int> result = std::async(std::launch::async, call);
  if (!daemon_.wait_for_connections(seen + 1, bound_ms)) {
    ADD_FAILURE() << "the call made no connection";
  } else if (!greeting.empty()) {
    EXPECT_EQ(1, daemon_.send_text(greeting, seen + 1));  // connection ids count from 1
  }
  return FinishOrDie(result, bound_ms, "the call with a scripted greeting");
}

}  // namespace vemo_e2e
