// The request API: asynchronous and synchronous requests to the cloud, and collecting responses.
#include "client/context.h"
#include "client/exchange.h"
#include "client/messages.h"
#include "client/response_internal.h"
#include "vemo/util.h"
#include "vemo/vemo.h"

namespace vemo {
namespace {

// A negative timeout cannot reach the list (its acknowledgement wait ends at once), but should
// one ever be entered, its response is kept for this long rather than dropped at once.
constexpr int kDefaultResponseTimeoutMs = 5000;

struct PendingResponse {
  int timeout_ms;
  vemo_response_cb callback;
  uint32_t generation;  // the start-up whose response list took the request id
};

// Runs on the receiving task as the acknowledgement arrives, before the sender wakes: the
// request id is in the response list before any later message is read, so a response
// notification right behind its acknowledgement is never dropped.
int enter_request_id(void *ctx, int value) {
  if (value < 0) return 0;  // refused: nothing to wait for
  PendingResponse *pending = static_cast<PendingResponse *>(ctx);
  pending->generation = client().generation.load(std::memory_order_acquire);
  int timeout = pending->timeout_ms >= 0 ? pending->timeout_ms : kDefaultResponseTimeoutMs;
  return response_data_add(client().response_list, value, timeout, pending->callback);
}

// The start-up whose response list took this thread's last request id: the synchronous wait
// must look for its response in that list and no other.
thread_local uint32_t t_request_generation = 0;

}  // namespace
}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API int vemo_send_request_async(const char *request, int timeout_ms, int flag,
                                                vemo_response_cb callback) {
  if (request == nullptr) {
    LOG_PRINT("ERROR", "the request is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  JsonPtr message = build_device_request(request, timeout_ms, flag);
  if (!message) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  PendingResponse pending = {timeout_ms, callback, 0};
  MsgDeliverHook hook = {enter_request_id, &pending};
  int add_status = 0;
  int rc = send_with_recv(message.get(), timeout_ms, &hook, &add_status);
  if (rc < 0) {
    LOG_PRINT("ERROR", "fail to send the request, error=%d", rc);
    return rc;
  }
  if (add_status != 0) {
    LOG_PRINT("ERROR", "fail to add the message id, error=%d", add_status);
    return add_status;
  }
  t_request_generation = pending.generation;
  return rc;
}

extern "C" VEMO_API int vemo_send_request_sync(const char *request, int timeout_ms, int flag,
                                               char **response) {
  if (request == nullptr || response == nullptr || *response != nullptr) {
    LOG_PRINT("WARN", "the request or response is NULL, or *response is not NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  int id = vemo_send_request_async(request, timeout_ms, flag, nullptr);
  if (id < 0) return id;
  const uint32_t generation = t_request_generation;
  uint32_t start = get_tick_count();
  ClientUse use;  // keeps the list alive while this thread waits on it
  if (use.code() != 0) return use.code();
  // Torn down (and perhaps started again) since the acknowledgement: the response went with
  // the old list.
  if (client().generation.load(std::memory_order_acquire) != generation) return VEMO_ERR_DISCONNECTED;
  return response_data_wait_response(client().response_list, id, start, timeout_ms, response);
}

extern "C" VEMO_API int vemo_get_response(int id, char **response) {
  if (response == nullptr || *response != nullptr) {
    LOG_PRINT("WARN", "the response is NULL, or *response is not NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  if (client().running.load(std::memory_order_acquire) == 0) return VEMO_ERR_NOT_FOUND;
  ClientUse use;
  if (use.code() != 0) return VEMO_ERR_NOT_FOUND;
  return response_data_get_response(client().response_list, id, response);
}
