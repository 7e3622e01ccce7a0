/*
 * vemo: the client API through which an application talks to the device's cloud-service daemon
 * over the Unix socket /tmp/cloud_svr.
 *
 * Start-up and teardown
 *   Nothing runs when the library is loaded. The first call that must talk to the daemon
 *   connects (waiting up to 5000 ms for the daemon's greeting) and starts two library threads;
 *   the client is torn down when the daemon orders it or at process exit, and the next call
 *   connects again. A teardown forgets the registered handlers and every pending response.
 *
 * Ownership of texts
 *   - Texts passed into the library (request) are borrowed for the call.
 *   - Responses stored at *response by vemo_send_request_sync and vemo_get_response are fresh
 *     heap texts owned by the application, released with free(). *response must hold NULL on
 *     entry; on failure nothing is stored there.
 *   - Texts passed to the application's handlers belong to the library and are valid only
 *     during the call.
 *   - An answer stored by a vemo_cloud_request_cb or an on_hello_request handler must be
 *     allocated with malloc(); the library sends it and frees it.
 *
 * Threads
 *   - Any application thread may call any function at any time, concurrently.
 *   - Every handler (vemo_response_cb, vemo_cloud_request_cb, the hello pair) runs on one of the
 *     library's handler threads, possibly several at once, and never under a lock of the
 *     library: a handler may call any vemo_ function. Handler threads are reused while work
 *     keeps coming; at most 16 run at once, and messages beyond them wait in a queue bounded by
 *     memory (8 MiB; a message that finds it full is dropped with a log line). Each has a stack
 *     of VEMO_HANDLER_STACK_BYTES: keep large buffers off the stack in handlers.
 *   - An idle connected client keeps two library threads: one receives, one expires responses.
 *   - At exit, running handlers get up to one second to finish and send their answers; exit
 *     does not wait longer for a handler that never returns.
 *   - A handler may still be running, or be called once more, for a message that was being
 *     dispatched while vemo_unregister_callback returned.
 *
 * Results
 *   0 (or a request id, >= 0) for success, a negative code of <vemo/codes.h> otherwise, or the
 *   daemon's own non-zero code from its acknowledgement. Calls that were waiting when the client
 *   was torn down return VEMO_ERR_DISCONNECTED. Every step is logged on standard output.
 */
#ifndef VEMO_VEMO_H
#define VEMO_VEMO_H

#include <vemo/codes.h>
#include <vemo/export.h>

#define VEMO_SOCKET_PATH "/tmp/cloud_svr"

/* The stack size of the threads that run the application's handlers. */
#define VEMO_HANDLER_STACK_BYTES (256 * 1024)

VEMO_BEGIN_DECLS

/* Called once for each response that arrives for the request id given to
 * vemo_send_request_async; the response stays collectable with vemo_get_response. It may run
 * before vemo_send_request_async has returned the id to its caller. */
typedef void (*vemo_response_cb)(int id, const char *response);

/* Answers a request sent by the cloud: store a malloc()-allocated answer at *response, or leave
 * it NULL to send no answer. */
typedef void (*vemo_cloud_request_cb)(const char *request, char **response);

/* The optional hello handlers. on_hello_request stores a malloc()-allocated hello text at
 * *response (or leaves it NULL); on_hello_response receives the cloud's answer. Either may be
 * NULL. The library keeps its own copy of the pair. */
typedef struct vemo_hello_cloud_cb {
  void (*on_hello_request)(char **response);
  void (*on_hello_response)(const char *response);
} vemo_hello_cloud_cb_t;

/* Sends request to the cloud and returns the daemon's request id (>= 0) once the daemon has
 * acknowledged it, within timeout_ms. The response is kept for timeout_ms after it arrives;
 * collect it with vemo_get_response, and/or receive it in callback (may be NULL). flag is passed
 * to the daemon unchanged. A timeout_ms of 0 or less sends the request and returns
 * VEMO_ERR_TIMEOUT. */
VEMO_API int vemo_send_request_async(const char *request, int timeout_ms, int flag,
                                     vemo_response_cb callback);

/* Sends request and waits for its response: up to timeout_ms for the acknowledgement, then up
 * to timeout_ms more for the response. 0 with the response at *response, or a negative code
 * (VEMO_ERR_TIMEOUT when either wait runs out). */
VEMO_API int vemo_send_request_sync(const char *request, int timeout_ms, int flag, char **response);

/* Collects the response of request id: 0 with the text at *response (the response is then
 * gone), VEMO_ERR_NOT_ARRIVED while it has not arrived, VEMO_ERR_NOT_FOUND when the id is
 * unknown, expired or already collected, or when the client is not running. Never connects. */
VEMO_API int vemo_get_response(int id, char **response);

/* Installs the handler for requests from the cloud, and optionally the hello pair, then
 * announces the registration to the daemon (waiting up to 5000 ms). On any failure after the
 * argument check no handler stays registered. */
VEMO_API int vemo_register_callback(vemo_cloud_request_cb callback, const vemo_hello_cloud_cb_t *hello);

/* Withdraws the registration at the daemon (waiting up to 5000 ms); the handlers are removed
 * only when the daemon accepts. */
VEMO_API int vemo_unregister_callback(void);

/* Asks the daemon to reconnect to the cloud (waiting up to 5000 ms for its acknowledgement);
 * returns the acknowledgement's value or a negative code. */
VEMO_API int vemo_reconnect_cloud(void);

VEMO_END_DECLS

#endif /* VEMO_VEMO_H */
