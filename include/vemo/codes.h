/*
 * vemo result codes.
 *
 * Every operation that can fail returns an int: 0 (or a descriptor, an id) for success and a
 * negative code for failure. A non-zero inner_error_code sent by the daemon is handed back
 * unchanged, so callers may also see the daemon's own (negative) codes.
 */
#ifndef VEMO_CODES_H
#define VEMO_CODES_H

#include <vemo/export.h>

#define VEMO_OK 0
#define VEMO_ERR_NO_ANSWER (-1)          /* a handler left its answer null; an id record was missing */
#define VEMO_ERR_NO_SERVER (-1100)       /* no daemon socket at the path; a service end could not be opened */
#define VEMO_ERR_DISCONNECTED (-1101)    /* could not connect or send; the client was torn down */
#define VEMO_ERR_PEER_CLOSED (-1102)     /* the peer closed the connection during a receive */
#define VEMO_ERR_NOT_FOUND (-2000)       /* no record or response entry for the id; client not running */
#define VEMO_ERR_NOT_ARRIVED (-2001)     /* the response has not arrived yet */
#define VEMO_ERR_RECV_TIMEOUT (-3000)    /* a timed receive found nothing within its timeout */
#define VEMO_ERR_NO_RESOURCE (-10000)    /* out of memory, threads, sockets, ...; a failed wait */
#define VEMO_ERR_BAD_FORMAT (-10100)     /* bad magic, oversize frame, text that is not JSON, reply without code */
#define VEMO_ERR_SHORT_READ (-10101)     /* a piece of a frame came short, or its receive failed */
#define VEMO_ERR_TIMEOUT (-20002)        /* no acknowledgement, or no response, within the timeout */
#define VEMO_ERR_NO_REQUEST_ID (-20100)  /* a cloud_request without inner_id */
#define VEMO_ERR_NO_HANDLER (-20103)     /* unknown method, or no handler registered for it */
#define VEMO_ERR_MISSING_KEY (-20104)    /* a required key is missing from a received message */
#define VEMO_ERR_INVALID_ARG (-20107)    /* a required pointer is null, or an out-parameter is not null */

VEMO_BEGIN_DECLS

/* A short English description of a result code; "unknown code" for codes not listed above
 * (for example the daemon's own). The text is static: never free it. */
VEMO_API const char *vemo_strerror(int code);

VEMO_END_DECLS

#endif /* VEMO_CODES_H */
