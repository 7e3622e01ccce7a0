// Fuzz entry point for the receive path: the input is what a peer wrote on the socket before
// closing it. Every receive result is checked against a plain reference reading of the same
// bytes, so a wrong code, a wrong text or a stream position out of step is a crash, not only a
// memory error.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ipc/frame_codec.h"
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The transport logs every text; the fuzzer's own output is what matters.
  static FILE *sink = [] {
    FILE *f = fopen("/dev/null", "w");
    vemo::log_set_stream(f);
    return f;
  }();
  (void)sink;

  int fds[2];
  check(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0, "socketpair");
  // Whatever fits in the socket's queue is the input; the rest is dropped, never blocked on.
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  ssize_t written = size > 0 ? write(fds[1], data, size) : 0;
  if (written < 0) written = 0;
  close(fds[1]);

  char sentinel;
  Reference reference{data, static_cast<size_t>(written)};
  // Every receive takes at least one byte or reports the end; the bound catches a loop that
  // does neither.
  for (size_t round = 0; round <= static_cast<size_t>(written) + 1; ++round) {
    Expected expected = reference.next();
    char *out = &sentinel;
    int rc = ipc_socket_recv(fds[0], &out);
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
      close(fds[0]);
      return 0;
    }
  }
  check(false, "the receive loop did not reach the end of the stream");
  return 0;
}
