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
         "  --hold                     hold every response until it is answered by hand\n"
         "                             (commands held, respond, fail)\n"
         "  --greeting-type N          type of the server_notify greeting (default 0)\n"
         "  --greeting-delay MS        send the greeting MS after the connection (default 0)\n"
         "  --no-greeting              send no greeting\n"
         "  --first-request-id N       request id of the first device_request (default 1000)\n"
         "  --first-cloud-id N         inner_id of the first cloud_request (default 1)\n"
         "  --control FIFO             also read command lines from FIFO (made if missing)\n"
         "  --quiet                    print no message lines, only errors\n"
         "  -h, --help                 print this help and exit\n"
         "  --version                  print the version and exit\n"
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
         "  held                       list the requests whose response is held\n"
         "  respond ID TEXT            send the held request ID its response TEXT\n"
         "  fail ID CODE               send the held request ID a failed response of CODE\n"
         "  set OPTION [on|off|VALUE]  change a behaviour option above while running\n"
         "                             (set delay 500, set drop-ack on, set hold off)\n"
         "  show                       print the behaviour as options\n"
         "  status                     print the connections\n"
         "  help                       list the commands\n"
         "  quit                       stop\n"
         "\n"
         "Every message received and sent is printed on standard output, one line each,\n"
         "after the local time it happened.\n"
         "Exit status: 0 after quit, SIGINT or SIGTERM; 1 when the socket cannot be served;\n"
         "2 for a bad command line.\n";
}

std::string version_text() { return "vemo_cloudd " VEMO_VERSION; }

namespace {

enum class Kind { kMs, kInt, kCount, kSwitch, kResponseMode, kAckCode };

// The options that shape the answers: one row each, for the command line, the console's `set`
// and `show` alike. get/set carry the number (or the switch as 0/1) of the plain kinds.
struct BehaviourOption {
  const char *name;
  Kind kind;
  int (*get)(const Behaviour &);
  void (*set)(Behaviour &, int);
};

const BehaviourOption kBehaviourOptions[] = {
    {"delay", Kind::kMs, [](const Behaviour &b) { return b.response_delay_ms; },
     [](Behaviour &b, int v) { b.response_delay_ms = v; }},
    {"ack-delay", Kind::kMs, [](const Behaviour &b) { return b.ack_delay_ms; },
     [](Behaviour &b, int v) { b.ack_delay_ms = v; }},
    {"response-mode", Kind::kResponseMode, nullptr, nullptr},
    {"response-code", Kind::kInt, [](const Behaviour &b) { return b.response_code; },
     [](Behaviour &b, int v) { b.response_code = v; }},
    {"ack-code", Kind::kAckCode, nullptr, nullptr},
    {"drop-ack", Kind::kSwitch, [](const Behaviour &b) { return b.drop_ack ? 1 : 0; },
     [](Behaviour &b, int v) { b.drop_ack = v != 0; }},
    {"drop-response", Kind::kSwitch, [](const Behaviour &b) { return b.drop_response ? 1 : 0; },
     [](Behaviour &b, int v) { b.drop_response = v != 0; }},
    {"duplicates", Kind::kCount, [](const Behaviour &b) { return b.duplicate_responses; },
     [](Behaviour &b, int v) { b.duplicate_responses = v; }},
    {"hold", Kind::kSwitch, [](const Behaviour &b) { return b.hold_responses ? 1 : 0; },
     [](Behaviour &b, int v) { b.hold_responses = v != 0; }},
    {"greeting-type", Kind::kInt, [](const Behaviour &b) { return b.greeting_type; },
     [](Behaviour &b, int v) {
       b.greeting_type = v;
       b.greeting = true;
     }},
    {"greeting-delay", Kind::kMs, [](const Behaviour &b) { return b.greeting_delay_ms; },
     [](Behaviour &b, int v) { b.greeting_delay_ms = v; }},
    {"no-greeting", Kind::kSwitch, [](const Behaviour &b) { return b.greeting ? 0 : 1; },
     [](Behaviour &b, int v) { b.greeting = v == 0; }},
};

const BehaviourOption *find_behaviour_option(const std::string &name) {
  for (const BehaviourOption &o : kBehaviourOptions) {
    if (name == o.name) return &o;
  }
  return nullptr;
}

int set_ack_code(const std::string &value, const std::string &what, Behaviour *b,
                 std::string *error) {
  std::size_t eq = value.find('=');
  int code;
  if (eq == std::string::npos || !parse_int(value.substr(eq + 1), &code)) {
    *error = what + " expects METHOD=CODE, got '" + value + "'";
    return -1;
  }
  std::string method = value.substr(0, eq);
  if (!is_client_method(method)) {
    *error = what + ": unknown method '" + method +
             "' (device_request, register_callback, unregister_callback, reconnect_cloud)";
    return -1;
  }
  b->ack_codes[method] = code;
  return 0;
}

}  // namespace

