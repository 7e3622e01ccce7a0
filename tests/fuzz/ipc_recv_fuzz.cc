// Fuzz entry point for the receive path: the input is what a peer wrote on the socket before
// closing it. Every result of ipc_socket_recv, and of a FrameReader reading the same bytes, is
// checked against a plain reference reading of them, so a wrong code, a wrong text or a stream
// position out of step is a crash, not only a memory error.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ipc/frame_codec.h"
#include "ipc/frame_reader.h"
#include "util/log_internal.h"
#include "vemo/ipc_socket.h"

namespace {

namespace frame = vemo::frame;

// What a receive should give: a code, and on success the payload.
struct Expected {
  int code;
  const uint8_t *text = nullptr;
  uint32_t length = 0;
};

// The plain reading of input[pos...]: the result of the next receive; advances pos as the
// transport consumes the stream (a short piece takes the rest, an oversize header ends it).
struct Reference {
  const uint8_t *data;
  size_t size, pos = 0;
  bool dead = false;

  Expected next() {
    const size_t left = size - pos;
    if (dead || left == 0) return {VEMO_ERR_PEER_CLOSED};
    if (left < frame::kMagicSize) return rest(VEMO_ERR_SHORT_READ);
    pos += frame::kMagicSize;
    if (!frame::magic_matches(data + pos - frame::kMagicSize)) return {VEMO_ERR_BAD_FORMAT};
    if (size == pos) return {VEMO_ERR_PEER_CLOSED};
    if (size - pos < frame::kLengthSize) return rest(VEMO_ERR_SHORT_READ);
    const uint32_t length = frame::decode_length(data + pos);
    pos += frame::kLengthSize;
    if (!frame::payload_length_ok(length)) return dead = true, Expected{VEMO_ERR_BAD_FORMAT};
    if (length == 0) return {0, data + pos, 0};
    if (size == pos) return {VEMO_ERR_PEER_CLOSED};
    if (size - pos < length) return rest(VEMO_ERR_SHORT_READ);
    pos += length;
    return {0, data + pos - length, length};
  }
  Expected rest(int code) { return pos = size, Expected{code}; }
};

void check(bool ok, const char *what) {
  if (!ok) fprintf(stderr, "ipc receive fuzz: %s\n", what), abort();
}

// A socket whose peer wrote what fits of data and closed; *written: how much that was.
int stream_of(const uint8_t *data, size_t size, size_t *written) {
  int fds[2];
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
  // Whatever fits in the socket's queue is the input; the rest is dropped, never blocked on.
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  ssize_t n = size > 0 ? write(fds[1], data, size) : 0;
  *written = n > 0 ? static_cast<size_t>(n) : 0;
  close(fds[1]);
  return fds[0];
}

// Receives through ipc_socket_recv (reader false) or a FrameReader until the end of the stream,
// each result checked against the reference. The reader keeps its first failure; the transport
// is read on to the end of the stream. Every receive takes at least one byte or reports the
// end: the bound catches a loop that does neither.
void check_receives(const uint8_t *data, size_t size, bool reader) {
  size_t written = 0;
  const int fd = stream_of(data, size, &written);
  Reference reference{data, written};
  vemo::FrameReader frames(fd);
  for (size_t round = 0; round <= written + 1; ++round) {
    const Expected expected = reference.next();
    char sentinel, *out = &sentinel;
    const char *text = nullptr;
    uint32_t length = 0;
    const int rc = reader ? frames.next(0, &text, &length) : ipc_socket_recv(fd, &out);
    check(rc == expected.code, "result code differs from the reference");
    if (rc == 0) {
      if (!reader) text = out, length = expected.length;
      check(text != nullptr && text != &sentinel, "no text on success");
      check(length == expected.length && memcmp(text, expected.text, length) == 0, "text differs from the payload");
      check(text[length] == '\0', "text not terminated");
      if (!reader) free(out);
      continue;
    }
    check(out == &sentinel || out == nullptr, "output written on failure");
    if (reader) check(frames.next(0, &text, &length) == rc, "reader: a failure did not stay");
    if (reader || rc == VEMO_ERR_PEER_CLOSED) {
      close(fd);
      return;
    }
  }
  check(false, "the receive loop did not reach the end of the stream");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The transport logs every text; the fuzzer's own output is what matters.
  static const bool quiet = (vemo::log_set_stream(fopen("/dev/null", "w")), true);
  (void)quiet;
  check_receives(data, size, true);
  check_receives(data, size, false);
  return 0;
}
