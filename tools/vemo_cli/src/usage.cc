// The help texts. Every --help ends with the exit-status table, since scripts need it most.
#include <string>

#include "format.h"
#include "options.h"

namespace vemo_cli {
namespace {

const char kProgramUsage[] =
    "usage: vemo-cli [--quiet | --verbose] [--json] [--socket PATH] COMMAND [OPTIONS] [ARGUMENTS]\n"
    "       vemo-cli COMMAND --help\n"
    "       vemo-cli --version\n";

const char kRequestUsage[] =
    "usage: vemo-cli request [--timeout MS] [--flag N] TEXT\n"
    "       vemo-cli request --async [--wait MS] [--timeout MS] [--flag N] TEXT\n";

const char kReconnectUsage[] = "usage: vemo-cli reconnect\n";

const char kListenUsage[] =
    "usage: vemo-cli listen [--hello TEXT] [--answer TEXT | --exec COMMAND [--exec-timeout MS]]\n"
    "                       [--count N] [--for SECONDS]\n";

const char kCommonOptions[] =
    "common options:\n"
    "  -q, --quiet     print only the tool's own output (the default); the library's log\n"
    "                  lines are discarded\n"
    "  -v, --verbose   let the library's log lines through on standard output, mixed with\n"
    "                  the tool's own output\n"
    "  --json          print every result and event as one JSON object per line, with its\n"
    "                  time (UTC) and the ids there are; failures also as \"error\" objects\n"
    "  --socket PATH   talk to the daemon on PATH instead of /tmp/cloud_svr\n"
    "  -h, --help      print this help\n"
    "  --version       print the version\n"
    "Errors go to standard error and name the library's result code and its meaning.\n";

const char kProgramBody[] =
    "\n"
    "Talks to the device's cloud-service daemon on /tmp/cloud_svr through the vemo client\n"
    "library.\n"
    "\n"
    "commands:\n"
    "  request     send a request to the cloud and print its response\n"
    "  reconnect   ask the daemon to reconnect to the cloud\n"
    "  listen      print and answer the requests that the cloud sends to this device\n"
    "\n";

const char kRequestBody[] =
    "\n"
    "Sends TEXT to the cloud and prints the response text on standard output.\n"
    "\n"
    "  --timeout MS  the request's timeout, passed to the daemon: it bounds the wait for the\n"
    "                daemon's acknowledgement and then the wait for the response (default 5000)\n"
    "  --flag N      a number passed to the daemon unchanged (default 0)\n"
    "  --async       send asynchronously: print the request id the daemon assigned on the\n"
    "                first line at once, then wait for the response and print it on the next\n"
    "  --wait MS     with --async: how long to wait for the response after the id\n"
    "                (default: the --timeout value)\n"
    "A TEXT that starts with '-' follows '--'.\n"
    "\n";

const char kReconnectBody[] =
    "\n"
    "Asks the daemon to reconnect to the cloud; prints nothing when the daemon accepts.\n"
    "\n";

const char kListenBody[] =
    "\n"
    "Registers this process for requests from the cloud and prints each one on standard\n"
    "output as a line \"request: TEXT\" (line breaks and control bytes escaped as \\n, \\xNN,\n"
    "a backslash as \\\\). Stops after N requests, after SECONDS, or on SIGINT or SIGTERM\n"
    "(a second one ends the process at once), then withdraws the registration.\n"
    "\n"
    "  --answer TEXT     answer every request with TEXT\n"
    "  --exec COMMAND    answer with the standard output of /bin/sh -c COMMAND, which gets\n"
    "                    the request text and a newline on its standard input; trailing\n"
    "                    newlines are removed. No answer is sent when COMMAND fails (non-zero\n"
    "                    status), runs longer than its time limit, or writes more than 64 KiB\n"
    "  --exec-timeout MS the time limit of COMMAND (default 5000); it is then killed\n"
    "  --hello TEXT      also take part in the hello: answer the daemon's hello request with\n"
    "                    TEXT and print the cloud's hello answer as \"hello response: TEXT\"\n"
    "                    (a hello request is printed as \"hello request\")\n"
    "  --count N         stop after N requests\n"
    "  --for SECONDS     stop after SECONDS\n"
    "Without --answer or --exec the requests are printed and not answered.\n"
    "\n";

std::string compose(const char *usage, const char *body) {
  return std::string(usage) + body + kCommonOptions + "\n" + kExitStatusHelp;
}

}  // namespace

const char *version_text() { return "vemo-cli " VEMO_VERSION "\n"; }

const char *usage_text(Command command) {
  switch (command) {
    case Command::kRequest: return kRequestUsage;
    case Command::kReconnect: return kReconnectUsage;
    case Command::kListen: return kListenUsage;
    case Command::kNone: break;
  }
  return kProgramUsage;
}

const char *help_text(Command command) {
  // Built once; the texts live until exit.
  static const std::string program = compose(kProgramUsage, kProgramBody);
  static const std::string request = compose(kRequestUsage, kRequestBody);
  static const std::string reconnect = compose(kReconnectUsage, kReconnectBody);
  static const std::string listen = compose(kListenUsage, kListenBody);
  switch (command) {
    case Command::kRequest: return request.c_str();
    case Command::kReconnect: return reconnect.c_str();
    case Command::kListen: return listen.c_str();
    case Command::kNone: break;
  }
  return program.c_str();
}

}  // namespace vemo_cli
