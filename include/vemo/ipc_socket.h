/*
 * vemo framed Unix-socket transport.
 *
 * Every message is one frame: the magic bytes 0xA1 0xB2, the payload length as a four-byte
 * big-endian unsigned number, then the payload (a text without its terminating zero).
 *
 * Conventions
 * - Descriptors belong to the caller, who closes them. The transport keeps no state.
 * - ipc_socket_send borrows the text. The receive functions hand over a new heap text (released
 *   with free()); the caller's pointer should hold NULL before each call. After a failure in the
 *   payload step it holds NULL; after any earlier failure it is left as it was.
 * - Results: 0 (or a descriptor) for success, a negative code from <vemo/codes.h> otherwise;
 *   each failure is logged with LOG_PRINT.
 * - Any thread may call any function; several threads may send on one descriptor, but only one
 *   thread at a time may receive on it.
 * - Sends never raise SIGPIPE: a send to a closed peer fails with VEMO_ERR_DISCONNECTED.
 */
#ifndef VEMO_IPC_SOCKET_H
#define VEMO_IPC_SOCKET_H

#include <vemo/codes.h>
#include <vemo/export.h>

#define IPC_FRAME_MAGIC 0xA1B2
#define IPC_FRAME_HEADER_SIZE 6
/* The longest payload accepted. A frame announcing more is refused before anything is
 * allocated for it (VEMO_ERR_BAD_FORMAT). */
#define IPC_FRAME_MAX_PAYLOAD (4u * 1024u * 1024u)

VEMO_BEGIN_DECLS

/* Creates, binds and listens (backlog 512) on path; the listening socket is non-blocking.
 * Returns the descriptor or VEMO_ERR_NO_SERVER. An existing file at path is not removed. */
VEMO_API int ipc_socket_init_as_server(const char *path);

/* Connects to path. Returns a blocking descriptor, VEMO_ERR_NO_RESOURCE when no socket can be
 * created, or VEMO_ERR_DISCONNECTED when nobody accepts there or the path is unusable. */
VEMO_API int ipc_socket_init_as_client(const char *path);

/* Sends text as one frame. 0, VEMO_ERR_NO_RESOURCE or VEMO_ERR_DISCONNECTED. */
VEMO_API int ipc_socket_send(int fd, const char *text);

/* Receives one frame into a new heap text at *text. 0, VEMO_ERR_PEER_CLOSED,
 * VEMO_ERR_NO_RESOURCE, VEMO_ERR_BAD_FORMAT or VEMO_ERR_SHORT_READ. */
VEMO_API int ipc_socket_recv(int fd, char **text);

/* Waits up to timeout_ms for fd to become readable, then receives as ipc_socket_recv.
 * VEMO_ERR_RECV_TIMEOUT (not logged) when nothing arrived; a negative timeout fails with
 * VEMO_ERR_NO_RESOURCE. Works for descriptors of any value. */
VEMO_API int ipc_socket_recv_timed(int fd, int timeout_ms, char **text);

VEMO_END_DECLS

#endif /* VEMO_IPC_SOCKET_H */
