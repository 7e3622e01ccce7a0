/* What a 32-bit target (the device's armhf build, run under qemu-arm) must show literally, where
 * the host-independent tests only compare against sizeof(): the allocator's 32-byte header, the
 * 32-bit tick type, and the log line's thread field as plain "%X" of the 32-bit pthread_self().
 * It runs with clock_shim.c preloaded and TZ=UTC0, so the wall clock reads 2040-02-29
 * 12:34:56.789, past the end of a 32-bit time_t: the log line, get_current_time and the
 * allocator's banner must show that instant. Registered only in builds whose pointers are 4
 * bytes; runs in a scratch working directory, where the allocator writes memguard.log. Exits 0
 * when all hold, 1 otherwise. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vemo/mw.h>
#include <vemo/util.h>

_Static_assert(sizeof(void *) == 4, "this check is for 32-bit targets");
/* Ticks are exactly uint32_t, so every duration is an unsigned 32-bit difference. */
_Static_assert(_Generic(get_tick_count(), uint32_t: 1, default: 0), "get_tick_count is uint32_t");

static int failures = 0;

static void check(int ok, const char *what, const char *seen) {
  if (!ok) {
    fprintf(stderr, "target_abi: FAILED: %s (seen: %s)\n", what, seen);
    ++failures;
  }
}

/* Reads the whole file into buf; "" when it cannot be read. */
static void slurp(const char *path, char *buf, size_t size) {
  FILE *f = fopen(path, "r");
  size_t n = f != NULL ? fread(buf, 1, size - 1, f) : 0;
  buf[n] = '\0';
  if (f != NULL) fclose(f);
}

static void allocator_header(void) {
  static char text[8192];
  void *block;
  remove("memguard.log");
  mwInit();
  block = mwMalloc(5, __FILE__, __LINE__);
  /* The caller's pointer follows the 32-byte header and the 8-byte guard: 8-byte aligned. */
  check(block != NULL && ((uintptr_t)block % 8) == 0, "tracked block is 8-byte aligned", "");
  mwFree(block, __FILE__, __LINE__);
  mwTerm();
  slurp("memguard.log", text, sizeof text);
  check(strstr(text, "mwROUNDALLOC==8 sizeof(mwData)==32 mwDataSize==32\n") != NULL,
        "the allocator's banner states a 32-byte header", text);
  check(strstr(text, "\nStarted at Wed Feb 29 12:34:56 2040\n") != NULL,
        "the allocator's banner shows the shim's clock past 2038", text);
}

/* The instant that clock_shim.c gives, as local time in UTC. */
#define kShimTime "2040-02-29 12:34:56.789"

static void log_line(void) {
  static char text[1024];
  char expected[64];
  char *stamp;
  int saved;
  FILE *capture = fopen("log_line.txt", "w");
  if (capture == NULL) {
    check(0, "open log_line.txt", "");
    return;
  }
  fflush(stdout);
  saved = dup(STDOUT_FILENO);
  dup2(fileno(capture), STDOUT_FILENO);
  LOG_PRINT("INFO", "abi check");
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  fclose(capture);
  slurp("log_line.txt", text, sizeof text);
  /* The field as the log line's format has it on the target: "%d:0x%X" of a 32-bit value. */
  snprintf(expected, sizeof expected, " | %d:0x%X | ", (int)getpid(),
           (unsigned int)(uintptr_t)pthread_self());
  check(strstr(text, expected) != NULL, "log line carries pid:0x%X of pthread_self()", text);
  check(strncmp(text, kShimTime " |  INFO | ", strlen(kShimTime " |  INFO | ")) == 0,
        "log line starts with the shim's time past 2038", text);
  stamp = get_current_time();
  check(stamp != NULL && strcmp(stamp, kShimTime) == 0, "get_current_time past 2038",
        stamp != NULL ? stamp : "NULL");
  free(stamp);
}

int main(void) {
  allocator_header();
  log_line();
  printf("target_abi: %s\n", failures == 0 ? "all checks passed" : "some checks failed");
  return failures == 0 ? 0 : 1;
}
