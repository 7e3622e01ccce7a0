// Registration of the application's handlers, and the reconnect request.
#include "client/context.h"
#include "client/exchange.h"
#include "client/messages.h"
#include "vemo/util.h"
#include "vemo/vemo.h"

namespace vemo {
namespace {

constexpr int kControlTimeoutMs = 5000;

int register_client(bool hello) {
  JsonPtr message = build_register(hello);
  if (!message) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return send_with_recv(message.get(), kControlTimeoutMs);
}

int unregister_client() {
  JsonPtr message = build_method_only(method::kUnregister);
  if (!message) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return send_with_recv(message.get(), kControlTimeoutMs);
}

}  // namespace
}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API int vemo_register_callback(vemo_cloud_request_cb callback,
                                               const vemo_hello_cloud_cb_t *hello) {
  if (callback == nullptr) {
    LOG_PRINT("ERROR", "the vemo_cloud_request_cb is NULL");
    return VEMO_ERR_INVALID_ARG;
  }
  client_clear_callback();
  int rc = client_set_callback(callback, hello);
  if (rc != 0) {
    LOG_PRINT("ERROR", "fail to set the callback, error=%d", rc);
    return rc;
  }
  // The handlers are in place before the daemon hears of them: a cloud request may reach them
  // before this call returns.
  rc = register_client(hello != nullptr);
  if (rc == 0) return 0;
  LOG_PRINT("ERROR", "fail to register the client to the server, error=%d", rc);
  client_clear_callback();
  return rc;
}

extern "C" VEMO_API int vemo_unregister_callback(void) {
  int rc = unregister_client();
  if (rc == 0) {
    client_clear_callback();
    return 0;
  }
  LOG_PRINT("ERROR", "fail to clear the client from the server, error=%d", rc);
  return rc;
}

extern "C" VEMO_API int vemo_reconnect_cloud(void) {
  JsonPtr message = build_method_only(method::kReconnect);
  if (!message) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return send_with_recv(message.get(), kControlTimeoutMs);
}
