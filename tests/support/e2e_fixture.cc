#include "support/e2e_fixture.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "client/context.h"

extern char **environ;

namespace vemo_e2e {
namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

std::string trim(const std::string &s) {
  size_t b = s.find_first_not_of(' ');
  size_t e = s.find_last_not_of(' ');
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// True when a socket listens on path, in any process. Read from the kernel's table rather than
// by connecting: a connection would count as a client of that process's daemon.
bool someone_answers(const char *path) {
  std::ifstream table("/proc/net/unix");
  std::string line;
  std::getline(table, line);  // the header
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string num, refs, protocol, flags, type, state, inode, where;
    fields >> num >> refs >> protocol >> flags >> type >> state >> inode >> where;
    // Flags 00010000: the socket accepts connections (it listens).
    if (where == path && flags == "00010000") return true;
  }
  return false;
}

// The running test's capture, for die_hung.
std::atomic<vemo_test::LogCapture *> g_capture{nullptr};

void dump_log(vemo_test::LogCapture &capture) {
  std::vector<std::string> lines = capture.lines();
  size_t from = lines.size() > 300 ? lines.size() - 300 : 0;
  fprintf(stderr, "---- last library log lines ----\n");
  for (size_t i = from; i < lines.size(); ++i) fprintf(stderr, "%s\n", lines[i].c_str());
}

}  // namespace

void die_hung(const char *what, int bound_ms) {
  fprintf(stderr, "FATAL: %s did not end within %d ms\n", what, bound_ms);
  if (vemo_test::LogCapture *capture = g_capture.load()) dump_log(*capture);
  fflush(stderr);
  _exit(3);
}

// ---- Waits ------------------------------------------------------------------------------------

