// The dispatch's pieces shared by the receiving task.
#ifndef VEMO_CLIENT_DISPATCH_INTERNAL_H
#define VEMO_CLIENT_DISPATCH_INTERNAL_H

#include <cjson/cJSON.h>

#include "client/connection.h"
#include "client/context.h"
#include "client/response_internal.h"
#include "vemo/vemo.h"

namespace vemo {

enum class HandlerKind { kCloudRequest, kHelloRequest, kHelloResponse, kResponse };

// Calls the application's handler of kind with text and sends its answer on conn (cloud and
// hello requests); kResponse calls the response's callbacks with id, code and text (null for a
// failed request). The dispatch result, with the lines the dispatch logs.
int run_handler(HandlerKind kind, Connection *conn, int id, const char *text,
                const ResponseCallbacks &callbacks, int code);
// Queues run_handler with a copy of text on the handler pool. 0, or VEMO_ERR_NO_RESOURCE when
// the message could not be queued (logged; it is dropped).
int queue_handler(HandlerKind kind, Connection *conn, int id, const char *text,
                  const ResponseCallbacks &callbacks = ResponseCallbacks(), int code = 0);

// Dispatches a parsed message (the tree stays the caller's).
int dispatch_tree(const cJSON *root, const DispatchContext &ctx);

}  // namespace vemo

#endif
