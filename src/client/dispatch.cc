// The receiving task and the dispatch of every message the daemon sends.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "client/context.h"
#include "client/messages.h"
#include "client/msg_id_pool_internal.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace vemo {
namespace {

constexpr int kReceiveTurnMs = 50;
// After a failed receive the task pauses before the next pass, doubling up to this bound, so a
// closed connection neither spins a core nor floods the log. A success resets the pause.
constexpr int kReceiveBackoffMaxMs = 5000;

// A received frame on its way to a dispatch task; the tree is parsed once, on the receiving
// task, which needs it to recognise acknowledgements.
struct Received {
  char *text;
  cJSON *tree;
  bool on_heap;  // false only for the stack envelope of the out-of-memory path
};

int send_response(const char *answer, int id) {
  JsonPtr reply = build_reply(answer, id);
  if (!reply) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  HeapText text = print_message(reply.get());
  if (!text) {
    LOG_PRINT("ERROR", "fail to create a new json object");
    return VEMO_ERR_NO_RESOURCE;
  }
  return client_send(client_reply_fd(), text.get());
}

// Hands the answer of a handler to the daemon and frees it.
int answer_request(char *answer, int id) {
  int rc = send_response(answer, id);
  free(answer);
  return rc;
}

int dispatch_request(const cJSON *root, const char *name) {
  if (strcmp(name, method::kCloudRequest) == 0) {
    int id = 0;
    if (!json_int(root, key::kId, &id)) {
      LOG_PRINT("ERROR", "fail to get the id from the request");
      return VEMO_ERR_NO_REQUEST_ID;
    }
    const cJSON *params = json_item(root, key::kParams);
    if (params == nullptr) {
      LOG_PRINT("ERROR", "fail to get the parameters from the request");
      return VEMO_ERR_MISSING_KEY;
    }
    const char *request = json_text(params, "request");
    if (request == nullptr) {
      LOG_PRINT("ERROR", "fail to get the request form the parameters");
      return VEMO_ERR_MISSING_KEY;
    }
    ClientHandlers handlers = client_handlers();
    if (handlers.request_cb == nullptr) {
      LOG_PRINT("WARN", "the function is NULL");
      return VEMO_ERR_NO_HANDLER;
    }
    char *answer = nullptr;
    handlers.request_cb(request, &answer);
    if (answer == nullptr) {
      LOG_PRINT("ERROR", "fail to get the response of the request");
      return VEMO_ERR_NO_ANSWER;
    }
    return answer_request(answer, id);
  }
  if (strcmp(name, method::kHelloRequest) == 0) {
    ClientHandlers handlers = client_handlers();
    if (handlers.hello.on_hello_request == nullptr) {
      LOG_PRINT("WARN", "the function is NULL");
      return VEMO_ERR_NO_HANDLER;
    }
    char *answer = nullptr;
    handlers.hello.on_hello_request(&answer);
    if (answer == nullptr) {
      LOG_PRINT("ERROR", "fail to get the response of the request");
      return VEMO_ERR_NO_ANSWER;
    }
    return answer_request(answer, -1);
  }
  if (strcmp(name, method::kHelloResponse) == 0) {
    const cJSON *params = json_item(root, key::kParams);
    if (params == nullptr) {
      LOG_PRINT("ERROR", "fail to get the parameters from the request");
      return VEMO_ERR_MISSING_KEY;
    }
    const char *response = json_text(params, "response");
    if (response == nullptr) {
      LOG_PRINT("ERROR", "fail to get the response from the parameters");
      return VEMO_ERR_MISSING_KEY;
    }
    ClientHandlers handlers = client_handlers();
    if (handlers.hello.on_hello_response == nullptr) {
      LOG_PRINT("WARN", "the function is NULL");
      return VEMO_ERR_NO_HANDLER;
    }
    handlers.hello.on_hello_response(response);
    return 0;
  }
  if (strcmp(name, method::kServerNotify) == 0) {
    const cJSON *params = json_item(root, key::kParams);
    if (params == nullptr) {
      LOG_PRINT("ERROR", "fail to get the parameters from the request");
      return VEMO_ERR_MISSING_KEY;
    }
    int type = 0;
    if (!json_int(params, "type", &type)) {
      LOG_PRINT("ERROR", "fail to get the type from the parameters");
      return VEMO_ERR_MISSING_KEY;
    }
    if (type != 1) return 0;
    client_teardown_ordered();
    return VEMO_ERR_DISCONNECTED;
  }
  return VEMO_ERR_NO_HANDLER;
}

int dispatch_response(const cJSON *root) {
  int id = 0;
  json_int(root, key::kId, &id);
  int value = 0;
  if (!json_int(root, key::kErrorCode, &value)) {
    LOG_PRINT("ERROR", "fail to get the error code from the response");
    return VEMO_ERR_BAD_FORMAT;
  }
  if (value == 0) {
    const cJSON *result = json_item(root, key::kResult);
    if (result != nullptr && !json_int(result, "id", &value)) {
      LOG_PRINT("ERROR", "fail to get the id from the response");
      return VEMO_ERR_MISSING_KEY;
    }
  }
  if (msg_id_deliver(client().msg_id_pool, id, value) != 0) {
    LOG_PRINT("ERROR", "fail to get the message data, id=%d", id);
    return VEMO_ERR_NOT_FOUND;
  }
  return 0;
}

int dispatch_notify(const cJSON *root) {
  int code = 0;
  if (!json_int(root, key::kErrorCode, &code)) {
    LOG_PRINT("ERROR", "fail to get the error code from the response");
    return VEMO_ERR_BAD_FORMAT;
  }
  if (code != 0) {
    LOG_PRINT("ERROR", "the error code of the response=%d", code);
    return code;
  }
  const cJSON *result = json_item(root, key::kResult);
  if (result == nullptr) {
    LOG_PRINT("ERROR", "fail to get the result from the response");
    return VEMO_ERR_MISSING_KEY;
  }
  int id = 0;
  if (!json_int(result, "id", &id)) {
    LOG_PRINT("ERROR", "fail to get the id from the result");
    return VEMO_ERR_MISSING_KEY;
  }
  const char *response = json_text(result, "response");
  if (response == nullptr) {
    LOG_PRINT("ERROR", "fail to get the response from the result");
    return VEMO_ERR_MISSING_KEY;
  }
  return response_data_set_response(client().response_list, id, response);
}

bool is_acknowledgement(const cJSON *root) {
  return json_text(root, key::kMethod) == nullptr && json_item(root, key::kId) != nullptr;
}

int dispatch_tree(const cJSON *root) {
  // A method that is not a JSON string counts as missing, like every text item.
  const char *name = json_text(root, key::kMethod);
  if (name != nullptr) return dispatch_request(root, name);
  if (json_item(root, key::kId) != nullptr) return dispatch_response(root);
  return dispatch_notify(root);
}

void task_dispatch(void *arg) {
  Received *received = static_cast<Received *>(arg);
  int rc = received->tree != nullptr ? dispatch_tree(received->tree)
                                     : dispatch_message(received->text);
  if (rc != 0) LOG_PRINT("ERROR", "fail to dispatch the message, error=%d", rc);
  cJSON_Delete(received->tree);
  free(received->text);
  if (received->on_heap) free(received);
}

// Prepares a received text for its dispatch: the tree is parsed here, once. Null when no memory
// is left to carry it; the caller then dispatches the bare text itself.
Received *receive_envelope(char *text) {
  Received *received = static_cast<Received *>(malloc(sizeof(Received)));
  if (received == nullptr) return nullptr;
  received->text = text;
  received->tree = cJSON_Parse(text);
  received->on_heap = true;
  return received;
}

}  // namespace

