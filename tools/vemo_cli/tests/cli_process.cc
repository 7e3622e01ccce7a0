#include "cli_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

extern char **environ;

namespace vemo_cli_test {
namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

// Reads what one descriptor has into text; closes it (and sets it to -1) at its end.
void drain(int *fd, std::string *text) {
  char buffer[4096];
  ssize_t got = read(*fd, buffer, sizeof buffer);
  if (got > 0) {
    text->append(buffer, static_cast<size_t>(got));
  } else if (got == 0 || errno != EINTR) {
    close(*fd);
    *fd = -1;
  }
}

// A start that failed because another process served the path at that moment (it may have
// stopped again since), as opposed to a failure that would repeat.
bool lost_the_race(const vemo::cloudd::CloudDaemon &daemon) {
  return someone_listens(vemo::cloudd::kDefaultSocketPath) ||
         daemon.last_error().find("already listening") != std::string::npos;
}

}  // namespace

CliProcess::~CliProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_fd_ >= 0) close(out_fd_);
  if (err_fd_ >= 0) close(err_fd_);
}

bool CliProcess::start(const std::vector<std::string> &args) {
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) return false;
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    close(out_pipe[0]);
    close(out_pipe[1]);
    return false;
  }
  std::vector<std::string> all = {VEMO_CLI_PATH};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (std::string &a : all) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  // posix_spawn rather than fork: this process runs the daemon's thread.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
  int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out_pipe[1]);
  close(err_pipe[1]);
  out_fd_ = out_pipe[0];
  err_fd_ = err_pipe[0];
  if (rc != 0) pid_ = -1;
  return rc == 0;
}

bool CliProcess::pump(int timeout_ms) {
  struct pollfd fds[2];
  nfds_t n = 0;
  if (out_fd_ >= 0) fds[n++] = {out_fd_, POLLIN, 0};
  if (err_fd_ >= 0) fds[n++] = {err_fd_, POLLIN, 0};
  if (n == 0) return false;
  int ready = poll(fds, n, timeout_ms);
  if (ready <= 0) return false;
  for (nfds_t i = 0; i < n; ++i) {
    if (fds[i].revents == 0) continue;
    if (fds[i].fd == out_fd_) drain(&out_fd_, &out_);
    else drain(&err_fd_, &err_);
  }
  return true;
}

std::optional<std::string> CliProcess::wait_for_line(
    const std::function<bool(const std::string &)> &pred, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    size_t start = 0;
    for (size_t nl = out_.find('\n'); nl != std::string::npos; nl = out_.find('\n', start)) {
      std::string line = out_.substr(start, nl - start);
      if (pred(line)) return line;
      start = nl + 1;
    }
    const int left = remaining_ms(deadline);
    if (left == 0 || (out_fd_ < 0 && err_fd_ < 0)) return std::nullopt;
    if (!pump(left) && out_fd_ < 0) return std::nullopt;
  }
}

std::optional<int> CliProcess::wait_exit(int timeout_ms) {
  if (pid_ <= 0) return std::nullopt;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // Both outputs end when the tool and every command it started have ended.
  while (out_fd_ >= 0 || err_fd_ >= 0) {
    const int left = remaining_ms(deadline);
    if (left == 0) return std::nullopt;
    pump(left);
  }
  if (!reaped_) {
    while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

void CliProcess::close_out() {
  if (out_fd_ >= 0) close(out_fd_);
  out_fd_ = -1;
}

bool CliProcess::send_signal(int signal) { return pid_ > 0 && !reaped_ && kill(pid_, signal) == 0; }

std::vector<std::string> CliProcess::out_lines() const {
  std::vector<std::string> lines;
  std::istringstream in(out_);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

CliRun run_cli(const std::vector<std::string> &args, int timeout_ms) {
  CliRun run;
  CliProcess cli;
  if (!cli.start(args)) {
    run.err = "could not start " VEMO_CLI_PATH;
    return run;
  }
  std::optional<int> status = cli.wait_exit(timeout_ms);
  run.status = status ? *status : -2;
  run.out = cli.out();
  run.err = cli.err();
  return run;
}

bool someone_listens(const char *path) {
  std::ifstream table("/proc/net/unix");
  std::string line;
  std::getline(table, line);  // the header
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string num, refs, protocol, flags, type, state, inode, where;
    fields >> num >> refs >> protocol >> flags >> type >> state >> inode >> where;
    if (where == path && flags == "00010000") return true;  // accepts connections
  }
  return false;
}

bool wait_path_free() {
  // Nobody tells us when another process stops serving the path: look again every 10 ms, for up
  // to a minute (another suite's case may hold it that long).
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (someone_listens(vemo::cloudd::kDefaultSocketPath)) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

void DaemonTest::SetUp() {
  daemon_.set_log_sink([this](const std::string &line) {
    std::lock_guard<std::mutex> hold(lines_mu_);
    daemon_lines_.push_back(line);
    lines_cv_.notify_all();
  });
  daemon_.set_response_delay_ms(0);
  // Other suites, in processes of their own, serve the path case after case: a start that loses
  // the race for it waits for the path to be free again, for up to a minute in all.
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  int rc = -1;
  do {
    ASSERT_TRUE(wait_path_free()) << "another process keeps serving /tmp/cloud_svr";
    rc = daemon_.start();
  } while (rc != 0 && lost_the_race(daemon_) && Clock::now() < deadline);
  ASSERT_EQ(0, rc) << daemon_.last_error();
}

bool DaemonTest::WaitDisconnected(int conn, int timeout_ms) {
  const std::string prefix = "disconnected " + std::to_string(conn) + " ";
  std::unique_lock<std::mutex> hold(lines_mu_);
  return lines_cv_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] {
    for (const std::string &line : daemon_lines_)
      if (line.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
  });
}

std::vector<vemo::cloudd::Received> DaemonTest::ReceivedOn(int conn) {
  std::vector<vemo::cloudd::Received> out;
  for (const vemo::cloudd::Received &r : daemon_.received())
    if (r.conn == conn) out.push_back(r);
  return out;
}

void DaemonTest::TearDown() {
  daemon_.stop();
  if (HasFailure()) {
    std::lock_guard<std::mutex> hold(lines_mu_);
    fprintf(stderr, "---- daemon lines ----\n");
    for (const std::string &line : daemon_lines_) fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace vemo_cli_test
