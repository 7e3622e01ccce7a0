#include "json.h"

namespace vemo {
namespace cloudd {

std::string print_unformatted(const cJSON *item) {
  char *printed = cJSON_PrintUnformatted(item);
  if (printed == nullptr) return std::string();
  std::string out(printed);
  cJSON_free(printed);
  return out;
}

void append_json_string(std::string *out, const std::string &text) {
  static const char kDigits[] = "0123456789abcdef";
  out->push_back('"');
  for (unsigned char c : text) {
    if (c == 0) break;
    if (c >= 0x20 && c != '"' && c != '\\') {
      out->push_back(static_cast<char>(c));
      continue;
    }
    out->push_back('\\');
    switch (c) {
      case '"': out->push_back('"'); break;
      case '\\': out->push_back('\\'); break;
      case '\b': out->push_back('b'); break;
      case '\f': out->push_back('f'); break;
      case '\n': out->push_back('n'); break;
      case '\r': out->push_back('r'); break;
      case '\t': out->push_back('t'); break;
      default:
        out->append("u00");
        out->push_back(kDigits[c >> 4]);
        out->push_back(kDigits[c & 0xf]);
    }
  }
  out->push_back('"');
}

std::string quoted(const std::string &text) {
  // Control bytes are escaped by hand so that the result never depends on how the JSON
  // library treats them; everything else is kept byte for byte.
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          out += "\\u00";
          out.push_back(kDigits[c >> 4]);
          out.push_back(kDigits[c & 0xf]);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  out.push_back('"');
  return out;
}

std::string hex(const std::string &bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xf]);
  }
  return out;
}

}  // namespace cloudd
}  // namespace vemo
