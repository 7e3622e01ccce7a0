#include "options.h"

#include <errno.h>
#include <stdlib.h>

#include <climits>

#include "protocol.h"

namespace vemo {
namespace cloudd {

bool parse_int(const std::string &text, int *out) {
  if (text.empty()) return false;
  errno = 0;
  char *end = nullptr;
  long value = strtol(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0' || value < INT_MIN || value > INT_MAX) {
    return false;
  }
  *out = static_cast<int>(value);
  return true;
}

std::string usage_text() {
  return "Usage: vemo_cloudd [OPTION]...\n"
         "Reference cloud-service daemon: serves the vemo client protocol on a Unix socket and\n"
         "plays the cloud, so that applications can be run and tested without a device.\n"
         "\n"
         "Options:\n"
         "  --socket PATH              socket to serve (default /tmp/cloud_svr)\n"
         "  --delay MS                 delay of a response after its acknowledgement (default 10)\n"
         "  --ack-delay MS             delay of every acknowledgement (default 0)\n"
         "  --response-mode MODE       echo (the request text, default) or fixed:TEXT\n"
         "  --response-code CODE       answer every request with a failed response of CODE\n"
         "  --ack-code METHOD=CODE     inner_error_code of the acknowledgements of METHOD:\n"
         "                             device_request, register_callback, unregister_callback,\n"
         "                             reconnect_cloud (repeatable; default 0)\n"
         "  --drop-ack                 send no acknowledgements\n"
         "  --drop-response            send no responses\n"
         "  --duplicates N             send every response N more times\n"
         "  --greeting-type N          type of the server_notify greeting (default 0)\n"
         "  --greeting-delay MS        send the greeting MS after the connection (default 0)\n"
         "  --no-greeting              send no greeting\n"
         "  --first-request-id N       request id of the first device_request (default 1000)\n"
         "  --first-cloud-id N         inner_id of the first cloud_request (default 1)\n"
         "  --control FIFO             also read command lines from FIFO (made if missing)\n"
         "  --quiet                    print no message lines, only errors\n"
         "  -h, --help                 print this help and exit\n"
         "\n"
         "Commands, one per line on standard input (or the control FIFO); prefix one with @N to\n"
         "address connection N only:\n"
         "  cloud_request TEXT         send a cloud_request with TEXT\n"
         "  hello_request              send a request_of_hello_cloud\n"
         "  hello_response TEXT        send a response_of_hello_cloud with TEXT\n"
         "  notify TYPE                send a server_notify of TYPE (1 tears the client down)\n"
         "  raw TEXT                   send TEXT as one frame, JSON or not\n"
         "  bytes HEX                  write the bytes HEX with no frame around them\n"
         "  close                      close the connections\n"
         "  status                     print the connections\n"
         "  help                       list the commands\n"
         "  quit                       stop\n"
         "\n"
         "Every message received and sent is printed on standard output, one line each.\n"
         "Exit status: 0 after quit, SIGINT or SIGTERM; 1 when the socket cannot be served;\n"
         "2 for a bad command line.\n";
}

namespace {

bool parse_non_negative(const std::string &text, int *out) {
  return parse_int(text, out) && *out >= 0;
}

int set_ack_code(const std::string &value, Behaviour *b, std::string *error) {
  std::size_t eq = value.find('=');
  int code;
  if (eq == std::string::npos || !parse_int(value.substr(eq + 1), &code)) {
    *error = "--ack-code expects METHOD=CODE, got '" + value + "'";
    return -1;
  }
  std::string method = value.substr(0, eq);
  if (!is_client_method(method)) {
    *error = "--ack-code: unknown method '" + method +
             "' (device_request, register_callback, unregister_callback, reconnect_cloud)";
    return -1;
  }
  b->ack_codes[method] = code;
  return 0;
}

}  // namespace

int parse_options(int argc, const char *const *argv, CliOptions *out, std::string *error) {
  Behaviour &b = out->behaviour;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    bool has_inline = false;
    if (arg.compare(0, 2, "--") == 0) {
      std::size_t eq = arg.find('=');
      if (eq != std::string::npos) {
        value = arg.substr(eq + 1);
        arg = arg.substr(0, eq);
        has_inline = true;
      }
    }
    auto flag = [&](const char *name) { return arg == name; };
    // Fetches the option's value (inline or the next argument); false when it is missing.
    auto take = [&]() {
      if (has_inline) return true;
      if (i + 1 >= argc) {
        *error = "option " + arg + " needs a value";
        return false;
      }
      value = argv[++i];
      return true;
    };
    auto bad = [&](const char *what) {
      *error = "option " + arg + " expects " + what + ", got '" + value + "'";
      return -1;
    };
    const bool takes_value =
        arg == "--socket" || arg == "--delay" || arg == "--ack-delay" || arg == "--response-mode" ||
        arg == "--response-code" || arg == "--ack-code" || arg == "--duplicates" ||
        arg == "--greeting-type" || arg == "--greeting-delay" || arg == "--first-request-id" ||
        arg == "--first-cloud-id" || arg == "--control";
    const bool switch_option = arg == "-h" || arg == "--help" || arg == "--drop-ack" ||
                               arg == "--drop-response" || arg == "--no-greeting" ||
                               arg == "--quiet";
    if (!takes_value && !switch_option) {
      *error = "unknown option '" + std::string(argv[i]) + "'";
      return -1;
    }
    if (switch_option && has_inline) {
      *error = "option " + arg + " takes no value";
      return -1;
    }
    if (takes_value && !take()) return -1;

    if (flag("-h") || flag("--help")) {
      out->help = true;
    } else if (flag("--socket")) {
      if (value.empty()) return bad("a path");
      out->socket = value;
    } else if (flag("--delay")) {
      if (!parse_non_negative(value, &b.response_delay_ms)) return bad("milliseconds (0 or more)");
    } else if (flag("--ack-delay")) {
      if (!parse_non_negative(value, &b.ack_delay_ms)) return bad("milliseconds (0 or more)");
    } else if (flag("--response-mode")) {
      if (value == "echo") {
        b.echo_request = true;
      } else if (value.compare(0, 6, "fixed:") == 0) {
        b.echo_request = false;
        b.fixed_response = value.substr(6);
      } else {
        return bad("echo or fixed:TEXT");
      }
    } else if (flag("--response-code")) {
      if (!parse_int(value, &b.response_code)) return bad("an integer");
    } else if (flag("--ack-code")) {
      if (set_ack_code(value, &b, error) != 0) return -1;
    } else if (flag("--drop-ack")) {
      b.drop_ack = true;
    } else if (flag("--drop-response")) {
      b.drop_response = true;
    } else if (flag("--duplicates")) {
      if (!parse_non_negative(value, &b.duplicate_responses)) return bad("a count (0 or more)");
    } else if (flag("--greeting-type")) {
      if (!parse_int(value, &b.greeting_type)) return bad("an integer");
      b.greeting = true;
    } else if (flag("--greeting-delay")) {
      if (!parse_non_negative(value, &b.greeting_delay_ms)) return bad("milliseconds (0 or more)");
    } else if (flag("--no-greeting")) {
      b.greeting = false;
    } else if (flag("--first-request-id")) {
      if (!parse_int(value, &out->first_request_id)) return bad("an integer");
    } else if (flag("--first-cloud-id")) {
      if (!parse_int(value, &out->first_cloud_id)) return bad("an integer");
    } else if (flag("--control")) {
      if (value.empty()) return bad("a path");
      out->control = value;
    } else if (flag("--quiet")) {
      out->quiet = true;
    }
  }
  return 0;
}

}  // namespace cloudd
}  // namespace vemo
