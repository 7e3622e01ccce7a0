// The acknowledged exchange behind every message the API sends.
#include "client/exchange.h"

#include "client/context.h"
#include "client/messages.h"
#include "client/msg_id_pool_internal.h"
#include "vemo/util.h"

namespace vemo {
namespace {

// A call with a timeout of 0 or less still sends its message (it only does not wait for the
// answer): its send may take this long for the socket to have room.
constexpr int kSendOnlySlackMs = 100;

}  // namespace

int send_with_recv(MessageText &message, const Deadline &deadline, Exchange *exchange) {
  cloud_client_t &c = client();
  Exchange local;
  if (exchange == nullptr) exchange = &local;
  exchange->hook_status = 0;
  // Joins the running client; one that is idle (or whose teardown has just ended) is started.
  int joined = c.running.load(std::memory_order_acquire) == 0
                   ? VEMO_ERR_DISCONNECTED
                   : client_acquire(deadline, &exchange->generation);
  if (joined == VEMO_ERR_DISCONNECTED) {
    int rc = client_init(deadline);
    if (rc < 0) {
      LOG_PRINT("ERROR", "fail to get the file description of the client, error=%d", rc);
      return rc;
    }
    joined = client_acquire(deadline, &exchange->generation);
  }
  if (joined != 0) {
    LOG_PRINT("ERROR", "fail to get the file description of the client, error=%d", joined);
    return joined;
  }
  // Held until the exchange ends, so that a teardown cannot free the pool under this thread.
  struct Leave {
    ~Leave() { client_release(); }
  } leave;

  msg_data_t record = {VEMO_ERR_NOT_ARRIVED};
  // The wait for a free id counts against the deadline too.
  int id = msg_id_take(c.msg_id_pool, &record, exchange->hook, deadline);
  if (id < 0) {
    LOG_PRINT("ERROR", "fail to get the message id, error=%d", id);
    return id;
  }
  message.close_with_id(id);
  const Deadline send_deadline =
      deadline.timeout_ms > 0 ? deadline : Deadline::after_ms(kSendOnlySlackMs, get_tick_count());
  int rc = message.ok() ? c.conn->send(message.c_str(), send_deadline) : VEMO_ERR_NO_RESOURCE;
  if (rc != 0) {
    LOG_PRINT("ERROR", "fail to send the request, error=%d", rc);
    msg_id_put_to_idle(c.msg_id_pool, id);
    return rc;
  }
  // The wait sleeps until the acknowledgement is written into the record, the deadline passes
  // or the client is torn down.
  rc = msg_id_wait_result(c.msg_id_pool, id, deadline.start, deadline.timeout_ms,
                          &exchange->hook_status);
  // An id whose answer did not come is kept out of use until its late answer arrives (or a
  // quarantine passes), so that answer can never complete a newer request that took the id.
  msg_id_release(c.msg_id_pool, id);
  return rc;
}

}  // namespace vemo
