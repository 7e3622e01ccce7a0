// The commands of vemo-cli. Each runs after the output is set up and returns the exit status.
#ifndef VEMO_CLI_COMMANDS_H
#define VEMO_CLI_COMMANDS_H

#include "options.h"

namespace vemo_cli {

int run_request(const Options &options);
int run_reconnect(const Options &options);
int run_listen(const Options &options);

}  // namespace vemo_cli

#endif
