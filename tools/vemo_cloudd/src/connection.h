// One accepted client connection of the daemon: its descriptor, the bytes read but not yet taken
// as frames, and the frames queued but not yet taken by the socket.
//
// The daemon frames its connections itself rather than through the library's transport, which
// reads a frame in three receive calls and sends each frame with a call of its own: here one
// read takes every frame the client has coalesced, and one send takes every frame the daemon
// answered with in a pass of its loop. The bytes on the wire are the transport's (magic 0xA1
// 0xB2, a four-byte big-endian length, the text).
#ifndef VEMO_CLOUDD_CONNECTION_H
#define VEMO_CLOUDD_CONNECTION_H

#include <cstddef>
#include <memory>
#include <string>

namespace vemo {
namespace cloudd {

class Connection {
 public:
  // Takes over fd, which must be non-blocking; the destructor closes it.
  explicit Connection(int fd);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  int fd() const { return fd_; }

  enum class ReadResult { kData, kAgain, kClosed, kFailed };
  // One receive of whatever the socket holds (errno tells why on kFailed).
  ReadResult read_some();
  // The next whole frame's text from what was read: 1 with *text set, 0 when no whole frame is
  // there yet, or a negative code when the stream is broken (VEMO_ERR_BAD_FORMAT: wrong magic,
  // or a length over the transport's limit). As with the transport, the text ends at its first
  // zero byte.
  int next_frame(std::string *text);
  // Some bytes of a frame have been read and the rest has not.
  bool mid_frame() const { return in_begin_ != in_end_; }

  void queue_frame(const std::string &text);
  void queue_bytes(const std::string &bytes);
  std::size_t pending_output() const { return out_.size() - out_sent_; }
  // Hands the socket as much queued output as it takes without blocking. False when the send
  // failed (errno tells why); what the socket would not take yet stays queued.
  bool flush();

 private:
  const int fd_;
  std::unique_ptr<char[]> in_;
  std::size_t in_capacity_ = 0;
  std::size_t in_begin_ = 0;  // the first byte not yet taken as part of a frame
  std::size_t in_end_ = 0;    // one past the last byte read
  std::string out_;
  std::size_t out_sent_ = 0;  // bytes of out_ the socket has taken
};

}  // namespace cloudd
}  // namespace vemo

#endif
