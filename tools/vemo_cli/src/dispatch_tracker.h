// Knows when the library's dispatch threads that ran our handlers are done.
//
// The library sends a handler's answer after the handler returns, on the same dispatch thread,
// and at process exit it shuts the connection down before anything else: an answer still on its
// way then is lost. The API has no "answer sent" event, but it runs every handler on a dispatch
// thread of its own, one per received message, that ends once the message is dealt with. So each
// handler call marks its thread, a thread-specific destructor reports the thread's end, and
// `listen` waits for all marked threads to end before it unregisters and before it exits.
#ifndef VEMO_CLI_DISPATCH_TRACKER_H
#define VEMO_CLI_DISPATCH_TRACKER_H

namespace vemo_cli {

// Once, before any handler can run. False when no thread-specific key is left.
bool dispatch_tracker_init();

// At the start of every handler call, on the library's thread.
void dispatch_tracker_enter();

// Blocks until every thread that entered has ended, or timeout_ms pass: true when all ended.
// Should the library ever run several messages on one long-lived thread, this waits out the
// bound and the caller goes on.
bool dispatch_tracker_wait_idle(int timeout_ms);

}  // namespace vemo_cli

#endif
