// How the dispatch fuzz target turns its input into what the daemon writes: a sequence of
// operations, the first byte of each picking its kind (modulo kOpKinds), the next ones filling in
// the message:
//   0  acknowledgement of an id the client holds (a hold request waiting for it)
//   1  acknowledgement of any id (mostly free ones: 1 to 256, or any number)
//   2, 3  response notification for a request id in the response list; for any request id
//   4  cloud_request   5  request_of_hello_cloud   6  response_of_hello_cloud
//   7  server_notify (of any type; 1 tears the client down)   8  raw bytes, zero bytes included
//   9  a JSON value of any shape   10  a request with an unknown or wrongly typed method
// Every member of a structured message reads one more byte that keeps it (most values), drops
// it, gives it a value of another type, varies the letter case of its key, writes the key twice
// (the good value first or second), writes a number of any size instead, or puts an unknown key
// before it. A byte that the input lacks reads as 0, the plain, well-formed choice. Every frame is
// well formed (ipc_recv_fuzz.cc fuzzes the framing), so the stream stays in step. No greetings:
// each would cost a new connection (the end-to-end tests cover them).
#ifndef VEMO_TESTS_FUZZ_DISPATCH_INPUT_H
#define VEMO_TESTS_FUZZ_DISPATCH_INPUT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace dispatch_fuzz {

constexpr int kOpKinds = 11;

// Request texts the harness sends and the peer answers in its own way: "hold:<n>" from holder n
// gets no acknowledgement (the input gives it); "refuse:..." is refused, leaving nothing
// pending; "sync" releases the armed frames right before its acknowledgement (with the armed
// code), which thus reaches the caller only once the client has read them.
constexpr int kHolders = 2;
constexpr const char *kHoldPrefix = "hold:";
constexpr const char *kRefusePrefix = "refuse:";
constexpr const char *kSyncRequest = "sync";
constexpr int kSyncAckBase = -100000000;

// One frame (magic, big-endian length, payload) appended to out.
void append_frame(std::string *out, const std::string &payload);

// What the client holds now, for the operations that aim at it.
struct Known {
  std::vector<int> held;     // message ids whose acknowledgement a caller waits for
  std::vector<int> pending;  // request ids in the response list
};

struct Script {
  std::string frames;  // the framed messages, in order
  int ops = 0;
};

Script build_script(const uint8_t *data, size_t size, const Known &known);

}  // namespace dispatch_fuzz

#endif
