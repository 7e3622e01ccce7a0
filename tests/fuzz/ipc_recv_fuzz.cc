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

// The receive results the reference expects for input[pos...]; advances pos as the transport
// consumes the stream.
struct Expected {
  int code;
  const uint8_t *text;  // on success
  uint32_t length;      // on success
};

struct Reference {
  const uint8_t *data;
  size_t size;
  size_t pos = 0;
  bool dead = false;  // an oversize header ended the stream

  size_t left() const { return size - pos; }

  Expected next() {
    if (dead || left() == 0) return {VEMO_ERR_PEER_CLOSED, nullptr, 0};
    if (left() < frame::kMagicSize) return consume_rest(VEMO_ERR_SHORT_READ);
    bool magic_ok = frame::magic_matches(data + pos);
    pos += frame::kMagicSize;
    if (!magic_ok) return {VEMO_ERR_BAD_FORMAT, nullptr, 0};
    if (left() == 0) return {VEMO_ERR_PEER_CLOSED, nullptr, 0};
    if (left() < frame::kLengthSize) return consume_rest(VEMO_ERR_SHORT_READ);
    uint32_t length = frame::decode_length(data + pos);
    pos += frame::kLengthSize;
    if (!frame::payload_length_ok(length)) {
      dead = true;
      return {VEMO_ERR_BAD_FORMAT, nullptr, 0};
    }
    if (length == 0) return {0, data + pos, 0};
    if (left() == 0) return {VEMO_ERR_PEER_CLOSED, nullptr, 0};
    if (left() < length) return consume_rest(VEMO_ERR_SHORT_READ);
    Expected ok = {0, data + pos, length};
    pos += length;
    return ok;
  }

  Expected consume_rest(int code) {
    pos = size;
    return {code, nullptr, 0};
  }
};

void check(bool ok, const char *what) {
  if (!ok) {
    fprintf(stderr, "ipc receive fuzz: %s\n", what);
    abort();
  }
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

// The reader agrees with the reference up to the first failure, and then keeps that failure.
void check_reader(const uint8_t *data, size_t size) {
  size_t written = 0;
  int fd = stream_of(data, size, &written);
  Reference reference{data, written};
  {
    vemo::FrameReader reader(fd);
    for (size_t round = 0; round <= written + 1; ++round) {
      Expected expected = reference.next();
      const char *text = nullptr;
      uint32_t length = 0;
      int rc = reader.next(0, &text, &length);
      check(rc == expected.code, "reader: result code differs from the reference");
      if (rc != 0) {
        check(reader.next(0, &text, &length) == rc, "reader: a failure did not stay");
        break;
      }
      check(length == expected.length, "reader: length differs from the payload's");
      check(memcmp(text, expected.text, length) == 0, "reader: text differs from the payload");
      check(text[length] == '\0', "reader: text not terminated");
    }
  }
  close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The transport logs every text; the fuzzer's own output is what matters.
  static FILE *sink = [] {
    FILE *f = fopen("/dev/null", "w");
    vemo::log_set_stream(f);
    return f;
  }();
  (void)sink;

  check_reader(data, size);
  size_t written = 0;
  const int fd = stream_of(data, size, &written);
  char sentinel;
  Reference reference{data, written};
  // Every receive takes at least one byte or reports the end; the bound catches a loop that
  // does neither.
  for (size_t round = 0; round <= written + 1; ++round) {
    Expected expected = reference.next();
    char *out = &sentinel;
    int rc = ipc_socket_recv(fd, &out);
    check(rc == expected.code, "result code differs from the reference");
    if (rc == 0) {
      check(out != nullptr && out != &sentinel, "no text on success");
      check(memcmp(out, expected.text, expected.length) == 0, "text differs from the payload");
      check(out[expected.length] == '\0', "text not terminated");
      free(out);
      continue;
    }
    check(out == &sentinel || out == nullptr, "output written on failure");
    // The reference expects the end of the stream only once nothing more can be read.
    if (rc == VEMO_ERR_PEER_CLOSED) {
      close(fd);
      return 0;
    }
  }
  check(false, "the receive loop did not reach the end of the stream");
  return 0;
}
