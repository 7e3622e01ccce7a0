// Framed transport over Unix-domain stream sockets. See <vemo/ipc_socket.h> for the contract and
// ipc/frame_codec.h for the bytes on the wire. Every system call goes through sys::ops().
#include "vemo/ipc_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <memory>

#include "ipc/frame_codec.h"
#include "ipc/frame_send.h"
#include "util/sys.h"
#include "vemo/codes.h"
#include "vemo/util.h"

namespace vemo {
namespace {

constexpr int kListenBacklog = 512;
// The value a failed readiness wait reports in its log line, whatever the cause.
constexpr int kWaitFailed = -1;
// At most this much already-queued input is discarded after an oversize frame (see below).
constexpr size_t kMaxDrain = 1024 * 1024;

struct FreeDeleter {
  void operator()(void *pointer) const { free(pointer); }
};
template <typename T>
using HeapBuffer = std::unique_ptr<T, FreeDeleter>;

// Owns a descriptor until release(); closes it through the seam otherwise.
class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) sys::ops().close(fd_);
  }
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

enum class PathCheck { kOk, kNull, kEmpty, kTooLong };

// A path must fit the address's path field with its terminator. An empty path is refused too:
// binding it would quietly give the socket an unnamed abstract address nobody can reach.
PathCheck check_path(const char *path, size_t *length) {
  if (path == nullptr) return PathCheck::kNull;
  *length = strlen(path);
  if (*length == 0) return PathCheck::kEmpty;
  if (*length > sizeof(sockaddr_un{}.sun_path) - 1) return PathCheck::kTooLong;
  return PathCheck::kOk;
}

// The address length counts the family field and the path's characters, not the terminator.
socklen_t make_address(const char *path, size_t length, struct sockaddr_un *address) {
  memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  memcpy(address->sun_path, path, length);
  return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length);
}

// A non-blocking descriptor that reported EAGAIN is waited on until it is ready, without limit,
// as a blocking call would have waited. False (errno set) when the wait itself fails; a signal
// that interrupts it only restarts it.
bool wait_ready(int fd, short events) {
  for (;;) {
    struct pollfd entry = {fd, events, 0};
    if (sys::ops().poll(&entry, 1, -1) >= 0) return true;
    if (errno != EINTR) return false;
  }
}

// Reads count bytes into buffer, as many recv calls as it takes, so that a piece that arrives
// split is read whole and a following frame stays in the stream.
// EINTR is retried: a signal handler installed without SA_RESTART must not cut a frame in two
// and leave the stream out of step (the transport used to fail the receive there).
// Returns count when complete; otherwise the bytes read before the peer closed or a receive
// failed (so 0 when the peer closed before any byte of the piece), or -1 when the first call
// already failed.
ssize_t recv_buffer(int fd, size_t count, uint8_t *buffer) {
  size_t done = 0;
  while (done < count) {
    ssize_t got = sys::ops().recv(fd, buffer + done, count - done, 0);
    if (got > 0) {
      done += static_cast<size_t>(got);
      continue;
    }
    if (got == 0) break;  // the peer has closed
    int error = errno;
    if (error == EINTR) continue;
    if (error == EAGAIN || error == EWOULDBLOCK) {
      if (wait_ready(fd, POLLIN)) continue;
      error = errno;
    }
    LOG_PRINT("ERROR", "fail to receive buffer, error=%d", error);
    return done > 0 ? static_cast<ssize_t>(done) : -1;
  }
  return static_cast<ssize_t>(done);
}

// After an oversize length the stream cannot be resynchronised: the payload is neither read nor
// skipped. Shutting the reading side makes the peer's further sends fail, and discarding what
// is already queued (bounded, without blocking) makes every later receive see the end of the
// stream instead of reading payload bytes as a frame.
void close_for_reading(int fd) {
  sys::ops().shutdown(fd, SHUT_RD);
  uint8_t scratch[512];
  for (size_t dropped = 0; dropped < kMaxDrain;) {
    ssize_t got = sys::ops().recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
    if (got <= 0) break;
    dropped += static_cast<size_t>(got);
  }
}

}  // namespace
}  // namespace vemo

