// vemo-cli: the vemo client API from the command line, for checking a device in the field.
#include <stdio.h>

#include <exception>
#include <string>

#include <vemo/vemo_ext.h>

#include "commands.h"
#include "format.h"
#include "options.h"
#include "output.h"

using namespace vemo_cli;

int main(int argc, char **argv) {
  if (!prepare_process()) {
    report("cannot set up the standard descriptors and signals");
    return kExitToolFailure;
  }
  const ParseResult parsed = parse_arguments(argc, argv);
  const Options &o = parsed.options;
  if (!parsed.ok) {
    std::string where = o.command == Command::kNone ? "" : std::string(command_name(o.command)) + ": ";
    report(where + parsed.error);
    fputs(usage_text(o.command), stderr);
    fprintf(stderr, "Try 'vemo-cli %s%s--help' for more.\n", command_name(o.command),
            o.command == Command::kNone ? "" : " ");
    return kExitUsage;
  }
  if (o.help || o.version) {
    fputs(o.help ? help_text(o.command) : version_text(), stdout);
    return fflush(stdout) == 0 ? kExitOk : kExitToolFailure;
  }
  // Before any other library call: the path counts from the first connection on.
  if (!o.socket.empty() && vemo_set_socket_path(o.socket.c_str()) != 0) {
    report("cannot use the socket path " + o.socket);
    return kExitUsage;
  }

  // Before the first library call: its first log line comes with the connection.
  if (!output_init(!o.verbose, o.json)) {
    report("cannot set up the output");
    return kExitToolFailure;
  }
  int status = kExitUsage;
  try {
    switch (o.command) {
      case Command::kRequest: status = run_request(o); break;
      case Command::kReconnect: status = run_reconnect(o); break;
      case Command::kListen: status = run_listen(o); break;
      case Command::kNone: break;
    }
  } catch (const std::exception &e) {  // out of memory, in practice
    report(std::string("failed: ") + e.what());
    status = kExitToolFailure;
  }
  if (!output_flush() && status == kExitOk) {
    report("cannot write to standard output");
    status = kExitToolFailure;
  }
  // The library tears itself down at exit (draining its threads), after this returns.
  return status;
}
