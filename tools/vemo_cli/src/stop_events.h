// What ends a `listen`: SIGINT or SIGTERM, the last of --count requests, the --for deadline, an
// output nobody reads any more, or a registration that is gone. Signal handlers and library
// threads report through a self-pipe, on which the main thread blocks in poll() with the deadline
// as its timeout. The connection events (lost, restored) come the same way and in order; the
// main thread decides whether a loss ends the listen.
#ifndef VEMO_CLI_STOP_EVENTS_H
#define VEMO_CLI_STOP_EVENTS_H

namespace vemo_cli {

enum class StopReason {
  kNone, kSignal, kCount, kDeadline, kOutputClosed, kError,
  kLost,      // the connection failed; the library reconnects in the background
  kRestored,  // ... and has registered the handlers again
  kTornDown   // the daemon ordered a teardown: the registration is gone for good
};

// Makes the pipe and installs the handlers of SIGINT and SIGTERM (one-shot: a second signal
// ends the process the default way). False when the pipe or a handler cannot be set up.
bool stop_events_init();

// From any thread (not from a signal handler: that path is internal).
void stop_events_post(StopReason reason);

// Blocks until an event is posted or timeout_ms pass (timeout_ms < 0: no limit); returns the
// first event posted, kDeadline on the timeout, kError when poll() fails for good.
StopReason stop_events_wait(int timeout_ms);

const char *stop_reason_name(StopReason reason);

}  // namespace vemo_cli

#endif