int dispatch_message(const char *text) {
  JsonPtr root(cJSON_Parse(text));
  if (!root) {
    LOG_PRINT("ERROR", "fail to parse the message");
    return VEMO_ERR_BAD_FORMAT;
  }
  return dispatch_tree(root.get());
}

void task_receive(void *) {
  cloud_client_t &c = client();
  const uint32_t generation = c.generation.load(std::memory_order_acquire);
  LOG_PRINT("DEBUG", "begin the task to receive from the server...");
  int pause_ms = 0;
  while (client_serving(c, generation)) {
    char *text = nullptr;
    int rc = ipc_socket_recv_timed(c.fd, kReceiveTurnMs, &text);
    if (rc == 0) {
      pause_ms = 0;
      Received *received = receive_envelope(text);
      if (received == nullptr) {
        Received bare = {text, nullptr, false};  // dispatched here: the stack will do
        task_dispatch(&bare);
        continue;
      }
      // Acknowledgements are dispatched right here, in the order they arrived, so that a
      // response notification read after its acknowledgement always finds the request id in
      // the response list. Everything else (which may run application code) goes to a dispatch
      // task of its own.
      if (received->tree != nullptr && is_acknowledgement(received->tree)) {
        task_dispatch(received);
        continue;
      }
      rc = task_pool_add(c.task_pool, task_dispatch, nullptr, received);
      if (rc != 0) {
        LOG_PRINT("WARN", "fail to create a task to dispatch the message, error=%d", rc);
        task_dispatch(received);
      }
      continue;
    }
    free(text);
    if (rc == VEMO_ERR_RECV_TIMEOUT) continue;
    // A teardown shuts the socket down under us: that is not a failure worth a line.
    if (!client_serving(c, generation)) break;
    LOG_PRINT("ERROR", "fail to receive the message, error=%d", rc);
    pause_ms = pause_ms == 0 ? kReceiveTurnMs : std::min(pause_ms * 2, kReceiveBackoffMaxMs);
    MutexLock hold(c.lock);
    if (client_serving(c, generation)) c.wake_tasks.wait_for_ms(c.lock, pause_ms);
  }
  LOG_PRINT("DEBUG", "end the task to receive from the server...");
}

}  // namespace vemo
