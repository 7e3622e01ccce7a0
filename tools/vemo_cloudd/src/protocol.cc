#include "protocol.h"

#include "json.h"

namespace vemo {
namespace cloudd {

namespace {

// Messages are written straight into their text, as cJSON_PrintUnformatted would print the same
// tree (members in the order in which the client prints its own messages, integers in decimal,
// strings escaped by append_json_string): a tree built and printed per message costs the daemon
// more than the rest of its answer.
std::string &key(std::string &out, const char *name) {
  out += '"';
  out += name;
  out += "\":";
  return out;
}

void add_number(std::string &out, const char *name, int value) { key(out, name) += std::to_string(value); }

void add_string(std::string &out, const char *name, const std::string &value) {
  append_json_string(&key(out, name), value);
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

namespace {

// The code and, when there is one, the request id: the tail of acknowledgements and of failed
// responses alike.
std::string &add_code_and_result(std::string &out, int code, const int *request_id) {
  add_number(out, "inner_error_code", code);
  if (request_id != nullptr) {
    out += ",\"inner_result\":{";
    add_number(out, "id", *request_id);
    out += '}';
  }
  return out += '}';
}

}  // namespace

std::string make_ack(int id, int code, const int *request_id) {
  std::string out = "{";
  add_number(out, "inner_id", id);
  out += ',';
  return add_code_and_result(out, code, request_id);
}

std::string make_response(int request_id, const std::string &text) {
  std::string out;
  out.reserve(64 + text.size());
  out = "{\"inner_error_code\":0,\"inner_result\":{";
  add_number(out, "id", request_id);
  out += ',';
  add_string(out, "response", text);
  return out += "}}";
}

std::string make_failed_response(int code, const int *request_id) {
  std::string out = "{";
  return add_code_and_result(out, code, request_id);
}

std::string make_cloud_request(int id, const std::string &text) {
  std::string out = "{\"inner_method\":\"cloud_request\",";
  add_number(out, "inner_id", id);
  out += ",\"inner_params\":{";
  add_string(out, "request", text);
  return out += "}}";
}

std::string make_hello_request() { return "{\"inner_method\":\"request_of_hello_cloud\"}"; }

std::string make_hello_response(const std::string &text) {
  std::string out = "{\"inner_method\":\"response_of_hello_cloud\",\"inner_params\":{";
  add_string(out, "response", text);
  return out += "}}";
}

std::string make_server_notify(int type) {
  std::string out = "{\"inner_method\":\"server_notify\",\"inner_params\":{";
  add_number(out, "type", type);
  return out += "}}";
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
  return describe_payload(text, root && cJSON_IsObject(root.get()));
}

std::string describe_payload(const std::string &text, bool json) {
  if (!json) return "(not json) " + quoted(text);
  // Shown as it travelled, unless line breaks or other control bytes would split the line.
  for (unsigned char c : text) {
    if (c < 0x20) {
      JsonPtr root(cJSON_Parse(text.c_str()));
      return print_unformatted(root.get());
    }
  }
  return text;
}

}  // namespace cloudd
}  // namespace vemo
