#include "format.h"

#include <cjson/cJSON.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#include <new>

#include <vemo/codes.h>

namespace vemo_cli {

const char kExitStatusHelp[] =
    "exit status:\n"
    "  0  success\n"
    "  1  the tool itself failed (a system call, writing its output)\n"
    "  2  usage error\n"
    "  3  the daemon is not running (-1100)\n"
    "  4  disconnected: the connection failed or was closed (-1101, -1102);\n"
    "     listen: its registration was lost for good\n"
    "  5  timed out (-20002, -3000)\n"
    "  6  refused by the daemon (a code of the daemon's own)\n"
    "  7  any other failure of the library (its other negative codes)\n";

bool is_library_code(int code) {
  switch (code) {
    case VEMO_ERR_NO_ANSWER:
    case VEMO_ERR_NO_SERVER:
    case VEMO_ERR_DISCONNECTED:
    case VEMO_ERR_PEER_CLOSED:
    case VEMO_ERR_NOT_FOUND:
    case VEMO_ERR_NOT_ARRIVED:
    case VEMO_ERR_RECV_TIMEOUT:
    case VEMO_ERR_NO_RESOURCE:
    case VEMO_ERR_BAD_FORMAT:
    case VEMO_ERR_SHORT_READ:
    case VEMO_ERR_TIMEOUT:
    case VEMO_ERR_NO_REQUEST_ID:
    case VEMO_ERR_NO_HANDLER:
    case VEMO_ERR_MISSING_KEY:
    case VEMO_ERR_INVALID_ARG:
      return true;
    default:
      return false;
  }
}

int exit_status_for(int code) {
  switch (code) {
    case VEMO_OK: return kExitOk;
    case VEMO_ERR_NO_SERVER: return kExitNoDaemon;
    case VEMO_ERR_DISCONNECTED:
    case VEMO_ERR_PEER_CLOSED: return kExitDisconnected;
    case VEMO_ERR_TIMEOUT:
    case VEMO_ERR_RECV_TIMEOUT: return kExitTimeout;
    default: break;
  }
  // A daemon that answers with a value that happens to be one of the library's codes (its
  // -20103 for an unknown method, say) cannot be told apart from the library: it is reported as
  // that code.
  return is_library_code(code) ? kExitLibrary : kExitRefused;
}

std::string describe_code(int code, const char *description) {
  std::string text = is_library_code(code) ? "error " + std::to_string(code)
                                           : "refused by the daemon with code " + std::to_string(code);
  text += ": ";
  text += description != nullptr ? description : "(no description)";
  return text;
}

std::string one_line(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char hex[8];
          snprintf(hex, sizeof hex, "\\x%02x", c);
          out += hex;
        } else {
          out += static_cast<char>(c);  // UTF-8 passes unchanged
        }
    }
  }
  return out;
}

std::string utc_now() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm utc;
  char stamp[40] = "1970-01-01T00:00:00";
  if (gmtime_r(&now.tv_sec, &utc) != nullptr) strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  char out[48];
  snprintf(out, sizeof out, "%s.%03dZ", stamp, static_cast<int>(now.tv_usec / 1000));
  return out;
}

JsonLine::JsonLine(const char *event, const std::string &time) : object_(cJSON_CreateObject()) {
  add("time", time);
  add("event", event);
}

JsonLine::~JsonLine() { cJSON_Delete(object_); }

JsonLine &JsonLine::add(const char *key, const std::string &text) {
  if (object_ != nullptr) cJSON_AddItemToObject(object_, key, cJSON_CreateString(text.c_str()));
  return *this;
}

JsonLine &JsonLine::add(const char *key, int number) {
  if (object_ != nullptr) cJSON_AddItemToObject(object_, key, cJSON_CreateNumber(number));
  return *this;
}

std::string JsonLine::str() const {
  char *printed = object_ != nullptr ? cJSON_PrintUnformatted(object_) : nullptr;
  if (printed == nullptr) throw std::bad_alloc();
  std::string out(printed);
  cJSON_free(printed);
  return out;
}

}  // namespace vemo_cli
