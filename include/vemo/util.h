/*
 * vemo runtime utilities: the log line, the clocks, the string copy and the JSON hooks.
 *
 * Conventions
 * - Texts returned by get_current_time and copy_string are heap copies owned by the caller,
 *   released with free().
 * - Every function here may be called from any thread at any time; none keeps state.
 * - Durations are measured with get_tick_count as (later - earlier) in unsigned 32-bit
 *   arithmetic, which stays right across one wrap of the counter (about 49.7 days).
 *
 * Log line
 * LOG_PRINT(level, format, ...) writes one line to standard output:
 *   "YYYY-MM-DD hh:mm:ss.mmm | LEVEL | pid:0xTHREAD | file:line | function | - message\n"
 * The level is one of "ERROR", "WARN", "INFO", "DEBUG" and is printed right-aligned in five
 * characters. When no timestamp can be made the line starts at the level field. The thread
 * field is pthread_self() in capital hexadecimal; on 64-bit hosts it is printed at its full
 * width rather than cut to 32 bits. Lines are never filtered and never flushed explicitly.
 */
#ifndef VEMO_UTIL_H
#define VEMO_UTIL_H

#include <stdint.h>
#include <vemo/export.h>

VEMO_BEGIN_DECLS

/* Writes one log line; use LOG_PRINT, which supplies the place of the call. */
VEMO_API void vemo_log_print(const char *level, const char *file, int line, const char *function,
                             const char *format, ...) VEMO_PRINTF(5, 6);

#define LOG_PRINT(level, ...) vemo_log_print((level), __FILE__, __LINE__, __func__, __VA_ARGS__)

/* The local wall-clock time as a 24-byte heap text "YYYY-MM-DD hh:mm:ss.mmm" (23 characters and
 * a terminator), or NULL when the time cannot be converted or memory runs out. */
VEMO_API char *get_current_time(void);

/* Milliseconds of the monotonic clock, wrapping at 2^32; 0 when the clock cannot be read. */
VEMO_API uint32_t get_tick_count(void);

/* A heap copy of text (released with free), or NULL for NULL or when memory runs out. */
VEMO_API char *copy_string(const char *text);

/* Points cJSON's allocation hooks at malloc and free. The library never calls it itself. */
VEMO_API void cjson_hook_init(void);

VEMO_END_DECLS

#endif /* VEMO_UTIL_H */
