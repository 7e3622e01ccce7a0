// The request API: asynchronous and synchronous requests to the cloud, and collecting responses.
#include "client/context.h"
#include "client/exchange.h"
#include "client/messages.h"
#include "client/response_internal.h"
#include "util/log_internal.h"
#include "vemo/util.h"
#include "vemo/vemo.h"

namespace vemo {
namespace {

// A negative timeout cannot reach the list (its acknowledgement wait ends at once), but should
// one ever be entered, its response is kept for this long rather than dropped at once.
constexpr int kDefaultResponseTimeoutMs = 5000;

struct PendingResponse {
  int timeout_ms;
  ResponseCallbacks callbacks;
};

// Runs on the receiving task as the acknowledgement arrives, before the sender wakes: the
// request id is in the response list before any later message is read, so a response
// notification right behind its acknowledgement is never dropped.
int enter_request_id(void *ctx, int value) {
  if (value < 0) return 0;  // refused: nothing to wait for
  PendingResponse *pending = static_cast<PendingResponse *>(ctx);
  int timeout = pending->timeout_ms >= 0 ? pending->timeout_ms : kDefaultResponseTimeoutMs;
  return response_data_add_with(client().response_list, value, timeout, pending->callbacks);
}

// vemo_send_request_async within deadline; generation receives the start-up whose response
// list took the request id.
int send_request(const char *request, int timeout_ms, int flag, const ResponseCallbacks &callbacks,
                 const Deadline &deadline, uint32_t *generation) {
  MessageText message = device_request_text(request, timeout_ms, flag);
  if (!message.ok()) {
    LOG_PRINT_AS("vemo_send_request_async", "ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  PendingResponse pending = {timeout_ms, callbacks};
  MsgDeliverHook hook = {enter_request_id, &pending};
  Exchange exchange;
  exchange.hook = &hook;
  int rc = send_with_recv(message, deadline, &exchange);
  if (rc < 0) {
    LOG_PRINT_AS("vemo_send_request_async", "ERROR", "fail to send the request, error=%d", rc);
    return rc;
  }
  if (exchange.hook_status != 0) {
    LOG_PRINT_AS("vemo_send_request_async", "ERROR", "fail to add the message id, error=%d",
                 exchange.hook_status);
    return exchange.hook_status;
  }
  *generation = exchange.generation;
  return rc;
}

}  // namespace
}  // namespace vemo

using namespace vemo;

namespace {

// The two asynchronous entries differ only in how the response is told.
int send_async(const char *function, const char *request, int timeout_ms, int flag,
               const ResponseCallbacks &callbacks) {
  Deadline deadline = Deadline::after_ms(timeout_ms, get_tick_count());
  if (request == nullptr) {
    LOG_PRINT_AS(function, "ERROR", "the request is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  uint32_t generation = 0;
  return send_request(request, timeout_ms, flag, callbacks, deadline, &generation);
}

}  // namespace

extern "C" VEMO_API int vemo_send_request_async(const char *request, int timeout_ms, int flag,
                                                vemo_response_cb callback) {
  return send_async(__func__, request, timeout_ms, flag, ResponseCallbacks{callback, nullptr, nullptr});
}

extern "C" VEMO_API int vemo_send_request_async_ex(const char *request, int timeout_ms, int flag,
                                                   vemo_response_ex_cb callback, void *user) {
  return send_async(__func__, request, timeout_ms, flag, ResponseCallbacks{nullptr, callback, user});
}

extern "C" VEMO_API int vemo_send_request_sync(const char *request, int timeout_ms, int flag,
                                               char **response) {
  // One deadline for the whole call, counted from entry: the acknowledgement and the response
  // share timeout_ms (the classic call could take twice as long, which overran the deadlines
  // applications plan with).
  Deadline deadline = Deadline::after_ms(timeout_ms, get_tick_count());
  if (request == nullptr || response == nullptr || *response != nullptr) {
    LOG_PRINT("WARN", "the request or response is NULL, or *response is not NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  uint32_t generation = 0;
  int id = send_request(request, timeout_ms, flag, ResponseCallbacks(), deadline, &generation);
  if (id < 0) return id;
  uint32_t joined = 0;
  ClientUse use(deadline, &joined);  // keeps the list alive while this thread waits on it
  if (use.code() != 0) return use.code() == VEMO_ERR_TIMEOUT ? VEMO_ERR_TIMEOUT : VEMO_ERR_DISCONNECTED;
  // Torn down (and perhaps started again) since the acknowledgement: the response went with
  // the old list.
  if (joined != generation) return VEMO_ERR_DISCONNECTED;
  int rc = response_data_wait_response(client().response_list, id, deadline.start,
                                       deadline.timeout_ms, response);
  // Given up: the entry goes now, so a late response is not stored for nobody.
  if (rc == VEMO_ERR_TIMEOUT) response_data_remove(client().response_list, id);
  return rc;
}

extern "C" VEMO_API int vemo_get_response(int id, char **response) {
  if (response == nullptr || *response != nullptr) {
    LOG_PRINT("WARN", "the response is NULL, or *response is not NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  if (client().running.load(std::memory_order_acquire) == 0) return VEMO_ERR_NOT_FOUND;
  ClientUse use(Deadline::after_ms(kControlTimeoutMs, get_tick_count()));
  if (use.code() != 0) return VEMO_ERR_NOT_FOUND;
  return response_data_get_response(client().response_list, id, response);
}