bool is_behaviour_switch(const std::string &name) {
  const BehaviourOption *o = find_behaviour_option(name);
  return o != nullptr && o->kind == Kind::kSwitch;
}

int set_behaviour_option(const std::string &name, const std::string &value, const std::string &what,
                         Behaviour *b, std::string *error) {
  const BehaviourOption *o = find_behaviour_option(name);
  if (o == nullptr) {
    *error = what + ": no such behaviour option";
    return -1;
  }
  auto bad = [&](const char *expected) {
    *error = what + " expects " + expected + ", got '" + value + "'";
    return -1;
  };
  int number = 0;
  switch (o->kind) {
    case Kind::kMs:
      if (!parse_int(value, &number) || number < 0) return bad("milliseconds (0 or more)");
      break;
    case Kind::kCount:
      if (!parse_int(value, &number) || number < 0) return bad("a count (0 or more)");
      break;
    case Kind::kInt:
      if (!parse_int(value, &number)) return bad("an integer");
      break;
    case Kind::kSwitch:
      if (value != "on" && value != "off") return bad("on or off");
      number = value == "on" ? 1 : 0;
      break;
    case Kind::kResponseMode:
      if (value == "echo") {
        b->echo_request = true;
      } else if (value.compare(0, 6, "fixed:") == 0) {
        b->echo_request = false;
        b->fixed_response = value.substr(6);
      } else {
        return bad("echo or fixed:TEXT");
      }
      return 0;
    case Kind::kAckCode:
      return set_ack_code(value, what, b, error);
  }
  o->set(*b, number);
  return 0;
}

std::string describe_behaviour(const Behaviour &b) {
  std::string out;
  for (const BehaviourOption &o : kBehaviourOptions) {
    const std::string flag = std::string(" --") + o.name;
    switch (o.kind) {
      case Kind::kResponseMode:
        out += flag + (b.echo_request ? " echo" : " fixed:" + b.fixed_response);
        break;
      case Kind::kAckCode:
        for (const auto &entry : b.ack_codes) {
          out += flag + " " + entry.first + "=" + std::to_string(entry.second);
        }
        break;
      case Kind::kSwitch:
        if (o.get(b) != 0) out += flag;
        break;
      default:
        out += flag + " " + std::to_string(o.get(b));
    }
  }
  return out.substr(1);
}

int parse_options(int argc, const char *const *argv, CliOptions *out, std::string *error) {
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
    const std::string name = arg.compare(0, 2, "--") == 0 ? arg.substr(2) : std::string();
    const bool behaviour = find_behaviour_option(name) != nullptr;
    const bool switch_option = arg == "-h" || arg == "--help" || arg == "--version" ||
                               arg == "--quiet" || is_behaviour_switch(name);
    const bool takes_value = (behaviour && !switch_option) || arg == "--socket" ||
                             arg == "--first-request-id" || arg == "--first-cloud-id" ||
                             arg == "--control";
    if (!takes_value && !switch_option) {
      *error = "unknown option '" + std::string(argv[i]) + "'";
      return -1;
    }
    if (switch_option && has_inline) {
      *error = "option " + arg + " takes no value";
      return -1;
    }
    if (takes_value && !has_inline) {
      if (i + 1 >= argc) {
        *error = "option " + arg + " needs a value";
        return -1;
      }
      value = argv[++i];
    }
    auto bad = [&](const char *what) {
      *error = "option " + arg + " expects " + what + ", got '" + value + "'";
      return -1;
    };
    if (behaviour) {
      if (set_behaviour_option(name, switch_option ? "on" : value, "option " + arg,
                               &out->behaviour, error) != 0) {
        return -1;
      }
    } else if (arg == "-h" || arg == "--help") {
      out->help = true;
    } else if (arg == "--version") {
      out->version = true;
    } else if (arg == "--quiet") {
      out->quiet = true;
    } else if (arg == "--socket" || arg == "--control") {
      if (value.empty()) return bad("a path");
      (arg == "--socket" ? out->socket : out->control) = value;
    } else if (!parse_int(value, arg == "--first-request-id" ? &out->first_request_id
                                                             : &out->first_cloud_id)) {
      return bad("an integer");
    }
  }
  return 0;
}

}  // namespace cloudd
}  // namespace vemo
