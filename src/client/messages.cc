#include "client/messages.h"

#include <stdint.h>
#include <string.h>

namespace vemo {
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

MessageText::MessageText(MessageText &&other) noexcept
    : text_(other.text_), length_(other.length_), capacity_(other.capacity_), failed_(other.failed_) {
  other.text_ = nullptr;
  other.length_ = other.capacity_ = 0;
}

MessageText::MessageText(size_t expected) { reserve(expected); }

bool MessageText::reserve(size_t more) {
  if (failed_) return false;
  if (length_ + more + 1 <= capacity_) return true;
  size_t capacity = capacity_ == 0 ? 128 : capacity_;
  while (capacity < length_ + more + 1) capacity *= 2;
  char *grown = static_cast<char *>(realloc(text_, capacity));
  if (grown == nullptr) {
    failed_ = true;
    return false;
  }
  text_ = grown;
  capacity_ = capacity;
  return true;
}

void MessageText::raw(const char *text) {
  size_t n = strlen(text);
  if (!reserve(n)) return;
  memcpy(text_ + length_, text, n + 1);
  length_ += n;
}

void MessageText::number(int value) {
  // Plain decimal, as %d prints it (cJSON prints a 32-bit integer so).
  char digits[12];
  char *end = digits + sizeof digits;
  char *p = end;
  uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
  do {
    *--p = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0) *--p = '-';
  size_t n = static_cast<size_t>(end - p);
  if (!reserve(n)) return;
  memcpy(text_ + length_, p, n);
  length_ += n;
  text_[length_] = '\0';
}

namespace {
// The bytes cJSON escapes: the quote, the backslash and everything below 0x20.
inline bool needs_escape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }
}  // namespace

// Escaped as cJSON escapes: the quote, the backslash and the bytes below 0x20, the five usual
// ones by letter and the others as \u00xx in lower-case hex; every other byte (UTF-8 included)
// as it is. Runs without escapes are copied whole.
void MessageText::string(const char *text) {
  static const char kHex[] = "0123456789abcdef";
  const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
  if (!reserve(2)) return;
  text_[length_++] = '"';
  for (;;) {
    const unsigned char *run = p;
    while (*p != 0 && !needs_escape(*p)) ++p;
    size_t n = static_cast<size_t>(p - run);
    if (!reserve(n + 7)) return;
    memcpy(text_ + length_, run, n);
    length_ += n;
    unsigned char c = *p;
    if (c == 0) break;
    ++p;
    char *out = text_ + length_;
    *out++ = '\\';
    switch (c) {
      case '"': *out++ = '"'; break;
      case '\\': *out++ = '\\'; break;
      case '\b': *out++ = 'b'; break;
      case '\f': *out++ = 'f'; break;
      case '\n': *out++ = 'n'; break;
      case '\r': *out++ = 'r'; break;
      case '\t': *out++ = 't'; break;
      default:
        *out++ = 'u';
        *out++ = '0';
        *out++ = '0';
        *out++ = kHex[c >> 4];
        *out++ = kHex[c & 0xF];
    }
    length_ = static_cast<size_t>(out - text_);
  }
  text_[length_++] = '"';
  text_[length_] = '\0';
}

void MessageText::close_with_id(int id) {
  raw(",\"inner_id\":");
  number(id);
  raw("}");
}

namespace {
MessageText with_method(const char *method_name, size_t expected) {
  MessageText message(expected);
  message.raw("{\"inner_method\":");
  message.string(method_name);
  return message;
}
}  // namespace

MessageText device_request_text(const char *request, int timeout_ms, int flag) {
  MessageText message = with_method(method::kDeviceRequest, strlen(request) + 128);
  message.raw(",\"inner_params\":{\"request\":");
  message.string(request);
  message.raw(",\"timeout_ms\":");
  message.number(timeout_ms);
  message.raw(",\"flag\":");
  message.number(flag);
  message.raw("}");
  return message;
}

MessageText register_text(bool hello) {
  MessageText message = with_method(method::kRegister, 96);
  message.raw(hello ? ",\"inner_params\":{\"hello_cloud\":1}" : ",\"inner_params\":{\"hello_cloud\":0}");
  return message;
}

MessageText method_only_text(const char *method_name) { return with_method(method_name, 64); }

MessageText reply_text(const char *answer, int id) {
  MessageText message(strlen(answer) + 96);
  message.raw("{\"inner_error_code\":0,\"inner_result\":{\"response\":");
  message.string(answer);
  message.raw("}");
  // The reply to a hello request carries no id.
  if (id > 0) {
    message.close_with_id(id);
  } else {
    message.raw("}");
  }
  return message;
}

}  // namespace vemo
