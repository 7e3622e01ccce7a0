// One connection to the daemon: its descriptor and the turn-taking of its writers.
//
// Counted references: the context holds one while the connection is current, the receiving task
// one, and every queued handler one, so that a handler's answer goes to the connection its
// request came on and the descriptor is closed only when nobody can write to it any more (never
// while a late answer could reach a new connection that reused the number).
#ifndef VEMO_CLIENT_CONNECTION_H
#define VEMO_CLIENT_CONNECTION_H

#include <atomic>

#include "util/clock.h"
#include "util/sync.h"
#include "util/thread_annotations.h"

namespace vemo {

class Connection {
 public:
  // Takes fd over (any value >= 0, 0 included) with one reference; null when out of memory
  // (the descriptor is then closed).
  static Connection *adopt(int fd);

  int fd() const { return fd_; }
  Connection *ref();
  void unref();  // the last one closes the descriptor and frees the connection

  // Sends text as one frame, in turn with the other writers, within deadline. 0, the
  // transport's failure code, VEMO_ERR_TIMEOUT when the deadline passed before any byte went
  // out (nothing was sent), or VEMO_ERR_DISCONNECTED once the connection is shut. No mutex is
  // held while the socket blocks. A frame cut short (the deadline passed, or the send failed,
  // midway) shuts the connection: the daemon could not read anything after it correctly.
  int send(const char *text, const Deadline &deadline);

  // Ends all traffic: blocked sends and receives return, later sends fail at once.
  void shut();
  bool is_shut() const { return shut_.load(std::memory_order_acquire); }

 private:
  explicit Connection(int fd) : fd_(fd) {}
  ~Connection() = default;

  const int fd_;
  std::atomic<int> refs_{1};
  std::atomic<bool> shut_{false};
  Mutex writer_mu_;
  CondVar writer_free_;
  // One writer at a time owns the socket for a whole frame. A flag rather than a held mutex, so
  // that a writer blocked on a stalled daemon holds no lock and the others wait on their own
  // deadlines.
  bool writing_ GUARDED_BY(writer_mu_) = false;
};

}  // namespace vemo

#endif
