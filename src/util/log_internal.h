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
               const char *function, const char *format, va_list args) VEMO_PRINTF(7, 0);

// Redirects the log (null restores standard output). For tests that read the lines back.
void log_set_stream(FILE *stream);

// Writes the standard line for a message that is formatted already; a null stream is the
// log's own (standard output unless redirected).
void log_write_text(FILE *stream, const char *level, const char *file, int line,
                    const char *function, const char *message);

// Hands the line to the application's sink (log_sink.cc). False, with args untouched, when no
// sink is installed or the line comes from within a sink: the caller writes the standard line.
bool log_sink_deliver(const char *level, const char *file, int line, const char *function,
                      const char *format, va_list args) VEMO_PRINTF(5, 0);

// Replaces syslog() behind vemo_log_sink_syslog (null restores it). For tests.
using SyslogFn = void (*)(int priority, const char *format, ...);
void log_set_syslog(SyslogFn fn);

}  // namespace vemo

#endif
