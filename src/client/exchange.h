// The acknowledged exchange: start the client if needed, stamp the message with a message id,
// send it and wait for the daemon's acknowledgement of that id, all within the caller's deadline.
#ifndef VEMO_CLIENT_EXCHANGE_H
#define VEMO_CLIENT_EXCHANGE_H

#include <stdint.h>

#include "client/messages.h"
#include "client/msg_id_pool_internal.h"
#include "util/clock.h"

namespace vemo {

// The longest wait of the calls that take no timeout of their own.
constexpr int kControlTimeoutMs = 5000;

struct Exchange {
  // Runs on the receiving task when the acknowledgement arrives, before this call wakes; its
  // result is stored in hook_status.
  const MsgDeliverHook *hook = nullptr;
  int hook_status = 0;
  // The start-up whose connection carried the exchange.
  uint32_t generation = 0;
};

// message is an open message text; the exchange closes it with its inner_id. Returns the acknowledgement's value (the
// daemon's non-zero code, else inner_result.id, else 0) or a negative local code. A deadline of
// 0 ms or less sends the message and returns VEMO_ERR_TIMEOUT without waiting.
int send_with_recv(MessageText &message, const Deadline &deadline, Exchange *exchange = nullptr);

// Announces the registration (register_callback with hello_cloud) within deadline: the
// exchange's result; generation receives the start-up that acknowledged it.
int client_announce(bool hello, const Deadline &deadline, uint32_t *generation);

}  // namespace vemo

#endif
