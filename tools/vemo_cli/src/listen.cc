// `vemo-cli listen`: registers for the requests that the cloud sends to the device, prints and
// answers them until told to stop, then withdraws the registration.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <string>

#include <vemo/vemo.h>
#include <vemo/vemo_ext.h>

#include "clock.h"
#include "commands.h"
#include "dispatch_tracker.h"
#include "format.h"
#include "output.h"
#include "run_command.h"
#include "stop_events.h"

namespace vemo_cli {
namespace {

// What the handlers need. Filled by the main thread before the registration (which starts the
// library's threads), only read afterwards, except for the counter. Never destroyed: a handler
// may still run while the process exits, until the library's exit-time teardown has drained its
// threads.
struct ListenState {
  AnswerMode mode = AnswerMode::kNone;
  std::string answer;  // the fixed text or the command
  int exec_timeout_ms = kDefaultExecTimeoutMs;
  std::string hello_text;
  int count = 0;
  std::atomic<int> handled{0};
  std::atomic<int> seq{0};  // numbers the requests for --json, which has no id of the cloud's
};

// How long the stop waits for the threads that deliver answers, beyond a command's time limit.
constexpr int kDrainMs = 5000;

// How long a lost registration may stay lost before listen gives up. The library reconnects in
// the background, pausing twice as long after each failed attempt up to 5 s, and an attempt
// waits up to 5 s for the daemon: a daemon back within 20 s is registered with again within
// 30 s, which covers a restart by the init system or by hand. Longer, and a script would go on
// believing that the device is answering the cloud while it is not.
constexpr int kRestoreMs = 30000;

// The code of the last loss, for the message; written by the event thread before it posts.
std::atomic<int> g_lost_code{0};

ListenState &state() {
  static ListenState *s = new ListenState;
  return *s;
}

// A malloc'd copy, as the library frees answers with free(); null when out of memory, which
// sends no answer.
char *heap_copy(const std::string &text) {
  char *copy = static_cast<char *>(malloc(text.size() + 1));
  if (copy != nullptr) memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

void print_event(const std::string &line) {
  if (!output_line(line)) stop_events_post(StopReason::kOutputClosed);
}

// The answer to one request, or false for none.
bool make_answer(const ListenState &s, const std::string &request, std::string *answer) {
  switch (s.mode) {
    case AnswerMode::kNone:
      return false;
    case AnswerMode::kFixed:
      *answer = s.answer;
      return true;
    case AnswerMode::kExec: {
      // A newline after the text lets line-reading commands (read, while read ...) see the line.
      CommandResult result = run_command(s.answer, request + "\n", s.exec_timeout_ms);
      if (!result.succeeded()) {
        report_failure("listen: command " + result.describe(s.exec_timeout_ms) + "; no answer sent");
        return false;
      }
      *answer = strip_trailing_newlines(result.output);
      return true;
    }
  }
  return false;
}

// Runs on a library dispatch thread, one per request from the cloud, possibly several at once;
// with --exec it blocks that thread for as long as the command runs (up to its time limit).
// Nothing may be thrown from here into the library.
void on_cloud_request(const char *request, char **response) {
  dispatch_tracker_enter();
  ListenState &s = state();
  try {
    const std::string text = request != nullptr ? request : "";
    const int seq = ++s.seq;
    print_event(output_json() ? JsonLine("request").add("seq", seq).add("request", text).str()
                              : "request: " + one_line(text));
    std::string answer;
    if (make_answer(s, text, &answer)) *response = heap_copy(answer);
  } catch (...) {
    report("listen: out of memory while answering a request; no answer sent");
  }
  // Counted once answered, so that --count 1 stops after the answer is on its way.
  if (s.count > 0 && ++s.handled == s.count) stop_events_post(StopReason::kCount);
}

// Hello handlers: also on library dispatch threads.
void on_hello_request(char **response) {
  dispatch_tracker_enter();
  try {
    print_event(output_json() ? JsonLine("hello_request").str() : "hello request");
    *response = heap_copy(state().hello_text);
  } catch (...) {
  }
}

void on_hello_response(const char *response) {
  dispatch_tracker_enter();
  try {
    const std::string text = response != nullptr ? response : "";
    print_event(output_json() ? JsonLine("hello_response").add("response", text).str()
                              : "hello response: " + one_line(text));
  } catch (...) {
  }
}

// Connection events: on a library thread, one at a time and in order.
void on_event(int event, int code, void *) {
  switch (event) {
    case VEMO_EVENT_LOST:
      g_lost_code.store(code);
      stop_events_post(StopReason::kLost);
      break;
    case VEMO_EVENT_REREGISTERED: stop_events_post(StopReason::kRestored); break;
    case VEMO_EVENT_TORN_DOWN: stop_events_post(StopReason::kTornDown); break;
    default: break;  // connected: a registration follows, or it does not and that is told
  }
}

// Waits for what ends the listen, for at most timeout_ms (< 0: no limit). A loss is waited out
// for kRestoreMs; one that the library recovers from in time is passed over.
StopReason wait_for_stop(int timeout_ms) {
  const long end = timeout_ms >= 0 ? monotonic_ms() + timeout_ms : -1;
  long give_up = -1;  // while the registration is lost: when to stop waiting for it
  for (;;) {
    long until = end;
    if (give_up >= 0 && (until < 0 || give_up < until)) until = give_up;
    const long left = until < 0 ? -1 : std::max(0L, until - monotonic_ms());
    const StopReason why = stop_events_wait(static_cast<int>(left));
    if (why == StopReason::kLost) {
      if (give_up < 0) give_up = monotonic_ms() + kRestoreMs;
    } else if (why == StopReason::kRestored) {
      give_up = -1;
    } else if (why == StopReason::kDeadline && until != end) {
      return StopReason::kLost;
    } else {
      return why;
    }
  }
}

}  // namespace

int run_listen(const Options &o) {
  ListenState &s = state();
  s.mode = o.answer_mode;
  s.answer = o.answer;
  s.exec_timeout_ms = o.exec_timeout_ms;
  s.hello_text = o.hello_text;
  s.count = o.count;
  if (!stop_events_init()) {
    report("listen: cannot set up the signal handling");
    return kExitToolFailure;
  }
  if (!dispatch_tracker_init()) {
    report("listen: cannot set up the tracking of the library's threads");
    return kExitToolFailure;
  }

  // Before the registration, so that no event of its connection is missed.
  vemo_set_event_callback(on_event, nullptr);
  // The library keeps its own copy of the pair.
  const vemo_hello_cloud_cb_t hello = {on_hello_request, on_hello_response};
  int rc = vemo_register_callback(on_cloud_request, o.hello ? &hello : nullptr);
  if (rc != 0) return report_code("listen: registering", rc);

  // A signal that came during the registration is already in the pipe: it ends the wait at once.
  const StopReason why = wait_for_stop(o.for_seconds > 0 ? o.for_seconds * 1000 : -1);
  int status = kExitOk;
  if (why == StopReason::kOutputClosed) {
    report("listen: standard output cannot be written any more; stopping");
    status = kExitToolFailure;
  } else if (why == StopReason::kError) {
    report("listen: waiting for the end failed; stopping");
    status = kExitToolFailure;
  } else if (why == StopReason::kTornDown || why == StopReason::kLost) {
    // The registration is gone: nothing to withdraw, and the daemon may not be there to ask.
    const int code = g_lost_code.load();
    report_failure(why == StopReason::kTornDown
                       ? "listen: the daemon tore the client down; the registration is gone"
                       : "listen: the connection was lost (" + describe_code(code, vemo_strerror(code)) +
                             ") and the registration was not restored within " +
                             std::to_string(kRestoreMs / 1000) + " s");
    dispatch_tracker_wait_idle(kDrainMs + (s.mode == AnswerMode::kExec ? s.exec_timeout_ms : 0));
    return kExitDisconnected;
  }

  // Answers still on their way go out before the daemon hears that we leave, and a request
  // dispatched while we unregistered is answered before the exit shuts the connection down. A
  // handler may be running its command: give it its time limit.
  const int drain_ms = kDrainMs + (s.mode == AnswerMode::kExec ? s.exec_timeout_ms : 0);
  dispatch_tracker_wait_idle(drain_ms);
  rc = vemo_unregister_callback();
  if (rc != 0) {
    int unregister_status = report_code("listen: unregistering", rc);
    if (status == kExitOk) status = unregister_status;
  }
  dispatch_tracker_wait_idle(drain_ms);
  return status;
}

}  // namespace vemo_cli
