/* Preloaded by target.abi: the wall clock reads 2040-02-29 12:34:56.789 UTC, past the end of a
 * 32-bit time_t, and stands still (so only a probe that waits on no wall-clock deadline may use
 * it). Built with the project's 64-bit time, these definitions take the names of the C library's
 * 64-bit calls on a 32-bit target (__gettimeofday64, ...): a library still calling the 32-bit ones
 * would read the real clock and fail the probe. */
#define _GNU_SOURCE

#include <dlfcn.h>
#include <stddef.h>
#include <sys/time.h>
#include <time.h>

#define SHIM_SECONDS ((time_t)2214131696LL)

int gettimeofday(struct timeval *restrict tv, void *restrict tz) {
  (void)tz;
  tv->tv_sec = SHIM_SECONDS;
  tv->tv_usec = 789000;
  return 0;
}

time_t time(time_t *out) {
  if (out != NULL) *out = SHIM_SECONDS;
  return SHIM_SECONDS;
}

int clock_gettime(clockid_t id, struct timespec *ts) {
  if (id != CLOCK_REALTIME) {
    int (*real)(clockid_t, struct timespec *) =
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
        (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "__clock_gettime64");
#else
        (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
#endif
    return real != NULL ? real(id, ts) : -1;
  }
  ts->tv_sec = SHIM_SECONDS;
  ts->tv_nsec = 789000000L;
  return 0;
}
