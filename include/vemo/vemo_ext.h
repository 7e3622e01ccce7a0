/*
 * vemo extensions: additions to the client API of <vemo/vemo.h> that go beyond its classic
 * contract. Nothing here changes a default: an application that never calls these functions
 * sees the library behave, log and speak to the daemon exactly as <vemo/vemo.h> describes.
 *
 * Conventions (as in <vemo/vemo.h>)
 *   - Results: 0 for success or a negative code of <vemo/codes.h>.
 *   - Texts passed in are borrowed for the call; the library keeps its own copies.
 *   - Every function may be called from any thread at any time.
 */
#ifndef VEMO_VEMO_EXT_H
#define VEMO_VEMO_EXT_H

#include <vemo/codes.h>
#include <vemo/export.h>
#include <vemo/vemo.h>

VEMO_BEGIN_DECLS

/* Serves the client from another socket path than VEMO_SOCKET_PATH ("/tmp/cloud_svr"), for
 * tests against a private daemon. Takes effect for the next connection the client makes; a
 * connection already open is left alone, so call it before the first request. NULL restores
 * the default. VEMO_ERR_INVALID_ARG for an empty path or one longer than 107 bytes (the
 * path stays as it was). */
VEMO_API int vemo_set_socket_path(const char *path);

/* ---- Connection events --------------------------------------------------------------------
 * What happens to the connection, told to the application: a listen-only application learns
 * that its registration went away (and that it came back). The callback runs on one of the
 * library's handler threads, never under a lock of the library, and may call any vemo_
 * function. Events are told in the order they happen. */
typedef enum vemo_event {
  VEMO_EVENT_CONNECTED = 1,     /* a connection to the daemon is up; code 0 */
  VEMO_EVENT_LOST = 2,          /* the connection failed; code: what failed (e.g. -1102) */
  VEMO_EVENT_TORN_DOWN = 3,     /* the daemon ordered a teardown: the handlers are forgotten */
  VEMO_EVENT_REREGISTERED = 4   /* after a reconnection the handlers are registered again */
} vemo_event_t;

typedef void (*vemo_event_cb)(int event, int code, void *user);

/* Installs the event callback (NULL removes it) with its user pointer. An event being told
 * while the callback is replaced may still reach the previous pair. */
VEMO_API int vemo_set_event_callback(vemo_event_cb callback, void *user);

/* ---- Handlers with a user pointer ----------------------------------------------------------
 * The same as the handlers of <vemo/vemo.h>, with the pointer given at registration passed to
 * every call, so application state need not live in globals. Registering either kind replaces
 * the other. */
typedef void (*vemo_cloud_request_ex_cb)(const char *request, char **response, void *user);
typedef struct vemo_hello_cloud_ex_cb {
  void (*on_hello_request)(char **response, void *user);
  void (*on_hello_response)(const char *response, void *user);
} vemo_hello_cloud_ex_cb_t;

VEMO_API int vemo_register_callback_ex(vemo_cloud_request_ex_cb callback,
                                       const vemo_hello_cloud_ex_cb_t *hello, void *user);

/* ---- Requests with a user pointer, told of failures -----------------------------------------
 * The callback of vemo_send_request_async_ex receives the pointer given with the request and the
 * outcome: code 0 with the response text, or the daemon's non-zero code with a NULL text when
 * the cloud failed the request (a response notification carrying inner_error_code and the
 * request id). Such a failure also completes the request for vemo_get_response and
 * vemo_send_request_sync, which return the daemon's code at once instead of waiting out their
 * timeout (the classic library only logged it). */
typedef void (*vemo_response_ex_cb)(int id, int code, const char *response, void *user);

VEMO_API int vemo_send_request_async_ex(const char *request, int timeout_ms, int flag,
                                        vemo_response_ex_cb callback, void *user);

/* ---- Ending the client on purpose ----------------------------------------------------------
 * Waits up to timeout_ms for running handlers and the answers they are sending, withdraws the
 * registration if there is one, and closes the connection. Later calls connect again, as after
 * any teardown. 0, or VEMO_ERR_TIMEOUT when handlers were still running at the deadline (the
 * client is closed all the same). */
VEMO_API int vemo_shutdown(int timeout_ms);

/* ---- Log sink ------------------------------------------------------------------------------
 * By default every log line goes to standard output in the form <vemo/util.h> describes, and
 * with no sink installed that stays so, byte for byte. An application may hand the lines to a
 * function of its own instead (with a user pointer), and drop the lines below a level.
 *
 * Each line is formatted once, into a buffer on the logging thread's stack (no allocation per
 * line); a message longer than VEMO_LOG_MESSAGE_MAX - 1 bytes is cut there and ends in "...".
 * Lines below the sink's minimum level are not formatted at all.
 *
 * Levels: a line logged under a level name other than the four below (LOG_PRINT of an
 * application) is delivered as VEMO_LOG_ERROR, so that no minimum level can hide it.
 *
 * Threads. The sink runs on whichever thread logs: application threads inside vemo_ calls,
 * and the library's own threads, possibly while a library lock is held. So a sink
 *   - must be thread-safe and should return promptly (a slow sink slows the client);
 *   - must not call vemo_ functions (a line it logs itself goes to standard output);
 *   - receives texts that are valid only during the call.
 * Installing is safe at any time from any thread. Every line goes whole to one sink, the
 * previous or the new one. vemo_set_log_sink returns only when no thread is still calling the
 * previous sink, so its user pointer may be released right after the call; it waits for those
 * calls to end (no lock is held around a sink call), so do not install while holding a lock
 * that your sink takes. Installing from within a sink is refused (VEMO_ERR_INVALID_ARG). */

/* Severity of a line, from least to most severe. */
typedef enum {
  VEMO_LOG_DEBUG = 0, /* progress: set-up, tear-down, bookkeeping */
  VEMO_LOG_INFO = 1,  /* the texts sent and received: request and response bodies */
  VEMO_LOG_WARN = 2,  /* rejected arguments, fallbacks that go on */
  VEMO_LOG_ERROR = 3  /* failures */
} vemo_log_level_t;

/* Bytes of a formatted message with its terminator. */
#define VEMO_LOG_MESSAGE_MAX 2048

/* A log sink: level is a vemo_log_level_t; function, file and line name the place of the
 * line; message is the formatted message without a newline. */
typedef void (*vemo_log_sink_cb)(void *user, int level, const char *function, const char *file,
                                 int line, const char *message);

/* Sends every line at min_level or above to sink (with user); lines below it are dropped.
 * NULL restores the standard output line for every line (user and min_level are then
 * ignored). VEMO_ERR_INVALID_ARG for a min_level that is no vemo_log_level_t, or when called
 * from within a sink; the sink in force stays. */
VEMO_API int vemo_set_log_sink(vemo_log_sink_cb sink, void *user, int min_level);

/* Ready-made sink: writes the standard line (timestamp, level, process:thread, file:line,
 * function, message) to the stdio stream user (NULL: standard output). With a minimum level it
 * is the console log without, say, the INFO lines that carry request texts. */
VEMO_API void vemo_log_sink_stream(void *user, int level, const char *function, const char *file,
                                   int line, const char *message);

/* Ready-made sink: syslog() with the matching priority (LOG_ERR, LOG_WARNING, LOG_INFO,
 * LOG_DEBUG) and the text "LEVEL | file:line | function | - message"; user is unused. Call
 * openlog() first to choose the identity and facility. */
VEMO_API void vemo_log_sink_syslog(void *user, int level, const char *function, const char *file,
                                   int line, const char *message);

VEMO_END_DECLS

#endif /* VEMO_VEMO_EXT_H */
