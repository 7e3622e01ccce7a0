// Scripted failures and short transfers through the library's system-call seam (util/sys.h).
//
// While a SysFaults object lives, every seam call goes through it: each call is counted, may be
// made to fail with a chosen errno after a number of calls that pass, and send/recv may be cut
// to a few bytes per call. Everything not scripted goes to the real call. One object at a time.
#ifndef VEMO_TESTS_SUPPORT_SYS_FAULTS_H
#define VEMO_TESTS_SUPPORT_SYS_FAULTS_H

#include <stddef.h>

#include <atomic>
#include <memory>

#include "util/sys.h"

namespace vemo_test {

// The script of one kind of call.
struct CallScript {
  std::atomic<int> calls{0};  // calls seen
  std::atomic<int> pass{0};   // calls still to pass before failures start
  std::atomic<int> fail{0};   // calls still to fail once pass has run out
  std::atomic<int> error{0};  // errno of a failing call

  // Fail `count` calls with `errno_value` after letting `after` calls through.
  void fail_with(int errno_value, int count = 1, int after = 0) {
    error = errno_value;
    pass = after;
    fail = count;
  }
  bool next();  // counts the call; true (errno set) when this one must fail
};

class SysFaults {
 public:
  SysFaults();
  ~SysFaults();
  SysFaults(const SysFaults &) = delete;
  SysFaults &operator=(const SysFaults &) = delete;

  // send scripts send and sendmsg alike.
  CallScript socket, listen, send, recv, poll, fcntl, malloc;

  // At most this many bytes per send/sendmsg/recv call (0: no cap).
  std::atomic<size_t> send_chunk{0};
  std::atomic<size_t> recv_chunk{0};

  // What the library asked for most recently.
  std::atomic<int> last_bind_length{-1};
  std::atomic<int> last_connect_length{-1};
  std::atomic<int> last_poll_timeout{-2};
  std::atomic<int> last_poll_events{0};
  std::atomic<int> last_send_flags{-1};

 private:
  vemo::sys::Ops ops_;
  std::unique_ptr<vemo::sys::ScopedOps> scope_;
};

}  // namespace vemo_test

#endif
