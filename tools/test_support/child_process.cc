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
  for (int *fd : {&in_, &out_fd_, &err_fd_}) close_fd(fd);
}

bool ChildProcess::start(const std::vector<std::string> &args, bool with_stdin,
                         const std::vector<std::string> &extra_env) {
  int in[2] = {-1, -1}, out[2], err[2];
  if ((with_stdin && pipe2(in, O_CLOEXEC) != 0) || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return false;
  std::vector<char *> argv, env;
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  for (char **e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string &e : extra_env) env.push_back(const_cast<char *>(e.c_str()));
  argv.push_back(nullptr);
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
  for (int *fd : {&in[0], &out[1], &err[1]}) close_fd(fd);
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
bool ChildProcess::send_signal(int signal) { return pid_ > 0 && !reaped_ && kill(pid_, signal) == 0; }

bool ChildProcess::pump(int timeout_ms) {
  struct pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};  // poll skips -1
  if ((out_fd_ < 0 && err_fd_ < 0) || poll(fds, 2, timeout_ms) <= 0) return false;
  int *ends[2] = {&out_fd_, &err_fd_};
  std::string *texts[2] = {&out_, &err_};
  for (int i = 0; i < 2; ++i) {
    char buffer[4096];
    ssize_t got = fds[i].revents == 0 ? -2 : read(*ends[i], buffer, sizeof buffer);
    if (got > 0) texts[i]->append(buffer, static_cast<std::size_t>(got));
    if (got == 0 || (got == -1 && errno != EINTR)) close_fd(ends[i]);
  }
  return true;
}

std::optional<std::string> ChildProcess::wait_for_line(const std::function<bool(const std::string &)> &pred,
                                                       int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (std::size_t start = 0, nl;;) {
    for (; (nl = out_.find('\n', start)) != std::string::npos; start = nl + 1) {
      if (pred(out_.substr(start, nl - start))) return out_.substr(start, nl - start);
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
    if (remaining_ms(deadline) == 0) return std::nullopt;
    pump(remaining_ms(deadline));
  }
  while (!reaped_ && waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
  }
  reaped_ = true;
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

ProgramRun run_program(const std::vector<std::string> &argv, int timeout_ms) {
  ProgramRun run;
  ChildProcess child;
  if (child.start(argv)) run.status = child.wait_exit(timeout_ms).value_or(-1000);
  run.out = child.out();
  run.err = child.err();
  return run;
}

}  // namespace tools_test
