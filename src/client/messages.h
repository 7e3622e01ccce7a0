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

// The text of an outgoing message, written straight into one heap buffer: the same bytes that
// cJSON's unformatted printer gives for the same object (keys in the same order, the same string
// escapes, 32-bit integers in plain decimal), without building a tree and printing it, which
// cost more than the rest of a request. An open message lacks its closing brace: the exchange
// closes it with its inner_id once it holds one.
class MessageText {
 public:
  MessageText() = default;
  // Room for expected bytes, so that a message is usually built in one allocation.
  explicit MessageText(size_t expected);
  ~MessageText() { free(text_); }
  MessageText(MessageText &&other) noexcept;
  MessageText(const MessageText &) = delete;
  MessageText &operator=(const MessageText &) = delete;
  MessageText &operator=(MessageText &&) = delete;

  // False once an allocation failed: the text is then unusable.
  bool ok() const { return !failed_ && text_ != nullptr; }
  const char *c_str() const { return text_; }

  void raw(const char *text);
  void string(const char *text);  // a JSON string
  void number(int value);
  // Closes an open message: ,"inner_id":id}.
  void close_with_id(int id);

 private:
  bool reserve(size_t more);
  char *text_ = nullptr;
  size_t length_ = 0;
  size_t capacity_ = 0;
  bool failed_ = false;
};

// Open messages (closed by the exchange with their inner_id).
MessageText device_request_text(const char *request, int timeout_ms, int flag);
MessageText register_text(bool hello);
MessageText method_only_text(const char *method_name);
// The complete reply to a cloud_request (id > 0: echoed) or a hello request.
MessageText reply_text(const char *answer, int id);

}  // namespace vemo

#endif