using vemo::PathCheck;
namespace frame = vemo::frame;
namespace sys = vemo::sys;

extern "C" VEMO_API int ipc_socket_init_as_server(const char *path) {
  size_t length = 0;
  switch (vemo::check_path(path, &length)) {
    case PathCheck::kNull:
      LOG_PRINT("ERROR", "the socket path is NULL");
      return VEMO_ERR_NO_SERVER;
    case PathCheck::kEmpty:
      LOG_PRINT("ERROR", "the socket path is empty");
      return VEMO_ERR_NO_SERVER;
    case PathCheck::kTooLong:
      LOG_PRINT("ERROR", "the socket path is too long, size=%d", static_cast<int>(length));
      return VEMO_ERR_NO_SERVER;
    case PathCheck::kOk:
      break;
  }
  // Close-on-exec so that a child the application starts does not keep the socket open.
  vemo::UniqueFd fd(sys::ops().socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    LOG_PRINT("ERROR", "fail to create the unix socket, error=%d", errno);
    return VEMO_ERR_NO_SERVER;
  }
  struct sockaddr_un address;
  socklen_t address_length = vemo::make_address(path, length, &address);
  // An existing file at the path is not removed: it may be another process's live socket.
  if (sys::ops().bind(fd.get(), reinterpret_cast<struct sockaddr *>(&address), address_length) != 0) {
    LOG_PRINT("ERROR", "fail to bind the unix socket, error=%d", errno);
    return VEMO_ERR_NO_SERVER;
  }
  if (sys::ops().listen(fd.get(), vemo::kListenBacklog) != 0) {
    LOG_PRINT("ERROR", "fail to listen to the unix socket, error=%d", errno);
    return VEMO_ERR_NO_SERVER;
  }
  // Best effort, as a listening socket works in either mode; flags are only written back when
  // they could be read, so a failed read never turns into a garbage flag word.
  int flags = sys::ops().fcntl(fd.get(), F_GETFL, 0);
  if (flags >= 0) sys::ops().fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
  return fd.release();
}

extern "C" VEMO_API int ipc_socket_init_as_client(const char *path) {
  size_t length = 0;
  switch (vemo::check_path(path, &length)) {
    case PathCheck::kNull:
      LOG_PRINT("ERROR", "the socket path is NULL");
      return VEMO_ERR_DISCONNECTED;
    case PathCheck::kEmpty:
      LOG_PRINT("ERROR", "the socket path is empty");
      return VEMO_ERR_DISCONNECTED;
    case PathCheck::kTooLong:
      LOG_PRINT("ERROR", "the socket path is too long, size=%d", static_cast<int>(length));
      return VEMO_ERR_DISCONNECTED;
    case PathCheck::kOk:
      break;
  }
  vemo::UniqueFd fd(sys::ops().socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    LOG_PRINT("ERROR", "fail to create the unix socket, error=%d", errno);
    return VEMO_ERR_NO_RESOURCE;
  }
  struct sockaddr_un address;
  socklen_t address_length = vemo::make_address(path, length, &address);
  if (sys::ops().connect(fd.get(), reinterpret_cast<struct sockaddr *>(&address), address_length) !=
      0) {
    LOG_PRINT("ERROR", "fail to connect the unix socket, error=%d", errno);
    return VEMO_ERR_DISCONNECTED;
  }
  return fd.release();  // left blocking
}

// Header and text leave in one sendmsg, straight from the caller's text: no allocation, no copy.
extern "C" VEMO_API int ipc_socket_send(int fd, const char *text) {
  bool stream_cut = false;
  return vemo::frame_send_unbounded(fd, text, &stream_cut);
}

