#include "dispatch_tracker.h"

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "clock.h"

namespace vemo_cli {
namespace {

// Plain pthread objects with static initialisers where possible: threads of the library may end,
// and report here, while the process exits and destroys C++ objects.
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_idle;        // initialised for the monotonic clock in dispatch_tracker_init
long g_in_flight = 0;         // guarded by g_mutex: handler calls whose threads have not ended
pthread_key_t g_key;          // per thread: the number of handler calls it made, as a pointer
bool g_ready = false;         // written once before any handler runs

// Called by the C library as a marked thread ends, after its message has been dealt with.
void on_thread_end(void *value) {
  const long calls = static_cast<long>(reinterpret_cast<uintptr_t>(value));
  pthread_mutex_lock(&g_mutex);
  g_in_flight -= calls;
  if (g_in_flight <= 0) pthread_cond_broadcast(&g_idle);
  pthread_mutex_unlock(&g_mutex);
}

}  // namespace

bool dispatch_tracker_init() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&g_idle, &attr);
  pthread_condattr_destroy(&attr);
  g_ready = pthread_key_create(&g_key, on_thread_end) == 0;
  return g_ready;
}

void dispatch_tracker_enter() {
  if (!g_ready) return;
  // Counted before the thread's mark is set, so the destructor never subtracts a call that was
  // not added.
  pthread_mutex_lock(&g_mutex);
  ++g_in_flight;
  pthread_mutex_unlock(&g_mutex);
  const uintptr_t calls = reinterpret_cast<uintptr_t>(pthread_getspecific(g_key)) + 1;
  pthread_setspecific(g_key, reinterpret_cast<void *>(calls));
}

bool dispatch_tracker_wait_idle(int timeout_ms) {
  if (!g_ready) return true;
  const struct timespec deadline = monotonic_deadline(timeout_ms);
  pthread_mutex_lock(&g_mutex);
  while (g_in_flight > 0) {
    if (pthread_cond_timedwait(&g_idle, &g_mutex, &deadline) == ETIMEDOUT) break;
  }
  const bool idle = g_in_flight <= 0;
  pthread_mutex_unlock(&g_mutex);
  return idle;
}

}  // namespace vemo_cli
