// The receiving end of one connection: frames read in large chunks, many per system call.
//
// ipc_socket_recv reads each frame piece by piece (magic, length, payload: three receives and a
// wait per frame) so as never to take a byte of the next frame from the stream. A connection
// with one reader can do better: a FrameReader keeps what it has read, so one receive of up to
// kChunkSize bytes takes every frame already queued on the socket, and each of them is handed
// out without another system call. The reader waits (poll) only when the last receive emptied
// the socket and no whole frame is buffered.
//
// Outcomes and log lines are those of ipc_socket_recv for the same byte stream, under the same
// function names, with these differences:
// - A timed-out wait keeps the part of a frame read so far; the next call goes on with it. The
//   time limit covers the whole frame, not only its first byte.
// - Every failure is final: the reader keeps it and returns the same code from every later
//   call, without reading or logging again. A failure means the stream cannot be trusted (or the
//   caller misused the reader); the caller gives the connection up.
// - An oversize length is refused before anything is allocated for it, but the descriptor is
//   not shut for reading: the caller tears the connection down.
// - EINTR is retried, in the receive and in the wait alike.
//
// Memory: a chunk buffer of kChunkSize + 1 bytes, allocated on the first call. A frame that
// does not fit it gets a buffer of its own (payload + 1 bytes), freed when the next call starts
// (or handed over by take_text), so that one large frame does not keep its memory.
//
// Not thread-safe: one thread at a time calls a reader (the connection's receiving task).
// The descriptor stays the caller's; the reader never closes it.
#ifndef VEMO_IPC_FRAME_READER_H
#define VEMO_IPC_FRAME_READER_H

#include <stddef.h>
#include <stdint.h>

#include "util/clock.h"

namespace vemo {

class FrameReader {
 public:
  // 64 KiB holds hundreds of ordinary messages, so a burst costs one receive per 64 KiB, while
  // a connection's fixed cost stays small on the device.
  static constexpr size_t kChunkSize = 64 * 1024;

  explicit FrameReader(int fd);
  ~FrameReader();
  FrameReader(const FrameReader &) = delete;
  FrameReader &operator=(const FrameReader &) = delete;

  // Waits at most timeout_ms for the next whole frame.
  //   0: *text is the payload, NUL-terminated, *length bytes (a payload may itself hold a zero
  //      byte). It lives inside the reader until the next call of next() or the reader's end,
  //      unless take_text() takes it over. INFO "IPC receive from %d: %s" (ipc_socket_recv).
  //   VEMO_ERR_RECV_TIMEOUT: no whole frame within timeout_ms (0: only what is there already);
  //      not logged.
  //   VEMO_ERR_PEER_CLOSED: the stream ended at a boundary of a piece (not logged).
  //   VEMO_ERR_SHORT_READ: the stream ended inside a piece, or a receive failed.
  //   VEMO_ERR_BAD_FORMAT: bad magic, or a length above IPC_FRAME_MAX_PAYLOAD.
  //   VEMO_ERR_NO_RESOURCE: no memory for a buffer; the wait failed ("fail to select, error=-1"
  //      under ipc_socket_recv_timed), also for a negative timeout or descriptor.
  // *text and *length are written only on success.
  int next(int timeout_ms, const char **text, uint32_t *length);

  // Hands the caller the frame that the last next() returned, as a heap text to be released
  // with free(): the frame's own buffer when it had one (no copy), else a copy. Null when no
  // frame is being handed out, or when the copy cannot be allocated (logged as "fail to malloc,
  // size=%d" under ipc_socket_recv; the frame then stays the reader's).
  char *take_text();

  int fd() const { return fd_; }

 private:
  enum class Handed { kNone, kInChunk, kLarge };

  int take_buffered(const char **text, uint32_t *length);
  int start_large(uint32_t length);
  int fill(const Deadline &deadline);
  int wait_readable(const Deadline &deadline);
  int end_of_stream() const;
  int receive_failed(int error) const;
  size_t frame_bytes() const;
  void release_handed();
  int fail(int code);

  const int fd_;
  int failure_ = 0;           // the final failure, once there is one
  char *chunk_ = nullptr;     // kChunkSize + 1 bytes: room for a terminator after any frame
  size_t begin_ = 0;          // unread bytes: chunk_[begin_, end_)
  size_t end_ = 0;
  char *large_ = nullptr;     // the payload of a frame too large for chunk_, length + 1 bytes
  uint32_t large_length_ = 0;
  uint32_t large_have_ = 0;
  bool drained_ = false;      // the last receive emptied the socket: wait before the next one
  Handed handed_ = Handed::kNone;
  char *handed_text_ = nullptr;
  uint32_t handed_length_ = 0;
  char saved_ = 0;            // the byte under the terminator of a frame handed out in chunk_
};

}  // namespace vemo

#endif