extern "C" VEMO_API int ipc_socket_recv(int fd, char **text) {
  if (text == nullptr) {
    LOG_PRINT("ERROR", "the output is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  uint8_t header[frame::kLengthSize] = {0};
  // Each piece is read whole (see recv_buffer). The end of the stream before a piece's first
  // byte is a closed peer; a piece cut off after some bytes is a short read.
  ssize_t got = vemo::recv_buffer(fd, frame::kMagicSize, header);
  if (got == 0) return VEMO_ERR_PEER_CLOSED;
  if (got != static_cast<ssize_t>(frame::kMagicSize)) {
    LOG_PRINT("ERROR", "fail to receive the magic, code=%d", static_cast<int>(got));
    return VEMO_ERR_SHORT_READ;
  }
  if (!frame::magic_matches(header)) {
    LOG_PRINT("ERROR", "the magic does not match");
    return VEMO_ERR_BAD_FORMAT;
  }
  got = vemo::recv_buffer(fd, frame::kLengthSize, header);
  if (got == 0) return VEMO_ERR_PEER_CLOSED;
  if (got != static_cast<ssize_t>(frame::kLengthSize)) {
    LOG_PRINT("ERROR", "fail to receive the length, code=%d", static_cast<int>(got));
    return VEMO_ERR_SHORT_READ;
  }
  uint32_t length = frame::decode_length(header);
  // Refused before anything is allocated: a hostile or corrupt length (up to 0xFFFFFFFF, whose
  // buffer size would overflow) must not make the process allocate gigabytes.
  if (!frame::payload_length_ok(length)) {
    LOG_PRINT("ERROR", "the length of the message is too long, size=%u", length);
    vemo::close_for_reading(fd);
    return VEMO_ERR_BAD_FORMAT;
  }
  size_t size = static_cast<size_t>(length) + 1;
  vemo::HeapBuffer<char> buffer(static_cast<char *>(sys::ops().malloc(size)));
  *text = nullptr;
  if (!buffer) {
    LOG_PRINT("ERROR", "fail to malloc, size=%d", static_cast<int>(size));
    return VEMO_ERR_NO_RESOURCE;
  }
  memset(buffer.get(), 0, size);
  if (length > 0) {
    got = vemo::recv_buffer(fd, length, reinterpret_cast<uint8_t *>(buffer.get()));
    if (got != static_cast<ssize_t>(length)) {
      // The buffer is freed on leaving; the caller's pointer stays NULL.
      if (got == 0) return VEMO_ERR_PEER_CLOSED;
      LOG_PRINT("ERROR", "fail to receive the message, code=%d", static_cast<int>(got));
      return VEMO_ERR_SHORT_READ;
    }
  }
  LOG_PRINT("INFO", "IPC receive from %d: %s", fd, buffer.get());
  *text = buffer.release();
  return VEMO_OK;
}

extern "C" VEMO_API int ipc_socket_recv_timed(int fd, int timeout_ms, char **text) {
  if (text == nullptr) {
    LOG_PRINT("ERROR", "the output is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  // poll rather than select, so that descriptors of any value can be waited on. What select
  // would have refused still fails the same way: a negative timeout (poll would wait forever)
  // and a descriptor that is negative or not open (poll would skip it or flag it invalid).
  if (timeout_ms < 0 || fd < 0) {
    LOG_PRINT("ERROR", "fail to select, error=%d", vemo::kWaitFailed);
    return VEMO_ERR_NO_RESOURCE;
  }
  struct pollfd entry = {fd, POLLIN, 0};
  int ready = sys::ops().poll(&entry, 1, timeout_ms);
  if (ready == 0) return VEMO_ERR_RECV_TIMEOUT;  // a quiet poll: never logged
  // EINTR included: a signal during the wait ends it as a failure.
  if (ready < 0 || (entry.revents & POLLNVAL) != 0) {
    LOG_PRINT("ERROR", "fail to select, error=%d", vemo::kWaitFailed);
    return VEMO_ERR_NO_RESOURCE;
  }
  // Readable (or closed, or in error: the receive reports which). The pieces that follow are
  // read without a time limit.
  return ipc_socket_recv(fd, text);
}
