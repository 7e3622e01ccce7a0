#include "connection.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "vemo/codes.h"
#include "vemo/ipc_socket.h"

namespace vemo {
namespace cloudd {

namespace {

// Room made for every receive: enough for a burst of 64 typical requests in one call, small
// enough that an idle connection costs little.
constexpr std::size_t kReadRoom = 16 * 1024;
// Sent output is cut off the front of the queue once this much of it has gone, so that a
// connection that never drains completely does not keep what it sent long ago.
constexpr std::size_t kCompactOutput = 64 * 1024;

constexpr unsigned char kMagic0 = (IPC_FRAME_MAGIC >> 8) & 0xFF;
constexpr unsigned char kMagic1 = IPC_FRAME_MAGIC & 0xFF;

void append_header(std::string *out, std::size_t length) {
  const char header[IPC_FRAME_HEADER_SIZE] = {
      static_cast<char>(kMagic0),         static_cast<char>(kMagic1),
      static_cast<char>(length >> 24),    static_cast<char>((length >> 16) & 0xFF),
      static_cast<char>((length >> 8) & 0xFF), static_cast<char>(length & 0xFF)};
  out->append(header, sizeof header);
}

}  // namespace

Connection::Connection(int fd) : fd_(fd) {}

Connection::~Connection() { close(fd_); }

Connection::ReadResult Connection::read_some() {
  if (in_begin_ == in_end_) in_begin_ = in_end_ = 0;
  if (in_capacity_ - in_end_ < kReadRoom) {
    // Unread bytes move to the front; the buffer grows only when a frame needs more room.
    const std::size_t unread = in_end_ - in_begin_;
    const std::size_t want = unread + kReadRoom;
    if (want > in_capacity_) {
      std::size_t capacity = in_capacity_ == 0 ? kReadRoom : in_capacity_;
      while (capacity < want) capacity *= 2;
      std::unique_ptr<char[]> bigger(new char[capacity]);
      if (unread > 0) memcpy(bigger.get(), in_.get() + in_begin_, unread);
      in_ = std::move(bigger);
      in_capacity_ = capacity;
    } else if (unread > 0) {
      memmove(in_.get(), in_.get() + in_begin_, unread);
    }
    in_begin_ = 0;
    in_end_ = unread;
  }
  for (;;) {
    ssize_t got = recv(fd_, in_.get() + in_end_, in_capacity_ - in_end_, MSG_DONTWAIT);
    if (got > 0) {
      in_end_ += static_cast<std::size_t>(got);
      return ReadResult::kData;
    }
    if (got == 0) return ReadResult::kClosed;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? ReadResult::kAgain : ReadResult::kFailed;
  }
}

int Connection::next_frame(std::string *text) {
  const std::size_t have = in_end_ - in_begin_;
  const unsigned char *p = reinterpret_cast<const unsigned char *>(in_.get()) + in_begin_;
  // The magic is judged as soon as its two bytes are there, as the transport does.
  if (have >= 2 && (p[0] != kMagic0 || p[1] != kMagic1)) return VEMO_ERR_BAD_FORMAT;
  if (have < IPC_FRAME_HEADER_SIZE) return 0;
  const uint32_t length = (static_cast<uint32_t>(p[2]) << 24) | (static_cast<uint32_t>(p[3]) << 16) |
                          (static_cast<uint32_t>(p[4]) << 8) | static_cast<uint32_t>(p[5]);
  if (length > IPC_FRAME_MAX_PAYLOAD) return VEMO_ERR_BAD_FORMAT;
  if (have - IPC_FRAME_HEADER_SIZE < length) return 0;
  const char *body = reinterpret_cast<const char *>(p) + IPC_FRAME_HEADER_SIZE;
  text->assign(body, strnlen(body, length));
  in_begin_ += IPC_FRAME_HEADER_SIZE + length;
  return 1;
}

void Connection::queue_frame(const std::string &text) {
  append_header(&out_, text.size());
  out_ += text;
}

void Connection::queue_bytes(const std::string &bytes) { out_ += bytes; }

bool Connection::flush() {
  while (out_sent_ < out_.size()) {
    // MSG_NOSIGNAL: a client that has gone costs a failed send, never a SIGPIPE (the in-process
    // daemon runs inside test programs that do not ignore it).
    ssize_t n = send(fd_, out_.data() + out_sent_, out_.size() - out_sent_,
                     MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      out_sent_ += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (n == 0) errno = EIO;
    return false;
  }
  if (out_sent_ == out_.size()) {
    out_.clear();
    out_sent_ = 0;
  } else if (out_sent_ >= kCompactOutput) {
    out_.erase(0, out_sent_);
    out_sent_ = 0;
  }
  return true;
}

}  // namespace cloudd
}  // namespace vemo
