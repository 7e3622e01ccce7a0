// The floor: the same frames as one client request, over a raw framed Unix-socket pair, with
// nothing of the client around them. A child process echoes every request frame with an
// acknowledgement-sized frame (and, on the second set of sockets, also a response-sized frame),
// so that the echo side's CPU, like the daemon's, is not counted in this process.
#ifndef VEMO_BENCH_FLOOR_H
#define VEMO_BENCH_FLOOR_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

class EchoChild {
 public:
  EchoChild() = default;
  ~EchoChild() { stop(); }
  EchoChild(const EchoChild &) = delete;
  EchoChild &operator=(const EchoChild &) = delete;

  // Forks the echo process with `pairs` connections of each kind. Call before this process
  // starts any thread. False when a socket pair or the fork fails.
  bool start(int pairs, const std::string &ack, const std::string &response);
  // Closes this side's sockets, which ends the echo threads, and reaps the child.
  void stop();
  pid_t pid() const { return pid_; }

  // Connection i answering one frame (acknowledgement) per request, or two (acknowledgement
  // and response).
  int one_reply_fd(int i) const { return one_[static_cast<size_t>(i)]; }
  int two_replies_fd(int i) const { return two_[static_cast<size_t>(i)]; }

 private:
  pid_t pid_ = 0;
  std::vector<int> one_, two_;
};

// One floor exchange on fd: send `request`, receive `replies` frames. 0 or the transport's code.
int floor_exchange(int fd, const std::string &request, int replies);

}  // namespace bench

#endif
