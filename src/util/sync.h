// Small RAII wrappers over POSIX mutexes and condition variables.
//
// POSIX rather than std::mutex so that a condition variable can wait on CLOCK_MONOTONIC
// (std::condition_variable's timed waits follow the wall clock on older libstdc++), and so that
// the objects stay as small as the C library makes them on the 32-bit target.
#ifndef VEMO_UTIL_SYNC_H
#define VEMO_UTIL_SYNC_H

#include <pthread.h>
#include <stdint.h>

#include "util/thread_annotations.h"

namespace vemo {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() { pthread_mutex_init(&mu_, nullptr); }
  ~Mutex() { pthread_mutex_destroy(&mu_); }
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;

  void lock() ACQUIRE() { pthread_mutex_lock(&mu_); }
  void unlock() RELEASE() { pthread_mutex_unlock(&mu_); }
  pthread_mutex_t *native() { return &mu_; }

 private:
  pthread_mutex_t mu_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex &mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~MutexLock() RELEASE() { mu_.unlock(); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  Mutex &mu_;
};

// A condition variable whose timed waits run on the monotonic clock, so that a change of the
// wall clock never stretches or cuts a timeout.
class CondVar {
 public:
  CondVar();
  ~CondVar() { pthread_cond_destroy(&cv_); }
  CondVar(const CondVar &) = delete;
  CondVar &operator=(const CondVar &) = delete;

  void wait(Mutex &mu) REQUIRES(mu) { pthread_cond_wait(&cv_, mu.native()); }
  // Waits at most timeout_ms (0 or less returns at once). Spurious wake-ups are possible:
  // callers re-test their condition and their own deadline.
  void wait_for_ms(Mutex &mu, int32_t timeout_ms) REQUIRES(mu);
  void signal() { pthread_cond_signal(&cv_); }
  void broadcast() { pthread_cond_broadcast(&cv_); }

 private:
  pthread_cond_t cv_;
};

}  // namespace vemo

#endif
