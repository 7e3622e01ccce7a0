#include "stop_events.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "clock.h"

namespace vemo_cli {
namespace {

// Set once before any thread or handler exists; never closed, since a library thread may post
// while the process exits.
int g_read_fd = -1;
int g_write_fd = -1;

void post_byte(char byte) {
  // Non-blocking: a full pipe (64 KiB of unread events, which the main thread drains as they
  // come) already holds a stop.
  while (write(g_write_fd, &byte, 1) < 0 && errno == EINTR) {
  }
}

void on_stop_signal(int) {
  int saved = errno;
  // One-shot for both signals: the first asks for an orderly stop (unregistering takes a round
  // trip to the daemon); a second one, should that hang, ends the process the default way.
  struct sigaction dfl = {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGINT, &dfl, nullptr);
  sigaction(SIGTERM, &dfl, nullptr);
  post_byte(static_cast<char>(StopReason::kSignal));
  errno = saved;
}

}  // namespace

bool stop_events_init() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  g_read_fd = ends[0];
  g_write_fd = ends[1];
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_stop_signal;
  sigemptyset(&action.sa_mask);
  // Both blocked while the handler runs, so that the second cannot find the first half done.
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

void stop_events_post(StopReason reason) { post_byte(static_cast<char>(reason)); }

StopReason stop_events_wait(int timeout_ms) {
  const long deadline = timeout_ms >= 0 ? monotonic_ms() + timeout_ms : 0;
  for (;;) {
    int left = -1;
    if (timeout_ms >= 0) {
      long remaining = deadline - monotonic_ms();
      left = remaining > 0 ? static_cast<int>(remaining) : 0;
    }
    struct pollfd p = {g_read_fd, POLLIN, 0};
    int ready = poll(&p, 1, left);
    if (ready < 0) {
      if (errno == EINTR) continue;  // a signal: its byte is in the pipe by now
      return StopReason::kError;
    }
    if (ready == 0) return StopReason::kDeadline;
    char byte = 0;
    ssize_t got = read(g_read_fd, &byte, 1);
    if (got == 1 && byte != static_cast<char>(StopReason::kNone)) return static_cast<StopReason>(byte);
    if (got < 0 && errno != EAGAIN && errno != EINTR) return StopReason::kError;
  }
}

const char *stop_reason_name(StopReason reason) {
  switch (reason) {
    case StopReason::kNone: return "none";
    case StopReason::kSignal: return "signal";
    case StopReason::kCount: return "count reached";
    case StopReason::kDeadline: return "time up";
    case StopReason::kOutputClosed: return "output closed";
    case StopReason::kError: return "error";
    case StopReason::kLost: return "connection lost";
    case StopReason::kRestored: return "registration restored";
    case StopReason::kTornDown: return "torn down by the daemon";
  }
  return "unknown";
}

}  // namespace vemo_cli
