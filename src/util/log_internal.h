// Internals of the log line, open to the tests.
#ifndef VEMO_UTIL_LOG_INTERNAL_H
#define VEMO_UTIL_LOG_INTERNAL_H

#include <stdarg.h>
#include <stdio.h>
#include <sys/time.h>

#include "vemo/util.h"

// LOG_PRINT under an explicit function name: for a helper that writes a line on behalf of the
// operation its caller stands for (a log line names the operation, not the helper).
#define LOG_PRINT_AS(function, level, ...) \
  vemo_log_print((level), __FILE__, __LINE__, (function), __VA_ARGS__)

namespace vemo {

constexpr size_t kTimestampSize = 24;  // 23 characters and the terminator

// Formats tv as local time "YYYY-MM-DD hh:mm:ss.mmm" into out; false when the conversion fails.
bool format_timestamp(const struct timeval &tv, char out[kTimestampSize]);

// Writes one whole line to stream; timestamp may be null (the line then starts at the level).
void log_write(FILE *stream, const char *timestamp, const char *level, const char *file, int line,
               const char *function, const char *format, va_list args);

// Redirects the log (null restores standard output). For tests that read the lines back.
void log_set_stream(FILE *stream);

}  // namespace vemo

#endif