bool wait_until(const std::function<bool()> &pred, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (pred()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

pid_t current_tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool wait_thread_in_futex(pid_t tid, int timeout_ms) {
  const std::string dir = "/proc/self/task/" + std::to_string(tid) + "/";
  return wait_until(
      [&] {
        std::ifstream stat(dir + "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        size_t paren = text.rfind(')');
        if (paren == std::string::npos || paren + 2 >= text.size() || text[paren + 2] != 'S')
          return false;
        std::ifstream sys(dir + "syscall");
        long number = -1;
        sys >> number;
        if (number == SYS_futex) return true;
#ifdef SYS_futex_time64
        if (number == SYS_futex_time64) return true;
#endif
        // Under user-mode emulation the system-call number is the host's; the kernel's wait
        // channel still names the futex wait.
        std::ifstream wchan(dir + "wchan");
        std::string channel;
        wchan >> channel;
        return channel.compare(0, 5, "futex") == 0;
      },
      timeout_ms);
}

bool wait_client_idle(int timeout_ms) {
  return wait_until(
      [] {
        vemo::cloud_client_t &c = vemo::client();
        vemo::MutexLock hold(c.lock);
        return c.state == vemo::ClientState::kIdle;
      },
      timeout_ms);
}

int collect_response(int id, char **text, int timeout_ms) {
  int rc = VEMO_ERR_NOT_ARRIVED;
  wait_until(
      [&] {
        rc = vemo_get_response(id, text);
        return rc != VEMO_ERR_NOT_ARRIVED;
      },
      timeout_ms);
  return rc;
}

bool parse_log_line(const std::string &line, LogLine *out) {
  size_t sep = line.find(" | - ");
  if (sep == std::string::npos) return false;
  std::vector<std::string> fields;
  std::string prefix = line.substr(0, sep);
  size_t start = 0;
  for (;;) {
    size_t bar = prefix.find(" | ", start);
    fields.push_back(prefix.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
    if (bar == std::string::npos) break;
    start = bar + 3;
  }
  if (fields.size() < 4) return false;
  out->function = fields.back();
  out->level = trim(fields[fields.size() - 4]);
  out->message = line.substr(sep + 5);
  return true;
}

// ---- ChildProcess -----------------------------------------------------------------------------

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (in_ >= 0) close(in_);
  if (out_ >= 0) close(out_);
}

bool ChildProcess::start(const std::vector<std::string> &argv,
                         const std::vector<std::string> &extra_env) {
  int in_pipe[2];
  int out_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0) return false;
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    close(in_pipe[0]);
    close(in_pipe[1]);
    return false;
  }
  std::vector<char *> args;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char *> env;
  for (char **e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string &e : extra_env) env.push_back(const_cast<char *>(e.c_str()));
  env.push_back(nullptr);

  // posix_spawn rather than fork: the parent runs threads (the twin, the client's tasks), and the
  // child must not inherit any of their locks.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  close(in_pipe[0]);
  close(out_pipe[1]);
  if (rc != 0) {
    close(in_pipe[1]);
    close(out_pipe[0]);
    return false;
  }
  pid_ = pid;
  in_ = in_pipe[1];
  out_ = out_pipe[0];
  return true;
}

bool ChildProcess::write_line(const std::string &line) {
  if (in_ < 0) return false;
  std::string text = line + "\n";
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(in_, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

int ChildProcess::pump(int timeout_ms) {
  if (out_ < 0) return -1;
  struct pollfd p = {out_, POLLIN, 0};
  int n = poll(&p, 1, timeout_ms);
  if (n == 0) return 0;
  if (n < 0) return errno == EINTR ? 0 : -1;
  char buffer[4096];
  ssize_t got = read(out_, buffer, sizeof buffer);
  if (got > 0) {
    out_text_.append(buffer, static_cast<size_t>(got));
    return 1;
  }
  if (got < 0 && errno == EINTR) return 0;
  close(out_);
  out_ = -1;
  return -1;
}

std::optional<std::string> ChildProcess::wait_for_line(
    const std::function<bool(const std::string &)> &pred, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    size_t start = 0;
    for (size_t nl = out_text_.find('\n'); nl != std::string::npos;
         start = nl + 1, nl = out_text_.find('\n', start)) {
      std::string line = out_text_.substr(start, nl - start);
      if (pred(line)) return line;
    }
    const int left = remaining_ms(deadline);
    if (out_ < 0 || left == 0) return std::nullopt;
    pump(left);
  }
}

std::optional<int> ChildProcess::wait_exit(int timeout_ms) {
  if (exited_) return status_;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      // What the child wrote last is still in the pipe.
      while (pump(remaining_ms(deadline) + 1000) > 0) {
      }
      exited_ = true;
      status_ = status;
      return status;
    }
    const int left = remaining_ms(deadline);
    if (left == 0) return std::nullopt;
    // Reading meanwhile keeps a child that writes much from blocking on a full pipe.
    if (pump(std::min(10, left)) < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string ChildProcess::output() { return out_text_; }
std::vector<std::string> ChildProcess::output_lines() {
  std::vector<std::string> lines;
  std::istringstream in(out_text_);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// ---- E2ETest ----------------------------------------------------------------------------------

void E2ETest::SetUp() {
  g_capture.store(&log_);
  // One end-to-end test at a time on this machine, whichever build or ctest run it belongs to:
  // ctest's resource lock only orders the tests of one run. The lock goes with the process.
  path_lock_ = open(kPathLockFile, O_CREAT | O_RDWR | O_CLOEXEC, 0666);
  ASSERT_GE(path_lock_, 0) << "cannot open " << kPathLockFile;
  ASSERT_TRUE(wait_until([this] { return flock(path_lock_, LOCK_EX | LOCK_NB) == 0; }, kPathBusyWaitMs))
      << "another test process holds " << kPathLockFile;
  daemon_.set_log_sink([this](const std::string &line) {
    std::lock_guard<std::mutex> hold(lines_mu_);
    daemon_lines_.push_back(line);
  });
  if (start_daemon_in_setup()) {
    StartDaemon();
    return;
  }
  struct stat st;
  if (lstat(VEMO_SOCKET_PATH, &st) == 0) {
    ASSERT_TRUE(WaitPathFree()) << "another process keeps serving " VEMO_SOCKET_PATH;
    unlink(VEMO_SOCKET_PATH);  // left behind by a daemon that ended without removing it
  }
}

void E2ETest::TearDown() {
  // Whatever the test left running ends here, while the capture and the twin still exist.
  vemo::client_exit_hook();
  daemon_.stop();
  if (path_lock_ >= 0) close(path_lock_);  // releases the lock
  path_lock_ = -1;
  g_capture.store(nullptr);
  if (HasFailure()) {
    dump_log(log_);
    std::lock_guard<std::mutex> hold(lines_mu_);
    fprintf(stderr, "---- daemon lines ----\n");
    for (const std::string &line : daemon_lines_) fprintf(stderr, "%s\n", line.c_str());
  }
}

bool E2ETest::WaitPathFree() {
  // Other suites serve the same path from processes of their own; a run of ours that meets one
  // waits for it to end rather than fail.
  return wait_until([] { return !someone_answers(VEMO_SOCKET_PATH); }, kPathBusyWaitMs);
}

void E2ETest::StartDaemon() {
  ASSERT_TRUE(WaitPathFree()) << "another process keeps serving " VEMO_SOCKET_PATH;
  int rc = daemon_.start();
  // Lost a race with another process for the path: wait once more.
  if (rc != 0 && someone_answers(VEMO_SOCKET_PATH) && WaitPathFree()) rc = daemon_.start();
  ASSERT_EQ(0, rc) << daemon_.last_error();
}

void E2ETest::Connect() {
  ASSERT_EQ(0, vemo_reconnect_cloud());
  ASSERT_GE(daemon_.connections_seen(), 1);
}

std::vector<std::string> E2ETest::Messages(const std::string &function, const std::string &level) {
  std::vector<std::string> out;
  LogLine parsed;
  for (const std::string &line : log_.lines()) {
    if (!parse_log_line(line, &parsed)) continue;
    if (!function.empty() && parsed.function != function) continue;
    if (!level.empty() && parsed.level != level) continue;
    out.push_back(parsed.message);
  }
  return out;
}

int E2ETest::CountLogged(const std::string &function, const std::string &level,
                         const std::string &message) {
  int n = 0;
  for (const std::string &m : Messages(function, level)) n += m == message ? 1 : 0;
  return n;
}

bool E2ETest::WaitLogged(const std::string &function, const std::string &level,
                         const std::string &message, int count, int timeout_ms) {
  return wait_until([&] { return CountLogged(function, level, message) >= count; }, timeout_ms);
}

std::vector<Received> E2ETest::ReceivedMethod(const std::string &method) {
  std::vector<Received> out;
  for (const Received &r : daemon_.received())
    if (r.method == method) out.push_back(r);
  return out;
}

std::vector<Received> E2ETest::Replies() {
  std::vector<Received> out;
  for (const Received &r : daemon_.received())
    if (r.is_reply()) out.push_back(r);
  return out;
}

int E2ETest::CallWithGreeting(const std::string &greeting, const std::function<int()> &call,
                              int bound_ms) {
  const int seen = daemon_.connections_seen();
  std::future<int> result = std::async(std::launch::async, call);
  if (!daemon_.wait_for_connections(seen + 1, bound_ms)) {
    ADD_FAILURE() << "the call made no connection";
  } else {
    // Connection ids count the accepted connections from 1.
    EXPECT_EQ(1, daemon_.send_text(greeting, seen + 1));
  }
  return FinishOrDie(result, bound_ms, "the call with a scripted greeting");
}

}  // namespace vemo_e2e
