#include "util/sync.h"

#include <time.h>

namespace vemo {

CondVar::CondVar() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&cv_, &attr);
  pthread_condattr_destroy(&attr);
}

void CondVar::wait_for_ms(Mutex &mu, int32_t timeout_ms) {
  if (timeout_ms <= 0) return;
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  pthread_cond_timedwait(&cv_, mu.native(), &deadline);
}

}  // namespace vemo
