// Helpers of the daemon's own tests: a raw client that speaks frames through the transport, and
// the vemo_cloudd executable as a child process.
#ifndef VEMO_CLOUDD_TESTS_TEST_SUPPORT_H
#define VEMO_CLOUDD_TESTS_TEST_SUPPORT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "child_process.h"

namespace cloudd_test {

// A socket path under /tmp that belongs to this test process alone; nothing is left there.
std::string temp_socket_path(const std::string &tag);

// One client connection, without the client library: every frame goes through the transport.
class RawClient {
 public:
  RawClient() = default;
  ~RawClient();
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  // The transport's code (negative) or 0.
  int connect(const std::string &path);
  int fd() const { return fd_; }
  bool send(const std::string &text);
  // The next frame's text; nullopt when none came in time or the connection failed (last_code()
  // tells which: VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_PEER_CLOSED, ...).
  std::optional<std::string> recv(int timeout_ms);
  int last_code() const { return last_code_; }
  // Exactly n bytes as they arrive on the socket, frame or not.
  std::optional<std::string> recv_bytes(std::size_t n, int timeout_ms);
  // Waits until the daemon closes the connection (an orderly close or a reset); false when
  // nothing happens in time.
  bool wait_closed(int timeout_ms);
  void close();

 private:
  int fd_ = -1;
  int last_code_ = 0;
};

// text in a frame of the transport: magic, four-byte big-endian length, text.
std::string frame_of(const std::string &text);

// {"inner_method":"device_request","inner_params":{"request":text,"timeout_ms":..,"flag":..},
//  "inner_id":id}, as the client library prints it.
std::string device_request(int id, const std::string &text, int timeout_ms = 3000, int flag = 0);

// line without the "YYYY-MM-DD hh:mm:ss.mmm " that starts a trace line; nullopt when it has none.
std::optional<std::string> untimed(const std::string &line);

// The vemo_cloudd executable as a child, started with args, its standard input a pipe.
class DaemonProcess : public tools_test::ChildProcess {
 public:
  explicit DaemonProcess(const std::vector<std::string> &args);
  // As ChildProcess::wait_for_line, with trace lines passed to pred without their timestamp.
  std::optional<std::string> wait_for_line(const std::function<bool(const std::string &)> &pred,
                                           int timeout_ms);
  std::optional<std::string> wait_for_line_starting(const std::string &prefix, int timeout_ms);
};

}  // namespace cloudd_test

#endif
