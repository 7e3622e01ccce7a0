/* What a 32-bit target (the device's armhf build, run under qemu-arm) must show literally, where
 * the host-independent tests only compare against sizeof(): the allocator's 32-byte header, the
 * 32-bit tick type, and the log line's thread field as plain "%X" of the 32-bit pthread_self().
 * Registered only in builds whose pointers are 4 bytes; runs in a scratch working directory,
 * where the allocator writes memguard.log. Exits 0 when all hold, 1 otherwise. */
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
}

static void log_thread_field(void) {
  static char text[1024];
  char expected[64];
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
}

int main(void) {
  allocator_header();
  log_thread_field();
  printf("target_abi: %s\n", failures == 0 ? "all checks passed" : "some checks failed");
  return failures == 0 ? 0 : 1;
}
