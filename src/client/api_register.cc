// Registration of the application's handlers, and the reconnect request.
#include "client/context.h"
#include "client/exchange.h"
#include "client/messages.h"
#include "util/log_internal.h"
#include "util/worker_pool.h"
#include "vemo/util.h"
#include "vemo/vemo.h"

namespace vemo {
namespace {

int register_client(bool hello, const Deadline &deadline, Exchange *exchange) {
  MessageText message = register_text(hello);
  if (!message.ok()) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return send_with_recv(message, deadline, exchange);
}

int unregister_client(const Deadline &deadline) {
  MessageText message = method_only_text(method::kUnregister);
  if (!message.ok()) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return send_with_recv(message, deadline);
}

Deadline control_deadline() { return Deadline::after_ms(kControlTimeoutMs, get_tick_count()); }

}  // namespace

int client_announce(bool hello, const Deadline &deadline, uint32_t *generation) {
  Exchange exchange;
  int rc = register_client(hello, deadline, &exchange);
  *generation = exchange.generation;
  return rc;
}

}  // namespace vemo

using namespace vemo;

namespace vemo {
namespace {

// The registration behind both kinds of handlers; name is the public function the lines name.
int register_handlers(const char *name, const HandlerSet &handlers, const Deadline &deadline) {
  uint32_t epoch = 0;
  client_set_callback(handlers, &epoch);
  // The handlers are in place before the daemon hears of them: a cloud request may reach them
  // before this call returns.
  uint32_t generation = 0;
  int rc = client_announce(handlers.has_hello, deadline, &generation);
  // A teardown ordered by the daemon while the registration was on its way may have wiped the
  // handlers: a call that returns 0 leaves them in place, one that fails leaves none.
  if (rc == 0 && !client_confirm_callback(epoch, generation, handlers)) rc = VEMO_ERR_DISCONNECTED;
  if (rc == 0) return 0;
  LOG_PRINT_AS(name, "ERROR", "fail to register the client to the server, error=%d", rc);
  client_clear_callback_of(epoch);
  return rc;
}

}  // namespace
}  // namespace vemo

extern "C" VEMO_API int vemo_register_callback(vemo_cloud_request_cb callback,
                                               const vemo_hello_cloud_cb_t *hello) {
  Deadline deadline = control_deadline();
  if (callback == nullptr) {
    LOG_PRINT("ERROR", "the vemo_cloud_request_cb is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  HandlerSet handlers;
  handlers.request_cb = callback;
  if (hello != nullptr) {
    handlers.hello = *hello;  // the application's pair need not outlive the call
    handlers.has_hello = true;
  }
  return register_handlers(__func__, handlers, deadline);
}

extern "C" VEMO_API int vemo_register_callback_ex(vemo_cloud_request_ex_cb callback,
                                                  const vemo_hello_cloud_ex_cb_t *hello, void *user) {
  Deadline deadline = control_deadline();
  if (callback == nullptr) {
    LOG_PRINT("ERROR", "the vemo_cloud_request_ex_cb is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  HandlerSet handlers;
  handlers.request_ex = callback;
  handlers.user = user;
  if (hello != nullptr) {
    handlers.hello_ex = *hello;
    handlers.has_hello = true;
  }
  return register_handlers(__func__, handlers, deadline);
}

extern "C" VEMO_API int vemo_unregister_callback(void) {
  int rc = unregister_client(control_deadline());
  if (rc == 0) {
    client_clear_callback();
    return 0;
  }
  LOG_PRINT("ERROR", "fail to clear the client from the server, error=%d", rc);
  return rc;
}

extern "C" VEMO_API int vemo_reconnect_cloud(void) {
  Deadline deadline = control_deadline();
  MessageText message = method_only_text(method::kReconnect);
  if (!message.ok()) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return send_with_recv(message, deadline);
}

extern "C" VEMO_API int vemo_shutdown(int timeout_ms) {
  Deadline deadline = Deadline::after_ms(timeout_ms, get_tick_count());
  // Handlers finish first, so that the answers they are sending still have a connection.
  int rc = handler_pool().wait_idle(deadline.remaining_ms(get_tick_count())) ? 0 : VEMO_ERR_TIMEOUT;
  if (client_handlers().registered() &&
      client().running.load(std::memory_order_acquire) == 1) {
    int left = deadline.remaining_ms(get_tick_count());
    if (left > 0 && unregister_client(Deadline::after_ms(left, get_tick_count())) == 0) {
      client_clear_callback();
    }
  }
  client_close();
  return rc;
}
