#include "test_support.h"

#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
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

// ---- DaemonProcess ----------------------------------------------------------------------------

DaemonProcess::DaemonProcess(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {VEMO_CLOUDD_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  start(argv, true);
}

std::optional<std::string> DaemonProcess::wait_for_line(
    const std::function<bool(const std::string &)> &pred, int timeout_ms) {
  return ChildProcess::wait_for_line(
      [&pred](const std::string &line) { return pred(untimed(line).value_or(line)); }, timeout_ms);
}

std::optional<std::string> DaemonProcess::wait_for_line_starting(const std::string &prefix,
                                                                 int timeout_ms) {
  return wait_for_line(
      [&](const std::string &l) { return l.compare(0, prefix.size(), prefix) == 0; }, timeout_ms);
}

}  // namespace cloudd_test
