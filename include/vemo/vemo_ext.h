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

VEMO_BEGIN_DECLS

/* Serves the client from another socket path than VEMO_SOCKET_PATH ("/tmp/cloud_svr"), for
 * tests against a private daemon. Takes effect for the next connection the client makes; a
 * connection already open is left alone, so call it before the first request. NULL restores
 * the default. VEMO_ERR_INVALID_ARG for an empty path or one longer than 107 bytes (the
 * path stays as it was). */
VEMO_API int vemo_set_socket_path(const char *path);

VEMO_END_DECLS

#endif /* VEMO_VEMO_EXT_H */
