/* Preloaded by target.abi: the wall clock as the log line and the allocator read it (gettimeofday,
 * time) says 2040-02-29 12:34:56.789 UTC, past the end of a 32-bit time_t. Built with the
 * project's 64-bit time, these definitions take the names of the C library's 64-bit calls on a
 * 32-bit target (__gettimeofday64, __time64): a library still calling the 32-bit ones would read
 * the real clock and fail the probe. */
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
