// How the dispatch fuzz target turns its input into what the daemon writes.
//
// The input is a sequence of operations. The first byte of each picks its kind (below, by the
// byte modulo kOpKinds); the bytes after it fill in the message:
//
//   0  acknowledgement of an id the client holds (a hold request waiting for it)
//   1  acknowledgement of any id (mostly free ones: 1 to 256, or any number)
//   2  response notification for a request id the client has in its response list
//   3  response notification for any request id (often one that the acknowledgements give)
//   4  cloud_request             5  request_of_hello_cloud     6  response_of_hello_cloud
//   7  server_notify (of any type; 1 tears the client down)
//   8  a raw payload: bytes as they are, JSON or not, zero bytes included
//   9  a JSON value of any shape (arrays, scalars, deep nesting, objects of envelope keys)
//  10  a request with an unknown or wrongly typed method
//
// Every member of a structured message reads one more byte that keeps it (most values), drops
// it, gives it a value of another type, varies the letter case of its key, writes the key twice
// (the good value first or second), writes a number of any size instead, or puts an unknown key
// before it. Texts can be empty, long, or carry escapes. A byte that the input lacks reads as 0,
// which always means the plain, well-formed choice. Every frame is well formed (the framing
// itself is fuzzed by ipc_recv_fuzz.cc), so the stream stays in step.
//
// The greeting is left out: each would cost a teardown and a new connection, several times a
// plain run, and once the fuzzer found greetings they made up half of its runs; the end-to-end
// tests cover what a greeting may be.
#ifndef VEMO_TESTS_FUZZ_DISPATCH_INPUT_H
#define VEMO_TESTS_FUZZ_DISPATCH_INPUT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace dispatch_fuzz {

constexpr int kOpKinds = 11;

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
