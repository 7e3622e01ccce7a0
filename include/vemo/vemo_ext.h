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

VEMO_END_DECLS

#endif /* VEMO_VEMO_EXT_H */
