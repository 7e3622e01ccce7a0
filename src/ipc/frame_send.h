// Sending one frame: header and text handed to the socket together, without a copy, bounded by
// the caller's deadline.
//
// The frame goes out with sendmsg from two places (the six header bytes on the stack, the text
// where the caller keeps it): no allocation and no copy, and one system call whenever the
// socket has room for the whole frame. Every call passes MSG_NOSIGNAL (a closed peer is a
// failure, never a SIGPIPE that ends the process) and MSG_DONTWAIT (a full socket is waited on
// with poll, for as long as the deadline allows, whatever the descriptor's own mode).
// An interrupted call (EINTR) is repeated, never a failure.
//
// Nothing here takes a lock: callers that share a descriptor serialise whole frames themselves.
#ifndef VEMO_IPC_FRAME_SEND_H
#define VEMO_IPC_FRAME_SEND_H

#include "util/clock.h"

namespace vemo {

// Sends the zero-terminated text as one frame on fd, giving up at deadline.
//
//   0                     the whole frame was taken; INFO "IPC send to %d: %s" (ipc_socket_send).
//   VEMO_ERR_TIMEOUT      the deadline passed before the socket took any byte of the frame:
//                         nothing of it is on the wire and *stream_cut is false. Not logged: the
//                         caller names the operation that timed out. A deadline that has already
//                         passed on entry ends here at once, before any system call.
//   VEMO_ERR_DISCONNECTED a send or its wait failed, or the deadline passed after part of the
//                         frame went out. Logged as ipc_socket_send logs it: ERROR "fail to send
//                         buffer, error=%d" (send_buffer) with the errno, or with ETIMEDOUT when
//                         it was the deadline, then ERROR "fail to send the message, code=%d"
//                         (ipc_socket_send) with the bytes taken (-1 when none were).
//                         *stream_cut is true when part of the frame is on the wire: the stream
//                         is then out of step and the caller must give the connection up.
//                         Also a text longer than IPC_FRAME_MAX_PAYLOAD, refused before anything
//                         is sent (ERROR "the length of the message is too long, size=%zu").
//   VEMO_ERR_INVALID_ARG  text is null (ERROR "the text is NULL").
int frame_send(int fd, const char *text, const Deadline &deadline, bool *stream_cut);

// The same without a time limit: a full socket is waited on for as long as it stays full.
// The exported ipc_socket_send is this call.
int frame_send_unbounded(int fd, const char *text, bool *stream_cut);

}  // namespace vemo

#endif
