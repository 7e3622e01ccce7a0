// Monotonic time for the tool's own waits: a clock set back on the device must not stretch them.
#ifndef VEMO_CLI_CLOCK_H
#define VEMO_CLI_CLOCK_H

#include <time.h>

namespace vemo_cli {

inline long monotonic_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long>(now.tv_sec) * 1000L + now.tv_nsec / 1000000L;
}

// The CLOCK_MONOTONIC time ms from now, for pthread_cond_timedwait on a condition variable made
// with that clock.
inline struct timespec monotonic_deadline(int ms) {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

}  // namespace vemo_cli

#endif
