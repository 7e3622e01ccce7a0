#include "protocol.h"

#include "json.h"

namespace vemo {
namespace cloudd {

namespace {

// Builders below add members in the order in which the client prints its own messages, so
// the daemon's lines read the same way.
JsonPtr object() { return JsonPtr(cJSON_CreateObject()); }

void add_number(cJSON *obj, const char *key, int value) {
  cJSON_AddItemToObject(obj, key, cJSON_CreateNumber(value));
}

void add_string(cJSON *obj, const char *key, const std::string &value) {
  cJSON_AddItemToObject(obj, key, cJSON_CreateString(value.c_str()));
}

const cJSON *member(const cJSON *obj, const char *key) {
  return obj != nullptr && cJSON_IsObject(obj) ? cJSON_GetObjectItem(obj, key) : nullptr;
}

bool read_int(const cJSON *obj, const char *key, int *out) {
  const cJSON *item = member(obj, key);
  if (item == nullptr || !cJSON_IsNumber(item)) return false;
  *out = item->valueint;
  return true;
}

bool read_string(const cJSON *obj, const char *key, std::string *out) {
  const cJSON *item = member(obj, key);
  if (item == nullptr || !cJSON_IsString(item) || item->valuestring == nullptr) return false;
  *out = item->valuestring;
  return true;
}

}  // namespace

bool is_client_method(const std::string &method) {
  return method == kDeviceRequest || method == kRegisterCallback || method == kUnregisterCallback ||
         method == kReconnectCloud;
}

std::string make_ack(int id, int code, const int *request_id) {
  JsonPtr msg = object();
  add_number(msg.get(), "inner_id", id);
  add_number(msg.get(), "inner_error_code", code);
  if (request_id != nullptr) {
    cJSON *result = cJSON_CreateObject();
    add_number(result, "id", *request_id);
    cJSON_AddItemToObject(msg.get(), "inner_result", result);
  }
  return print_unformatted(msg.get());
}

std::string make_response(int request_id, const std::string &text) {
  JsonPtr msg = object();
  add_number(msg.get(), "inner_error_code", 0);
  cJSON *result = cJSON_CreateObject();
  add_number(result, "id", request_id);
  add_string(result, "response", text);
  cJSON_AddItemToObject(msg.get(), "inner_result", result);
  return print_unformatted(msg.get());
}

std::string make_failed_response(int code) {
  JsonPtr msg = object();
  add_number(msg.get(), "inner_error_code", code);
  return print_unformatted(msg.get());
}

std::string make_cloud_request(int id, const std::string &text) {
  JsonPtr msg = object();
  add_string(msg.get(), "inner_method", kCloudRequest);
  add_number(msg.get(), "inner_id", id);
  cJSON *params = cJSON_CreateObject();
  add_string(params, "request", text);
  cJSON_AddItemToObject(msg.get(), "inner_params", params);
  return print_unformatted(msg.get());
}

std::string make_hello_request() {
  JsonPtr msg = object();
  add_string(msg.get(), "inner_method", kHelloRequest);
  return print_unformatted(msg.get());
}

std::string make_hello_response(const std::string &text) {
  JsonPtr msg = object();
  add_string(msg.get(), "inner_method", kHelloResponse);
  cJSON *params = cJSON_CreateObject();
  add_string(params, "response", text);
  cJSON_AddItemToObject(msg.get(), "inner_params", params);
  return print_unformatted(msg.get());
}

std::string make_server_notify(int type) {
  JsonPtr msg = object();
  add_string(msg.get(), "inner_method", kServerNotify);
  cJSON *params = cJSON_CreateObject();
  add_number(params, "type", type);
  cJSON_AddItemToObject(msg.get(), "inner_params", params);
  return print_unformatted(msg.get());
}

Received parse_received(int conn, const std::string &text) {
  Received r;
  r.conn = conn;
  r.text = text;
  JsonPtr root(cJSON_Parse(text.c_str()));
  if (!root || !cJSON_IsObject(root.get())) return r;
  const cJSON *msg = root.get();
  r.json = true;
  read_string(msg, "inner_method", &r.method);
  r.has_id = read_int(msg, "inner_id", &r.id);
  r.has_error_code = read_int(msg, "inner_error_code", &r.error_code);
  const cJSON *params = member(msg, "inner_params");
  r.has_request = read_string(params, "request", &r.request);
  read_int(params, "timeout_ms", &r.timeout_ms);
  read_int(params, "flag", &r.flag);
  read_int(params, "hello_cloud", &r.hello_cloud);
  r.has_response = read_string(member(msg, "inner_result"), "response", &r.response);
  return r;
}

std::string describe_payload(const std::string &text) {
  JsonPtr root(cJSON_Parse(text.c_str()));
  if (!root || !cJSON_IsObject(root.get())) return "(not json) " + quoted(text);
  // Shown as it travelled, unless line breaks or other control bytes would split the line.
  for (unsigned char c : text) {
    if (c < 0x20) return print_unformatted(root.get());
  }
  return text;
}

}  // namespace cloudd
}  // namespace vemo
