#include "run_command.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <system_error>
#include <thread>

extern char **environ;

namespace vemo_cli {
namespace {

using Clock = std::chrono::steady_clock;

class Fd {
 public:
  Fd() = default;
  ~Fd() { reset(); }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }
  bool open() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Both ends close-on-exec: the command must not inherit the other commands' pipes, which would
// keep their outputs open after those commands end.
bool make_pipe(Fd *read_end, Fd *write_end) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  read_end->reset(ends[0]);
  write_end->reset(ends[1]);
  return true;
}

void set_nonblocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int remaining_ms(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(left);
}

// In the child between fork and exec: only async-signal-safe calls (the parent has threads whose
// locks the child inherits in whatever state they were).
[[noreturn]] void exec_child(const char *const argv[], int in_fd, int out_fd) {
  setpgid(0, 0);
  // An ignored SIGPIPE would survive exec and change how pipelines in the command end.
  struct sigaction dfl;
  memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGPIPE, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // dup2 clears close-on-exec on the copies only.
  if (dup2(in_fd, STDIN_FILENO) < 0 || dup2(out_fd, STDOUT_FILENO) < 0) _exit(127);
  execve(argv[0], const_cast<char *const *>(argv), environ);
  _exit(127);
}

}  // namespace

std::string CommandResult::describe(int timeout_ms) const {
  switch (status) {
    case Status::kExited: return "exit status " + std::to_string(exit_code);
    case Status::kSignaled: return "killed by signal " + std::to_string(signal);
    case Status::kTimedOut: return "still running after " + std::to_string(timeout_ms) + " ms";
    case Status::kTooLarge:
      return "output larger than " + std::to_string(kMaxCommandOutput) + " bytes";
    case Status::kStartFailed: return "could not start: " + error;
  }
  return "unknown";
}

std::string strip_trailing_newlines(const std::string &output) {
  size_t end = output.size();
  while (end > 0 && output[end - 1] == '\n') --end;
  return output.substr(0, end);
}

CommandResult run_command(const std::string &command, const std::string &input, int timeout_ms,
                          size_t max_output) {
  CommandResult result;
  Fd in_read, in_write, out_read, out_write, exit_read, exit_write;
  if (!make_pipe(&in_read, &in_write) || !make_pipe(&out_read, &out_write) ||
      !make_pipe(&exit_read, &exit_write)) {
    result.error = std::string("pipe: ") + strerror(errno);
    return result;
  }
  const char *const argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);

  pid_t pid = fork();
  if (pid < 0) {
    result.error = std::string("fork: ") + strerror(errno);
    return result;
  }
  if (pid == 0) exec_child(argv, in_read.get(), out_write.get());
  // From this side too, so that the group exists before any kill below, whichever runs first.
  setpgid(pid, pid);
  in_read.reset();
  out_write.reset();
  set_nonblocking(in_write.get());
  set_nonblocking(out_read.get());

  // The exit is learnt from a thread blocked in waitid, which then writes one byte: poll() below
  // can thus wait for output, input space, the exit and the deadline at once. WNOWAIT leaves the
  // child a zombie until it is reaped at the end, so its pid cannot be reused by the time we
  // kill it.
  std::thread reaper;
  try {
    const int exit_fd = exit_write.get();
    reaper = std::thread([pid, exit_fd] {
      siginfo_t info;
      while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
      }
      const char done = 'x';
      while (write(exit_fd, &done, 1) < 0 && errno == EINTR) {
      }
    });
  } catch (const std::system_error &e) {
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    result.error = std::string("thread: ") + e.what();
    return result;
  }

  size_t written = 0;
  if (input.empty()) in_write.reset();
  bool exited = false;
  bool kill_group = false;
  for (;;) {
    if (exited && !out_read.open()) break;
    struct pollfd fds[3];
    nfds_t n = 0;
    int in_slot = -1, out_slot = -1, exit_slot = -1;
    if (in_write.open()) { in_slot = static_cast<int>(n); fds[n++] = {in_write.get(), POLLOUT, 0}; }
    if (out_read.open()) { out_slot = static_cast<int>(n); fds[n++] = {out_read.get(), POLLIN, 0}; }
    if (!exited) { exit_slot = static_cast<int>(n); fds[n++] = {exit_read.get(), POLLIN, 0}; }
    const int left = remaining_ms(deadline);
    const int ready = left > 0 ? poll(fds, n, left) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {  // the deadline (or a poll that cannot work: treated alike)
      result.status = CommandResult::Status::kTimedOut;
      kill_group = true;
      break;
    }
    if (in_slot >= 0 && fds[in_slot].revents != 0) {
      ssize_t w = write(in_write.get(), input.data() + written, input.size() - written);
      if (w > 0) written += static_cast<size_t>(w);
      // EPIPE: the command does not read (all of) its input, which is its right.
      if ((w < 0 && errno != EAGAIN && errno != EINTR) || written == input.size()) in_write.reset();
    }
    if (out_slot >= 0 && fds[out_slot].revents != 0) {
      char buffer[4096];
      ssize_t got = read(out_read.get(), buffer, sizeof buffer);
      if (got > 0) {
        result.output.append(buffer, static_cast<size_t>(got));
        if (result.output.size() > max_output) {
          result.output.resize(max_output);
          result.status = CommandResult::Status::kTooLarge;
          kill_group = true;
          break;
        }
      } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        out_read.reset();
      }
    }
    if (exit_slot >= 0 && fds[exit_slot].revents != 0) exited = true;
  }

  if (kill_group) {
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);  // in case the group could not be made
  }
  reaper.join();
  int wait_status = 0;
  while (waitpid(pid, &wait_status, 0) < 0 && errno == EINTR) {
  }
  if (kill_group) return result;
  if (WIFEXITED(wait_status)) {
    result.status = CommandResult::Status::kExited;
    result.exit_code = WEXITSTATUS(wait_status);
  } else {
    result.status = CommandResult::Status::kSignaled;
    result.signal = WIFSIGNALED(wait_status) ? WTERMSIG(wait_status) : 0;
  }
  return result;
}

}  // namespace vemo_cli
