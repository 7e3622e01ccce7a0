// Where vemo-cli's own output goes. The library prints a log line for every step on standard
// output and offers no way to turn that off; the only way to keep the tool's output clean is to
// point the process's descriptor 1 at /dev/null and write the tool's lines to a duplicate of the
// original standard output made before.
#ifndef VEMO_CLI_OUTPUT_H
#define VEMO_CLI_OUTPUT_H

#include <stddef.h>
#include <stdio.h>

#include <string>

namespace vemo_cli {

// Makes sure descriptors 0, 1 and 2 are open (on /dev/null when the caller closed them): the
// library's socket must never become descriptor 1, where its log lines would go. Also restores
// the default SIGCHLD, which an ignoring parent would hand down and which would reap the
// commands of `listen --exec` behind our back, and ignores SIGPIPE: a reader that goes away
// (of our output, of a command's input, of the daemon's socket) is an error to report, not a
// reason to die. Call first, before any thread exists. False when it cannot.
bool prepare_process();

// Sets up the output once, before the first library call. quiet: the library's log goes to
// /dev/null. verbose: it stays on standard output, line-buffered so that its lines and the
// tool's appear in the order they happened. json: results go out as JSON lines (output_json).
// False when the descriptors cannot be set up.
bool output_init(bool quiet, bool json);
bool output_json();

// Writes text and a newline to the tool's output and flushes, as one unit among threads.
// False when the output cannot be written (the reader went away).
bool output_line(const std::string &text);

// Flushes the tool's output; false when something could not be written.
bool output_flush();

// One line on standard error, prefixed with "vemo-cli: ". Never throws, never allocates.
void report(const char *text, size_t length) noexcept;
void report(const char *text) noexcept;
void report(const std::string &text) noexcept;

// Reports a failed library call ("vemo-cli: request: error -1100: ...") and returns the exit
// status for its code. With --json also as {"event":"error","step":..,"code":..,"message":..}
// on the output, since a failure is a result too.
int report_code(const char *step, int code);
// Reports a failure that has no library code, the same two ways ({"event":"error","message":..}).
void report_failure(const std::string &text);

}  // namespace vemo_cli

#endif
