// The command line of vemo-cli: what the user asked for, parsed without side effects so that the
// tests can check every rule without a daemon.
#ifndef VEMO_CLI_OPTIONS_H
#define VEMO_CLI_OPTIONS_H

#include <string>

namespace vemo_cli {

enum class Command { kNone, kRequest, kReconnect, kListen };

// What a listen answers with.
enum class AnswerMode { kNone, kFixed, kExec };

// Every timeout of the library is 5000 ms; a request defaults to the same.
constexpr int kDefaultTimeoutMs = 5000;
constexpr int kDefaultExecTimeoutMs = 5000;

struct Options {
  Command command = Command::kNone;
  bool help = false;
  bool version = false;
  // The library's log is discarded unless --verbose: the tool's output is meant for scripts.
  bool verbose = false;
  bool json = false;   // results and events as JSON lines
  std::string socket;  // the daemon's socket path; empty: the library's default

  // request
  std::string text;
  int timeout_ms = kDefaultTimeoutMs;
  int flag = 0;
  bool async = false;
  int wait_ms = -1;  // --wait; -1: as long as timeout_ms

  // listen
  bool hello = false;
  std::string hello_text;
  AnswerMode answer_mode = AnswerMode::kNone;
  std::string answer;  // the fixed text, or the shell command for kExec
  int exec_timeout_ms = kDefaultExecTimeoutMs;
  int count = 0;        // 0: no limit
  int for_seconds = 0;  // 0: no limit

  // The wait of an asynchronous request for its response.
  int effective_wait_ms() const { return wait_ms >= 0 ? wait_ms : timeout_ms; }
};

struct ParseResult {
  bool ok = false;
  Options options;
  std::string error;  // when !ok: one line, without the program name
};

// argv[0] is the program name. --help (or --version) anywhere makes the result ok with
// options.help (options.version) set (the command's own requirements, such as the request text,
// are then not checked); an unknown option is an error even then.
ParseResult parse_arguments(int argc, const char *const *argv);

// The name of a command as typed ("request"); "" for kNone.
const char *command_name(Command command);

// Strict decimal integer in [min, max]: no sign-only, no junk, no overflow.
bool parse_int(const std::string &text, long min, long max, int *out);

// The longest socket path that fits a Unix socket address.
constexpr size_t kMaxSocketPath = 107;

// "vemo-cli VERSION", ending with a newline.
const char *version_text();

// The full help of a command (kNone: the program's help), ending with a newline.
const char *help_text(Command command);
// The short synopsis printed after a usage error, ending with a newline.
const char *usage_text(Command command);

}  // namespace vemo_cli

#endif
