// The JSON messages between the client and the daemon: builders, readers and RAII owners.
//
// Keys are looked up without regard to letter case (the first match counts); method names are
// compared exactly. A text item that is not a JSON string counts as missing: it is never used
// as a text. Numbers are read through their integer value (12.9 reads as 12).
#ifndef VEMO_CLIENT_MESSAGES_H
#define VEMO_CLIENT_MESSAGES_H

#include <cjson/cJSON.h>
#include <stdlib.h>

#include <memory>

namespace vemo {

struct JsonDeleter {
  void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct FreeDeleter {
  void operator()(void *p) const { free(p); }
};
using HeapText = std::unique_ptr<char, FreeDeleter>;

namespace key {
constexpr const char kMethod[] = "inner_method";
constexpr const char kId[] = "inner_id";
constexpr const char kParams[] = "inner_params";
constexpr const char kErrorCode[] = "inner_error_code";
constexpr const char kResult[] = "inner_result";
}  // namespace key

namespace method {
constexpr const char kDeviceRequest[] = "device_request";
constexpr const char kReconnect[] = "reconnect_cloud";
constexpr const char kRegister[] = "register_callback";
constexpr const char kUnregister[] = "unregister_callback";
constexpr const char kCloudRequest[] = "cloud_request";
constexpr const char kHelloRequest[] = "request_of_hello_cloud";
constexpr const char kHelloResponse[] = "response_of_hello_cloud";
constexpr const char kServerNotify[] = "server_notify";
}  // namespace method

// The member's text, or null when it is missing or not a string.
const char *json_text(const cJSON *object, const char *name);
// The member itself (any type), or null.
const cJSON *json_item(const cJSON *object, const char *name);
// The member's integer value; false when it is missing.
bool json_int(const cJSON *object, const char *name, int *value);

// Builders; each returns null when an object cannot be created (the caller logs).
JsonPtr build_device_request(const char *request, int timeout_ms, int flag);
JsonPtr build_register(bool hello);
JsonPtr build_method_only(const char *method_name);
JsonPtr build_reply(const char *answer, int id);

// Adds inner_id; false when the number cannot be created.
bool add_message_id(cJSON *message, int id);

// The message printed unformatted, or null.
HeapText print_message(const cJSON *message);

}  // namespace vemo

#endif
