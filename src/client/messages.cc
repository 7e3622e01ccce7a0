#include "client/messages.h"

namespace vemo {
namespace {

// Adds a member and hands the item to the object; on failure the item is deleted here.
bool add(cJSON *object, const char *name, cJSON *item) {
  if (object == nullptr || item == nullptr) {
    cJSON_Delete(item);
    return false;
  }
  cJSON_AddItemToObject(object, name, item);
  return true;
}

JsonPtr with_method(const char *method_name) {
  JsonPtr message(cJSON_CreateObject());
  if (!message || !add(message.get(), key::kMethod, cJSON_CreateString(method_name))) return nullptr;
  return message;
}

}  // namespace

const cJSON *json_item(const cJSON *object, const char *name) {
  if (object == nullptr) return nullptr;
  return cJSON_GetObjectItem(object, name);
}

const char *json_text(const cJSON *object, const char *name) {
  const cJSON *item = json_item(object, name);
  return cJSON_IsString(item) ? item->valuestring : nullptr;
}

bool json_int(const cJSON *object, const char *name, int *value) {
  const cJSON *item = json_item(object, name);
  if (item == nullptr) return false;
  *value = item->valueint;
  return true;
}

JsonPtr build_device_request(const char *request, int timeout_ms, int flag) {
  JsonPtr message = with_method(method::kDeviceRequest);
  cJSON *params = cJSON_CreateObject();
  if (!message || !add(message.get(), key::kParams, params)) return nullptr;
  if (!add(params, "request", cJSON_CreateString(request)) ||
      !add(params, "timeout_ms", cJSON_CreateNumber(timeout_ms)) ||
      !add(params, "flag", cJSON_CreateNumber(flag)))
    return nullptr;
  return message;
}

JsonPtr build_register(bool hello) {
  JsonPtr message = with_method(method::kRegister);
  cJSON *params = cJSON_CreateObject();
  if (!message || !add(message.get(), key::kParams, params)) return nullptr;
  if (!add(params, "hello_cloud", cJSON_CreateNumber(hello ? 1 : 0))) return nullptr;
  return message;
}

JsonPtr build_method_only(const char *method_name) { return with_method(method_name); }

JsonPtr build_reply(const char *answer, int id) {
  // Each member goes into the tree as soon as it is made, so the reply's owner frees whatever
  // was built when a later step fails.
  JsonPtr reply(cJSON_CreateObject());
  if (!reply || !add(reply.get(), key::kErrorCode, cJSON_CreateNumber(0))) return nullptr;
  cJSON *result = cJSON_CreateObject();
  if (!add(reply.get(), key::kResult, result) ||
      !add(result, "response", cJSON_CreateString(answer)))
    return nullptr;
  // The reply to a hello request carries no id.
  if (id > 0 && !add(reply.get(), key::kId, cJSON_CreateNumber(id))) return nullptr;
  return reply;
}

bool add_message_id(cJSON *message, int id) { return add(message, key::kId, cJSON_CreateNumber(id)); }

HeapText print_message(const cJSON *message) { return HeapText(cJSON_PrintUnformatted(message)); }

}  // namespace vemo
