// Small owners and helpers around cJSON for the daemon.
#ifndef VEMO_CLOUDD_JSON_H
#define VEMO_CLOUDD_JSON_H

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace vemo {
namespace cloudd {

struct JsonDeleter {
  void operator()(cJSON *item) const { cJSON_Delete(item); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

// The item printed without spaces or line breaks; empty when printing fails.
std::string print_unformatted(const cJSON *item);

// Appends text as cJSON prints a string value: quoted, with '"', '\\' and the bytes below 0x20
// escaped (\b \f \n \r \t, else \u00xx), every other byte as it is, ending at a zero byte.
void append_json_string(std::string *out, const std::string &text);

// The text as a JSON string literal, quotes included: safe to put on one log line whatever
// bytes it holds.
std::string quoted(const std::string &text);

// The bytes as lower-case hexadecimal, two digits each.
std::string hex(const std::string &bytes);

}  // namespace cloudd
}  // namespace vemo

#endif
