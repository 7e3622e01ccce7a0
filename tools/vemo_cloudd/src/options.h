// The command line of the vemo_cloudd executable.
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
};

// Parses argv[1..argc-1]. 0, or -1 with *error naming the offending argument.
int parse_options(int argc, const char *const *argv, CliOptions *out, std::string *error);

std::string usage_text();

// A decimal int that fills the whole text; false for anything else, out of range included.
bool parse_int(const std::string &text, int *out);

}  // namespace cloudd
}  // namespace vemo

#endif
