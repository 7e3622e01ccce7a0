// The command lines that drive a running daemon: typed on standard input or written to the
// control FIFO of the executable.
#ifndef VEMO_CLOUDD_CONSOLE_H
#define VEMO_CLOUDD_CONSOLE_H

#include <string>

#include "vemo_cloudd/cloud_daemon.h"

namespace vemo {
namespace cloudd {

struct ConsoleCommand {
  enum Kind {
    kNothing,  // an empty line
    kCloudRequest,
    kHelloRequest,
    kHelloResponse,
    kNotify,
    kRaw,
    kBytes,
    kClose,
    kHeld,
    kRespond,
    kFail,
    kSet,
    kShow,
    kStatus,
    kHelp,
    kQuit,
  };
  Kind kind = kNothing;
  int conn = kAllConnections;  // from an "@N " prefix
  std::string text;            // the rest of the line (TEXT), the decoded bytes, set's VALUE
  int number = 0;              // TYPE, or the ID of respond and fail
  int code = 0;                // fail's CODE
  std::string option;          // set's OPTION
};

// 0, or -1 with *error telling what is wrong with the line.
int parse_command(const std::string &line, ConsoleCommand *out, std::string *error);

// Carries out a command (not kQuit) and returns the line to show its outcome (empty for none).
std::string run_command(CloudDaemon &daemon, const ConsoleCommand &cmd);

std::string command_help();

}  // namespace cloudd
}  // namespace vemo

#endif
