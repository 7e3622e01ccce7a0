#include "ipc/frame_send.h"

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "ipc/frame_codec.h"
#include "util/log_internal.h"
#include "util/sys.h"
#include "vemo/codes.h"

namespace vemo {
namespace {

// Log lines keep the names of the transport's steps whichever caller sends.
constexpr const char *kSendName = "ipc_socket_send";
constexpr const char *kStepName = "send_buffer";

// One sendmsg of what is left of the frame once `done` bytes have been taken.
ssize_t send_rest(int fd, const uint8_t *header, const char *text, size_t length, size_t done) {
  struct iovec parts[2];
  int count = 0;
  if (done < frame::kHeaderSize) {
    parts[count].iov_base = const_cast<uint8_t *>(header + done);
    parts[count].iov_len = frame::kHeaderSize - done;
    ++count;
  }
  size_t text_done = done < frame::kHeaderSize ? 0 : done - frame::kHeaderSize;
  if (text_done < length) {
    parts[count].iov_base = const_cast<char *>(text + text_done);
    parts[count].iov_len = length - text_done;
    ++count;
  }
  struct msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = parts;
  message.msg_iovlen = static_cast<size_t>(count);
  return sys::ops().sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// Waits until fd may take more, at most until deadline (none: without limit). 0 when it is
// worth sending again (writable, or in a state the next send will report), ETIMEDOUT once the
// deadline has passed, or the errno of a failed wait.
int wait_writable(int fd, const Deadline *deadline) {
  for (;;) {
    int timeout_ms = -1;
    if (deadline != nullptr) {
      timeout_ms = deadline->remaining_ms(get_tick_count());
      if (timeout_ms == 0) return ETIMEDOUT;
    }
    struct pollfd entry = {fd, POLLOUT, 0};
    int ready = sys::ops().poll(&entry, 1, timeout_ms);
    if (ready > 0) return 0;
    // A wait that ran out goes round once more so that the tick count, not poll's rounding,
    // decides whether the deadline has passed.
    if (ready == 0 || errno == EINTR) continue;
    return errno;
  }
}

int send_frame(int fd, const char *text, const Deadline *deadline, bool *stream_cut) {
  *stream_cut = false;
  if (text == nullptr) {
    LOG_PRINT_AS(kSendName, "ERROR", "the text is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  size_t length = strlen(text);
  // A frame the receiving end would refuse is not sent: the receiver would have to give up the
  // whole connection over it.
  if (!frame::payload_length_ok(length)) {
    LOG_PRINT_AS(kSendName, "ERROR", "the length of the message is too long, size=%zu", length);
    return VEMO_ERR_DISCONNECTED;
  }
  if (deadline != nullptr && deadline->expired(get_tick_count())) return VEMO_ERR_TIMEOUT;

  uint8_t header[frame::kHeaderSize];
  frame::write_header(static_cast<uint32_t>(length), header);
  const size_t size = frame::frame_size(length);
  size_t done = 0;
  int error = 0;
  while (done < size) {
    ssize_t taken = send_rest(fd, header, text, length, done);
    if (taken > 0) {
      done += static_cast<size_t>(taken);
      continue;
    }
    if (taken == 0) break;  // nothing taken and no error: retrying could spin for ever
    error = errno;
    // Retried rather than failed: an application signal handler without SA_RESTART must not
    // cost the connection (the transport used to give the frame up here).
    if (error == EINTR) continue;
    if (error != EAGAIN && error != EWOULDBLOCK) break;
    error = wait_writable(fd, deadline);
    if (error == ETIMEDOUT && done == 0) return VEMO_ERR_TIMEOUT;
    if (error != 0) break;
  }
  if (done == size) {
    LOG_PRINT_AS(kSendName, "INFO", "IPC send to %d: %s", fd, text);
    return VEMO_OK;
  }
  if (error != 0) LOG_PRINT_AS(kStepName, "ERROR", "fail to send buffer, error=%d", error);
  int code = done > 0 ? static_cast<int>(done) : (error != 0 ? -1 : 0);
  LOG_PRINT_AS(kSendName, "ERROR", "fail to send the message, code=%d", code);
  *stream_cut = done > 0;
  return VEMO_ERR_DISCONNECTED;
}

}  // namespace

int frame_send(int fd, const char *text, const Deadline &deadline, bool *stream_cut) {
  return send_frame(fd, text, &deadline, stream_cut);
}

int frame_send_unbounded(int fd, const char *text, bool *stream_cut) {
  return send_frame(fd, text, nullptr, stream_cut);
}

}  // namespace vemo
