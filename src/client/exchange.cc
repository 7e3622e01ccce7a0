// The acknowledged exchange behind every message the API sends.
#include "client/exchange.h"

#include "client/context.h"
#include "client/messages.h"
#include "client/msg_id_pool_internal.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace vemo {

int send_with_recv(cJSON *message, int timeout_ms, const MsgDeliverHook *hook, int *hook_status) {
  cloud_client_t &c = client();
  if (hook_status != nullptr) *hook_status = 0;
  if (c.running.load(std::memory_order_acquire) == 0) {
    int rc = client_init();
    if (rc < 0) {
      LOG_PRINT("ERROR", "fail to get the file description of the client, error=%d", rc);
      return rc;
    }
  }
  // Held until the exchange ends, so that a teardown cannot free the pool under this thread.
  ClientUse use;
  if (use.code() != 0) {
    LOG_PRINT("ERROR", "fail to get the file description of the client, error=%d", use.code());
    return use.code();
  }
  int fd = c.fd;
  if (fd < 0) {
    LOG_PRINT("ERROR", "fail to get the file description of the client, error=%d", fd);
    return fd;
  }

  msg_data_t record = {VEMO_ERR_NOT_ARRIVED};
  int id = msg_id_take(c.msg_id_pool, &record, hook);
  if (id < 0) {
    LOG_PRINT("ERROR", "fail to get the message id, error=%d", id);
    return id;
  }
  int rc = 0;
  if (!add_message_id(message, id)) {
    rc = VEMO_ERR_NO_RESOURCE;
  } else {
    HeapText text = print_message(message);
    rc = text ? client_send(fd, text.get()) : VEMO_ERR_NO_RESOURCE;
  }
  if (rc != 0) {
    LOG_PRINT("ERROR", "fail to send the request, error=%d", rc);
    msg_id_put_to_idle(c.msg_id_pool, id);
    return rc;
  }
  // The clock starts once the message is out; the wait sleeps until the acknowledgement is
  // written into the record (or the time runs out, or the client is torn down).
  uint32_t start = get_tick_count();
  rc = msg_id_wait_result(c.msg_id_pool, id, start, timeout_ms, hook_status);
  msg_id_put_to_idle(c.msg_id_pool, id);
  return rc;
}

}  // namespace vemo
