#include <pthread.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "util/log_internal.h"
#include "vemo/util.h"

namespace vemo {
namespace {
std::atomic<FILE *> g_stream{nullptr};
}

bool format_timestamp(const struct timeval &tv, char out[kTimestampSize]) {
  struct tm local;
  time_t seconds = tv.tv_sec;
  // Reentrant: every logging thread converts into its own structure.
  if (localtime_r(&seconds, &local) == nullptr) return false;
  // Formatted with room to spare (the compiler cannot bound the broken-down fields), then cut to
  // the 23 characters that a valid time always has.
  char wide[64];
  snprintf(wide, sizeof wide, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
  memcpy(out, wide, kTimestampSize - 1);
  out[kTimestampSize - 1] = '\0';
  return true;
}

void log_write(FILE *stream, const char *timestamp, const char *level, const char *file, int line,
               const char *function, const char *format, va_list args) {
  // pthread_t is an integer or pointer-sized handle on the platforms we serve; on 32-bit
  // targets this is exactly the 32-bit identity, on 64-bit hosts it is not truncated.
  unsigned long thread = (unsigned long)pthread_self();
  // One stream lock around the pieces keeps every line whole among threads.
  flockfile(stream);
  if (timestamp != nullptr) {
    fprintf(stream, "%s | %5s | %d:0x%lX | %s:%d | %s | - ", timestamp, level, (int)getpid(), thread,
            file, line, function);
  } else {
    fprintf(stream, "%5s | %d:0x%lX | %s:%d | %s | - ", level, (int)getpid(), thread, file, line,
            function);
  }
  vfprintf(stream, format, args);
  putc('\n', stream);
  funlockfile(stream);
}

void log_set_stream(FILE *stream) { g_stream.store(stream, std::memory_order_release); }

namespace {

FILE *log_stream() {
  FILE *stream = g_stream.load(std::memory_order_acquire);
  return stream != nullptr ? stream : stdout;
}

void write_standard(FILE *stream, const char *level, const char *file, int line,
                    const char *function, const char *format, va_list args) VEMO_PRINTF(6, 0);
void write_standard(FILE *stream, const char *level, const char *file, int line,
                    const char *function, const char *format, va_list args) {
  // The timestamp lives on the stack: a log line costs no heap allocation.
  char timestamp[kTimestampSize] = {0};
  struct timeval tv;
  bool have_time = gettimeofday(&tv, nullptr) == 0 && format_timestamp(tv, timestamp);
  log_write(stream, have_time ? timestamp : nullptr, level, file, line, function, format, args);
}

void write_standard_text(FILE *stream, const char *level, const char *file, int line,
                         const char *function, const char *format, ...) VEMO_PRINTF(6, 7);
void write_standard_text(FILE *stream, const char *level, const char *file, int line,
                         const char *function, const char *format, ...) {
  va_list args;
  va_start(args, format);
  write_standard(stream, level, file, line, function, format, args);
  va_end(args);
}

}  // namespace

void log_write_text(FILE *stream, const char *level, const char *file, int line,
                    const char *function, const char *message) {
  write_standard_text(stream != nullptr ? stream : log_stream(), level, file, line, function,
                      "%s", message);
}

}  // namespace vemo

extern "C" VEMO_API void vemo_log_print(const char *level, const char *file, int line,
                                        const char *function, const char *format, ...) {
  if (format == nullptr) {
    // Once more with a literal, so that the format passed down is always a checked one.
    vemo_log_print(level, file, line, function, "%s", "");
    return;
  }
  const char *level_text = level != nullptr ? level : "";
  const char *file_text = file != nullptr ? file : "";
  const char *function_text = function != nullptr ? function : "";
  va_list args;
  va_start(args, format);
  if (!vemo::log_sink_deliver(level_text, file_text, line, function_text, format, args)) {
    vemo::write_standard(vemo::log_stream(), level_text, file_text, line, function_text, format,
                         args);
  }
  va_end(args);
}
