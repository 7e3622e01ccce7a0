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
 *   thread at a time may receive on it. The transport does not serialise senders: a frame that
 *   the kernel takes in several pieces (large frames) may interleave with another thread's.
 * - Sends never raise SIGPIPE: a send to a closed peer fails with VEMO_ERR_DISCONNECTED.
 * - Every piece of a frame (magic, length, payload) is sent and received whole, however many
 *   system calls it takes; a frame split in transit is received whole and frames that arrive
 *   together are received one by one. A send or receive interrupted by a signal (EINTR) is
 *   repeated, never a failure, so a signal cannot leave the stream out of step; EAGAIN on a
 *   non-blocking descriptor is waited out. Only the wait of ipc_socket_recv_timed ends at a
 *   signal (see there).
 * - A send hands header and text to the socket together, from the caller's text: it allocates
 *   nothing.
 * - A NULL text or output pointer is refused with VEMO_ERR_INVALID_ARG.
 */
#ifndef VEMO_IPC_SOCKET_H
#define VEMO_IPC_SOCKET_H

#include <vemo/codes.h>
#include <vemo/export.h>

#define IPC_FRAME_MAGIC 0xA1B2
#define IPC_FRAME_HEADER_SIZE 6
/* The longest payload accepted. A frame announcing more is refused before anything is
 * allocated for it (VEMO_ERR_BAD_FORMAT) and the descriptor is shut for reading, since the
 * stream cannot be resynchronised; a longer text is not sent (VEMO_ERR_DISCONNECTED). */
#define IPC_FRAME_MAX_PAYLOAD (4u * 1024u * 1024u)

VEMO_BEGIN_DECLS

/* Creates, binds and listens (backlog 512) on path; the listening socket is non-blocking.
 * Returns the descriptor or VEMO_ERR_NO_SERVER. An existing file at path is not removed, and
 * the transport never removes the socket file. A NULL or empty path, or one longer than the
 * socket address holds (107 characters on Linux), is refused before any socket is created.
 * Descriptors are close-on-exec. */
VEMO_API int ipc_socket_init_as_server(const char *path);

/* Connects to path. Returns a blocking, close-on-exec descriptor, VEMO_ERR_NO_RESOURCE when no
 * socket can be created, or VEMO_ERR_DISCONNECTED when nobody accepts there or the path is
 * unusable (NULL, empty or too long, as for the service end). */
VEMO_API int ipc_socket_init_as_client(const char *path);

/* Sends text as one frame. 0 or VEMO_ERR_DISCONNECTED. */
VEMO_API int ipc_socket_send(int fd, const char *text);

/* Receives one frame into a new heap text at *text. 0, VEMO_ERR_PEER_CLOSED (the stream ended
 * before a piece's first byte), VEMO_ERR_NO_RESOURCE, VEMO_ERR_BAD_FORMAT (bad magic: only the
 * two magic bytes are taken; or an oversize length) or VEMO_ERR_SHORT_READ (the stream ended
 * inside a piece, or a receive failed). */
VEMO_API int ipc_socket_recv(int fd, char **text);

/* Waits up to timeout_ms for fd to become readable, then receives as ipc_socket_recv (the
 * pieces themselves are read without a time limit). VEMO_ERR_RECV_TIMEOUT (not logged) when
 * nothing arrived; VEMO_ERR_NO_RESOURCE when the wait fails: a negative timeout, a negative or
 * closed descriptor, or a signal during the wait. Works for descriptors of any value. */
VEMO_API int ipc_socket_recv_timed(int fd, int timeout_ms, char **text);

VEMO_END_DECLS

#endif /* VEMO_IPC_SOCKET_H */
