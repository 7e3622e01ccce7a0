#include "child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

extern char **environ;

namespace tools_test {
namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

void close_fd(int *fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

}  // namespace

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close_fd(&in_);
  close_fd(&out_fd_);
  close_fd(&err_fd_);
}

bool ChildProcess::start(const std::vector<std::string> &args, bool with_stdin,
                         const std::vector<std::string> &extra_env) {
  int in[2] = {-1, -1}, out[2], err[2];
  if ((with_stdin && pipe2(in, O_CLOEXEC) != 0) || pipe2(out, O_CLOEXEC) != 0 ||
      pipe2(err, O_CLOEXEC) != 0) {
    return false;
  }
  std::vector<std::string> copy = args;
  std::vector<char *> argv;
  for (std::string &a : copy) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  std::vector<std::string> env_copy = extra_env;
  std::vector<char *> env;
  for (char **e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (std::string &e : env_copy) env.push_back(&e[0]);
  env.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (with_stdin) {
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  close_fd(&in[0]);
  close(out[1]);
  close(err[1]);
  in_ = in[1];
  out_fd_ = out[0];
  err_fd_ = err[0];
  if (rc != 0) pid_ = -1;
  return rc == 0;
}

bool ChildProcess::write_text(const std::string &data) {
  for (std::size_t done = 0; done < data.size();) {
    ssize_t n = write(in_, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void ChildProcess::close_stdin() { close_fd(&in_); }

void ChildProcess::close_out() { close_fd(&out_fd_); }

bool ChildProcess::send_signal(int signal) {
  return pid_ > 0 && !reaped_ && kill(pid_, signal) == 0;
}

bool ChildProcess::pump(int timeout_ms) {
  struct pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};  // poll skips -1
  if (out_fd_ < 0 && err_fd_ < 0) return false;
  if (poll(fds, 2, timeout_ms) <= 0) return false;
  int *ends[2] = {&out_fd_, &err_fd_};
  std::string *texts[2] = {&out_, &err_};
  for (int i = 0; i < 2; ++i) {
    if (fds[i].revents == 0) continue;
    char buffer[4096];
    ssize_t got = read(*ends[i], buffer, sizeof buffer);
    if (got > 0) {
      texts[i]->append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      close_fd(ends[i]);
    }
  }
  return true;
}

std::optional<std::string> ChildProcess::wait_for_line(
    const std::function<bool(const std::string &)> &pred, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (std::size_t start = 0;;) {
    for (std::size_t nl = out_.find('\n', start); nl != std::string::npos;
         nl = out_.find('\n', start)) {
      std::string line = out_.substr(start, nl - start);
      start = nl + 1;
      if (pred(line)) return line;
    }
    const int left = remaining_ms(deadline);
    if (left == 0 || (!pump(left) && out_fd_ < 0)) return std::nullopt;
  }
}

std::optional<int> ChildProcess::wait_exit(int timeout_ms) {
  if (pid_ <= 0) return std::nullopt;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // Both outputs end when the child and everything it started have ended: no polling for it.
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
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

ProgramRun run_program(const std::vector<std::string> &argv, int timeout_ms) {
  ProgramRun run;
  ChildProcess child;
  if (!child.start(argv)) return run;
  run.status = child.wait_exit(timeout_ms).value_or(-1000);
  run.out = child.out();
  run.err = child.err();
  return run;
}

}  // namespace tools_test
