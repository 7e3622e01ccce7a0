// The command line of the vemo_cloudd executable, and the behaviour options that the console's
// `set` command changes by the same names while the daemon runs.
#ifndef VEMO_CLOUDD_OPTIONS_H
#define VEMO_CLOUDD_OPTIONS_H

#include <string>

#include "vemo_cloudd/cloud_daemon.h"

namespace vemo {
namespace cloudd {

struct CliOptions {
  std::string socket = kDefaultSocketPath;
  Behaviour behaviour;
  int first_request_id = 1000;
  int first_cloud_id = 1;
  std::string control;  // a FIFO read for command lines besides standard input
  bool quiet = false;
  bool help = false;
  bool version = false;
};

// Parses argv[1..argc-1]. 0, or -1 with *error naming the offending argument.
int parse_options(int argc, const char *const *argv, CliOptions *out, std::string *error);

std::string usage_text();
// "vemo_cloudd VERSION".
std::string version_text();

// Sets the behaviour option `name` (a command-line option without its dashes: "delay",
// "drop-ack", ...) to value; a switch takes "on" or "off". 0, or -1 with *error saying why, its
// message starting with `what` ("option --delay", "set delay"). Unknown names are refused too.
int set_behaviour_option(const std::string &name, const std::string &value, const std::string &what,
                         Behaviour *b, std::string *error);
// True for the behaviour options that take no value on the command line.
bool is_behaviour_switch(const std::string &name);
// The behaviour as the command-line options that would set it up ("--delay 10 --ack-delay 0 ...").
std::string describe_behaviour(const Behaviour &b);

// A decimal int that fills the whole text; false for anything else, out of range included.
bool parse_int(const std::string &text, int *out);

}  // namespace cloudd
}  // namespace vemo

#endif
