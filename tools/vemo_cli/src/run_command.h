// Runs a shell command with a text on its standard input and collects its standard output,
// bounded in time and in size. Used by `listen --exec` to produce answers.
#ifndef VEMO_CLI_RUN_COMMAND_H
#define VEMO_CLI_RUN_COMMAND_H

#include <stddef.h>

#include <string>

namespace vemo_cli {

// Larger answers are refused rather than cut: a truncated answer would look complete.
constexpr size_t kMaxCommandOutput = 64 * 1024;

struct CommandResult {
  enum class Status {
    kExited,       // ended by itself; exit_code holds its status
    kSignaled,     // killed by a signal it did not get from us; signal holds it
    kTimedOut,     // still running at the time limit: killed
    kTooLarge,     // wrote more than the limit: killed
    kStartFailed,  // no pipe, no process; error says why
  };
  Status status = Status::kStartFailed;
  int exit_code = -1;
  int signal = 0;
  std::string output;  // everything read from its standard output (up to the limit)
  std::string error;   // kStartFailed only

  bool succeeded() const { return status == Status::kExited && exit_code == 0; }
  // "exit status 3", "killed by signal 9", "timed out after 200 ms", ...
  std::string describe(int timeout_ms) const;
};

// Runs /bin/sh -c command in a process group of its own, writes input to its standard input and
// closes it, and reads its standard output; standard error is this process's. The command is
// done when it has exited and nothing of it holds its output open any longer; at timeout_ms, or
// once it has written more than max_output bytes, its whole process group is killed.
//
// Safe to call from any thread of a multi-threaded process, several at once: between fork and
// exec the child only makes async-signal-safe calls. Needs SIGPIPE ignored or blocked in the
// calling thread when the command may exit without reading all of its input.
CommandResult run_command(const std::string &command, const std::string &input, int timeout_ms,
                          size_t max_output = kMaxCommandOutput);

// The text of an answer: output without its trailing newlines (as a shell's $(...) gives it).
std::string strip_trailing_newlines(const std::string &output);

}  // namespace vemo_cli

#endif
