#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "util/log_internal.h"
#include "vemo/util.h"

extern "C" VEMO_API char *get_current_time(void) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  char stamp[vemo::kTimestampSize];
  if (!vemo::format_timestamp(tv, stamp)) return nullptr;
  char *text = static_cast<char *>(calloc(1, vemo::kTimestampSize));
  if (text == nullptr) return nullptr;
  memcpy(text, stamp, vemo::kTimestampSize);
  return text;
}

extern "C" VEMO_API uint32_t get_tick_count(void) {
  struct timespec ts;
  if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return 0;
  return static_cast<uint32_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec / 1000000);
}
