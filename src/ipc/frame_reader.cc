#include "ipc/frame_reader.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "ipc/frame_codec.h"
#include "util/log_internal.h"
#include "util/sys.h"
#include "vemo/codes.h"

namespace vemo {
namespace {

// Log lines keep the names of the transport's functions, whose outcomes the reader reproduces.
constexpr const char *kRecvName = "ipc_socket_recv";
constexpr const char *kStepName = "recv_buffer";
constexpr const char *kWaitName = "ipc_socket_recv_timed";
// The value a failed wait reports in its log line, as the timed receive does.
constexpr int kWaitFailed = -1;
// From take_buffered: the buffered bytes hold no whole frame yet (codes are 0 or negative).
constexpr int kNeedMore = 1;

// The pieces of a frame as ipc_socket_recv reads them, named as its log lines name them.
struct Piece {
  const char *name;
  size_t offset;
};
constexpr Piece kPieces[] = {
    {"magic", 0}, {"length", frame::kMagicSize}, {"message", frame::kHeaderSize}};

// The piece that is being read once count bytes of a frame are in; *in_piece gets how many of
// them belong to it.
const Piece &piece_at(size_t count, size_t *in_piece) {
  size_t i = sizeof kPieces / sizeof kPieces[0] - 1;
  while (count < kPieces[i].offset) --i;
  *in_piece = count - kPieces[i].offset;
  return kPieces[i];
}

}  // namespace

FrameReader::FrameReader(int fd) : fd_(fd) {}

FrameReader::~FrameReader() {
  release_handed();
  free(chunk_);
  free(large_);
}

int FrameReader::next(int timeout_ms, const char **text, uint32_t *length) {
  release_handed();
  if (failure_ != 0) return failure_;
  // What the timed receive refuses is refused alike: a wait without limit, or on no socket.
  if (timeout_ms < 0 || fd_ < 0) {
    LOG_PRINT_AS(kWaitName, "ERROR", "fail to select, error=%d", kWaitFailed);
    return fail(VEMO_ERR_NO_RESOURCE);
  }
  if (chunk_ == nullptr) {
    chunk_ = static_cast<char *>(sys::ops().malloc(kChunkSize + 1));
    if (chunk_ == nullptr) {
      LOG_PRINT_AS(kRecvName, "ERROR", "fail to malloc, size=%d", static_cast<int>(kChunkSize + 1));
      return fail(VEMO_ERR_NO_RESOURCE);
    }
  }
  const Deadline deadline = Deadline::after_ms(timeout_ms, get_tick_count());
  for (;;) {
    int rc = take_buffered(text, length);
    if (rc != kNeedMore) return rc == VEMO_OK ? rc : fail(rc);
    rc = fill(deadline);
    if (rc == VEMO_ERR_RECV_TIMEOUT) return rc;
    if (rc != VEMO_OK) return fail(rc);
  }
}

char *FrameReader::take_text() {
  if (handed_ == Handed::kLarge) {
    char *text = large_;
    large_ = nullptr;
    handed_ = Handed::kNone;
    return text;
  }
  if (handed_ != Handed::kInChunk) return nullptr;
  size_t size = static_cast<size_t>(handed_length_) + 1;
  char *copy = static_cast<char *>(sys::ops().malloc(size));
  if (copy == nullptr) {
    LOG_PRINT_AS(kRecvName, "ERROR", "fail to malloc, size=%d", static_cast<int>(size));
    return nullptr;
  }
  memcpy(copy, handed_text_, size);
  return copy;
}

// A whole frame from what is buffered, without a system call; kNeedMore when there is none yet.
int FrameReader::take_buffered(const char **text, uint32_t *length) {
  char *payload = nullptr;
  uint32_t size = 0;
  if (large_ != nullptr) {
    if (large_have_ < large_length_) return kNeedMore;
    payload = large_;
    size = large_length_;
    handed_ = Handed::kLarge;
  } else {
    const size_t available = end_ - begin_;
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(chunk_ + begin_);
    if (available < frame::kMagicSize) return kNeedMore;
    if (!frame::magic_matches(bytes)) {
      LOG_PRINT_AS(kRecvName, "ERROR", "the magic does not match");
      return VEMO_ERR_BAD_FORMAT;
    }
    if (available < frame::kHeaderSize) return kNeedMore;
    size = frame::decode_length(bytes + frame::kMagicSize);
    // Refused before anything is allocated: a hostile length must not cost memory.
    if (!frame::payload_length_ok(size)) {
      LOG_PRINT_AS(kRecvName, "ERROR", "the length of the message is too long, size=%u", size);
      return VEMO_ERR_BAD_FORMAT;
    }
    if (frame::frame_size(size) > kChunkSize) return start_large(size);
    if (available < frame::frame_size(size)) return kNeedMore;
    payload = chunk_ + begin_ + frame::kHeaderSize;
    // Terminated in place: the byte after the payload (the next frame's first byte, or the spare
    // byte at the chunk's end) is kept aside and put back when the frame is released.
    saved_ = payload[size];
    payload[size] = '\0';
    handed_ = Handed::kInChunk;
  }
  handed_text_ = payload;
  handed_length_ = size;
  LOG_PRINT_AS(kRecvName, "INFO", "IPC receive from %d: %s", fd_, payload);
  *text = payload;
  *length = size;
  return VEMO_OK;
}

// Gives a frame larger than the chunk a buffer of its own, of exactly payload + 1 bytes.
int FrameReader::start_large(uint32_t length) {
  size_t size = static_cast<size_t>(length) + 1;
  large_ = static_cast<char *>(sys::ops().malloc(size));
  if (large_ == nullptr) {
    LOG_PRINT_AS(kRecvName, "ERROR", "fail to malloc, size=%d", static_cast<int>(size));
    return VEMO_ERR_NO_RESOURCE;
  }
  // Everything buffered belongs to this frame (it is larger than the chunk), so the chunk is
  // emptied into the new buffer, and the rest of the payload is read straight into it.
  large_have_ = static_cast<uint32_t>(end_ - begin_ - frame::kHeaderSize);
  memcpy(large_, chunk_ + begin_ + frame::kHeaderSize, large_have_);
  large_[length] = '\0';
  large_length_ = length;
  begin_ = end_ = 0;
  return kNeedMore;
}

// One receive of as much as there is room for, after a wait if the socket was empty last time.
// 0 when bytes came; VEMO_ERR_RECV_TIMEOUT; or the failure, logged.
int FrameReader::fill(const Deadline &deadline) {
  for (;;) {
    char *into = nullptr;
    size_t room = 0;
    if (large_ != nullptr) {
      // Only the rest of this frame: the next one starts in the chunk again.
      into = large_ + large_have_;
      room = large_length_ - large_have_;
    } else {
      // What is left is the start of one frame (smaller than the chunk): moved to the front, it
      // leaves room for its rest.
      if (begin_ > 0) {
        memmove(chunk_, chunk_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
      }
      into = chunk_ + end_;
      room = kChunkSize - end_;
    }
    if (drained_) {
      int rc = wait_readable(deadline);
      if (rc != VEMO_OK) return rc;
    }
    ssize_t got = sys::ops().recv(fd_, into, room, MSG_DONTWAIT);
    if (got > 0) {
      if (large_ != nullptr) {
        large_have_ += static_cast<uint32_t>(got);
      } else {
        end_ += static_cast<size_t>(got);
      }
      // A receive that did not fill the room emptied the socket: the next one waits first, so
      // that an idle connection costs one poll per call, not a receive that fails and a poll.
      drained_ = static_cast<size_t>(got) < room;
      return VEMO_OK;
    }
    if (got == 0) return end_of_stream();
    int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK) {
      drained_ = true;
      continue;
    }
    if (error == EINTR) continue;  // a signal is never a failure of the stream
    return receive_failed(error);
  }
}

int FrameReader::wait_readable(const Deadline &deadline) {
  for (;;) {
    struct pollfd entry = {fd_, POLLIN, 0};
    int ready = sys::ops().poll(&entry, 1, deadline.remaining_ms(get_tick_count()));
    if (ready > 0 && (entry.revents & POLLNVAL) == 0) return VEMO_OK;
    if (ready == 0) return VEMO_ERR_RECV_TIMEOUT;
    if (ready < 0 && errno == EINTR) continue;
    LOG_PRINT_AS(kWaitName, "ERROR", "fail to select, error=%d", kWaitFailed);
    return VEMO_ERR_NO_RESOURCE;
  }
}

// The peer closed: quietly at the start of a piece, as a cut piece inside one.
int FrameReader::end_of_stream() const {
  size_t in_piece = 0;
  const Piece &piece = piece_at(frame_bytes(), &in_piece);
  if (in_piece == 0) return VEMO_ERR_PEER_CLOSED;
  LOG_PRINT_AS(kRecvName, "ERROR", "fail to receive the %s, code=%d", piece.name,
               static_cast<int>(in_piece));
  return VEMO_ERR_SHORT_READ;
}

int FrameReader::receive_failed(int error) const {
  LOG_PRINT_AS(kStepName, "ERROR", "fail to receive buffer, error=%d", error);
  size_t in_piece = 0;
  const Piece &piece = piece_at(frame_bytes(), &in_piece);
  LOG_PRINT_AS(kRecvName, "ERROR", "fail to receive the %s, code=%d", piece.name,
               in_piece > 0 ? static_cast<int>(in_piece) : -1);
  return VEMO_ERR_SHORT_READ;
}

// The bytes of the frame being read that are in so far.
size_t FrameReader::frame_bytes() const {
  if (large_ != nullptr) return frame::kHeaderSize + large_have_;
  return end_ - begin_;
}

void FrameReader::release_handed() {
  if (handed_ == Handed::kInChunk) {
    handed_text_[handed_length_] = saved_;
    begin_ += frame::frame_size(handed_length_);
  } else if (handed_ == Handed::kLarge) {
    // Back to the chunk alone: one large frame does not keep its memory.
    free(large_);
    large_ = nullptr;
  }
  handed_ = Handed::kNone;
}

int FrameReader::fail(int code) {
  failure_ = code;
  return code;
}

}  // namespace vemo
