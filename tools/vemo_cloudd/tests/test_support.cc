#include "test_support.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "vemo/codes.h"
#include "vemo/ipc_socket.h"

namespace cloudd_test {

namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

std::string temp_socket_path(const std::string &tag) {
  std::string path = "/tmp/vemo_cloudd_" + std::to_string(getpid()) + "_" + tag + ".sock";
  unlink(path.c_str());
  return path;
}

// ---- RawClient ------------------------------------------------------------------------------

RawClient::~RawClient() { close(); }

int RawClient::connect(const std::string &path) {
  close();
  int fd = ipc_socket_init_as_client(path.c_str());
  if (fd < 0) return fd;
  fd_ = fd;
  return 0;
}

bool RawClient::send(const std::string &text) { return ipc_socket_send(fd_, text.c_str()) == 0; }

std::optional<std::string> RawClient::recv(int timeout_ms) {
  char *text = nullptr;
  last_code_ = ipc_socket_recv_timed(fd_, timeout_ms, &text);
  if (last_code_ != 0) {
    free(text);
    return std::nullopt;
  }
  std::string out(text);
  free(text);
  return out;
}

std::optional<std::string> RawClient::recv_bytes(std::size_t n, int timeout_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string out;
  while (out.size() < n) {
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, ms_left(deadline)) <= 0) return std::nullopt;
    char buf[256];
    std::size_t want = n - out.size() < sizeof(buf) ? n - out.size() : sizeof(buf);
    ssize_t got = ::recv(fd_, buf, want, 0);
    if (got <= 0) return std::nullopt;
    out.append(buf, static_cast<std::size_t>(got));
  }
  return out;
}

bool RawClient::wait_closed(int timeout_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::optional<std::string> frame = recv(ms_left(deadline));
    // A close with unread input reaches this end as a reset, which fails the read.
    if (!frame) return last_code_ == VEMO_ERR_PEER_CLOSED || last_code_ == VEMO_ERR_SHORT_READ;
    // Frames still queued before the close are passed over.
  }
}

void RawClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

std::string frame_of(const std::string &text) {
  const std::size_t n = text.size();
  return std::string("\xA1\xB2", 2) + static_cast<char>(n >> 24) + static_cast<char>(n >> 16) +
         static_cast<char>(n >> 8) + static_cast<char>(n) + text;
}

std::string device_request(int id, const std::string &text, int timeout_ms, int flag) {
  return "{\"inner_method\":\"device_request\",\"inner_params\":{\"request\":\"" + text +
         "\",\"timeout_ms\":" + std::to_string(timeout_ms) + ",\"flag\":" + std::to_string(flag) +
         "},\"inner_id\":" + std::to_string(id) + "}";
}

std::optional<std::string> untimed(const std::string &line) {
  static const char kShape[] = "0000-00-00 00:00:00.000 ";  // 0 stands for any digit
  if (line.size() < sizeof kShape - 1) return std::nullopt;
  for (std::size_t i = 0; i + 1 < sizeof kShape; ++i) {
    const bool digit = line[i] >= '0' && line[i] <= '9';
    if (kShape[i] == '0' ? !digit : line[i] != kShape[i]) return std::nullopt;
  }
  return line.substr(sizeof kShape - 1);
}

// ---- DaemonProcess --------------------------------------------------------------------------

DaemonProcess::DaemonProcess(const std::vector<std::string> &args) {
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return;
  }
  std::vector<char *> argv;
  std::string program = VEMO_CLOUDD_PATH;
  argv.push_back(&program[0]);
  std::vector<std::string> copy = args;
  for (std::string &a : copy) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  in_ = in[1];
  out_ = out[0];
  err_ = err[0];
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
  if (in_ >= 0) ::close(in_);
  if (out_ >= 0) ::close(out_);
  if (err_ >= 0) ::close(err_);
}

bool DaemonProcess::write_line(const std::string &line) { return write_text(line + "\n"); }

bool DaemonProcess::write_text(const std::string &data) {
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(in_, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void DaemonProcess::close_stdin() {
  if (in_ >= 0) ::close(in_);
  in_ = -1;
}

bool DaemonProcess::pump(int timeout_ms) {
  struct pollfd p[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
  if (out_ < 0 && err_ < 0) return false;
  int n = poll(p, 2, timeout_ms);
  if (n <= 0) return true;
  int *fds[2] = {&out_, &err_};
  std::string *texts[2] = {&out_text_, &err_text_};
  for (int i = 0; i < 2; ++i) {
    if (p[i].revents == 0) continue;
    char buf[4096];
    ssize_t got = read(*fds[i], buf, sizeof(buf));
    if (got > 0) {
      texts[i]->append(buf, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      ::close(*fds[i]);
      *fds[i] = -1;
    }
  }
  return true;
}

std::optional<std::string> DaemonProcess::wait_for_line(
    const std::function<bool(const std::string &)> &pred, int timeout_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::size_t start = 0;
    while (true) {
      std::size_t nl = out_text_.find('\n', start);
      if (nl == std::string::npos) break;
      std::string line = out_text_.substr(start, nl - start);
      line = untimed(line).value_or(line);
      if (pred(line)) return line;
      start = nl + 1;
    }
    int left = ms_left(deadline);
    if (left <= 0 || !pump(left)) return std::nullopt;
  }
}

std::optional<std::string> DaemonProcess::wait_for_line_starting(const std::string &prefix,
                                                                 int timeout_ms) {
  return wait_for_line(
      [&](const std::string &l) { return l.compare(0, prefix.size(), prefix) == 0; }, timeout_ms);
}

std::optional<int> DaemonProcess::wait_exit(int timeout_ms) {
  if (exited_) return status_;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  // The child's end of its output pipes closes as it exits; drain them until then, and only
  // then reap it, so no waiting happens in a sleep loop.
  while (out_ >= 0 || err_ >= 0) {
    int left = ms_left(deadline);
    if (left <= 0) return std::nullopt;
    pump(left);
  }
  if (waitpid(pid_, &status_, 0) != pid_) return std::nullopt;
  exited_ = true;
  return status_;
}

std::string DaemonProcess::all_stdout() { return out_text_; }
std::string DaemonProcess::all_stderr() { return err_text_; }

}  // namespace cloudd_test
