/* A wall clock past 2038 for a program that preloads this library: every reading of the real-time
 * clock (gettimeofday, time, clock_gettime with CLOCK_REALTIME) gives the fixed instant
 * 2040-02-29 12:34:56.789 UTC, whose seconds do not fit a 32-bit time_t. Other clocks are read
 * as usual. Built with the project's 64-bit time on 32-bit targets, so the definitions below take
 * the names of the C library's 64-bit calls (__gettimeofday64, __time64, __clock_gettime64),
 * which is what a library built the same way calls.
 *
 * The instant never moves: timed waits on the wall clock would never end, so only single-threaded
 * probes that wait on nothing but the monotonic clock preload it. */
#define _GNU_SOURCE

#include <dlfcn.h>
#include <stddef.h>
#include <sys/time.h>
#include <time.h>

#define SHIM_SECONDS ((time_t)2214131696LL) /* 2040-02-29 12:34:56 UTC */
#define SHIM_MICROSECONDS 789000

/* The real clock_gettime under the name that this build's declaration of it stands for. */
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
#define REAL_CLOCK_GETTIME "__clock_gettime64"
#else
#define REAL_CLOCK_GETTIME "clock_gettime"
#endif

int gettimeofday(struct timeval *restrict tv, void *restrict tz) {
  (void)tz;
  if (tv != NULL) {
    tv->tv_sec = SHIM_SECONDS;
    tv->tv_usec = SHIM_MICROSECONDS;
  }
  return 0;
}

time_t time(time_t *out) {
  if (out != NULL) *out = SHIM_SECONDS;
  return SHIM_SECONDS;
}

int clock_gettime(clockid_t id, struct timespec *ts) {
  typedef int (*clock_fn)(clockid_t, struct timespec *);
  if (id == CLOCK_REALTIME) {
    ts->tv_sec = SHIM_SECONDS;
    ts->tv_nsec = SHIM_MICROSECONDS * 1000L;
    return 0;
  }
  clock_fn real = (clock_fn)dlsym(RTLD_NEXT, REAL_CLOCK_GETTIME);
  return real != NULL ? real(id, ts) : -1;
}
