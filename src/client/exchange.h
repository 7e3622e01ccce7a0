// The acknowledged exchange: start the client if needed, stamp the message with a message id,
// send it and wait for the daemon's acknowledgement of that id.
#ifndef VEMO_CLIENT_EXCHANGE_H
#define VEMO_CLIENT_EXCHANGE_H

#include <cjson/cJSON.h>

#include "client/msg_id_pool_internal.h"

namespace vemo {

// message stays the caller's; inner_id is added to it. Returns the acknowledgement's value (the
// daemon's non-zero code, else inner_result.id, else 0) or a negative local code. hook (may be
// null) runs on the receiving thread when the acknowledgement arrives, before this call wakes;
// its result is stored at hook_status.
int send_with_recv(cJSON *message, int timeout_ms, const MsgDeliverHook *hook = nullptr,
                   int *hook_status = nullptr);

}  // namespace vemo

#endif
