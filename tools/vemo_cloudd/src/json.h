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

// The text as a JSON string literal, quotes included: safe to put on one log line whatever
// bytes it holds.
std::string quoted(const std::string &text);

// The bytes as lower-case hexadecimal, two digits each.
std::string hex(const std::string &bytes);

}  // namespace cloudd
}  // namespace vemo

#endif
