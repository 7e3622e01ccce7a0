// The reference daemon as a separate process, so that its CPU time is not the client's.
#ifndef VEMO_BENCH_DAEMON_PROCESS_H
#define VEMO_BENCH_DAEMON_PROCESS_H

#include <sys/types.h>

#include <string>

namespace bench {

class DaemonProcess {
 public:
  DaemonProcess() = default;
  ~DaemonProcess() { stop(); }
  DaemonProcess(const DaemonProcess &) = delete;
  DaemonProcess &operator=(const DaemonProcess &) = delete;

  // Starts `program --quiet --delay 0` on a socket path of this process's own (so that a daemon
  // or a test on the default path neither disturbs nor is disturbed), all output to /dev/null,
  // points the client at it and waits until the socket is there. False with *error set when it
  // does not come up.
  bool start(const std::string &program, std::string *error);
  // SIGTERM, then waits for the process.
  void stop();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = 0;
  std::string path_;
};

}  // namespace bench

#endif
