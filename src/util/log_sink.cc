// The application's log sink: where the lines go instead of standard output, from which level
// on, and the two ready-made sinks.
//
// Swapping the sink while other threads log, without a lock around the sink call. The sink,
// its user pointer and its level live in one of two slots; g_current names the slot in force
// (-1: none, the standard line). A logging thread pins a slot by counting itself among the
// slot's users and then reading g_current again: only if the slot is still in force does it
// read the slot and call the sink, so every line goes whole to one sink. An install fills the
// slot that is not in force, switches g_current to it and waits until the previous slot has no
// users. A thread that counted itself in the previous slot too late sees the switch (the count
// and the switch are sequentially consistent: either the install sees the count or the thread
// sees the switch) and moves on to the new slot. So once the install returns, nobody calls the
// previous sink or reads its user pointer any more. The waiting install sleeps on a condition
// that the last caller leaving the slot signals.
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <atomic>

#include "util/log_internal.h"
#include "vemo/vemo_ext.h"

namespace vemo {
namespace {

struct SinkSlot {
  // Written only by an install (under g_install) while the slot is out of force and has no
  // users; read by a caller only after it pinned the slot (the switch to the slot publishes
  // them).
  std::atomic<vemo_log_sink_cb> sink{nullptr};
  std::atomic<void *> user{nullptr};
  std::atomic<int> min_level{VEMO_LOG_DEBUG};
  // Threads that counted themselves in: callers of the sink, and threads about to find out
  // whether the slot is still in force.
  std::atomic<int> users{0};
};

SinkSlot g_slots[2];
std::atomic<int> g_current{-1};

// POSIX objects with static initialisers and no destructors: lines are logged from static
// constructors and exit handlers of other files, before and after this file's C++ objects live.
// g_install serialises installs and is held for a whole install; no logging thread takes it.
pthread_mutex_t g_install = PTHREAD_MUTEX_INITIALIZER;
// g_drain_mu pairs with g_drained, where an install sleeps until a slot has no users.
pthread_mutex_t g_drain_mu = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_drained = PTHREAD_COND_INITIALIZER;
std::atomic<bool> g_waiting{false};  // an install sleeps on g_drained

// Set while this thread runs a sink: its own lines go to standard output, and an install from
// there would wait for itself.
thread_local bool t_in_sink = false;

std::atomic<SyslogFn> g_syslog{::syslog};

// Indexed by vemo_log_level_t.
const char *const kLevelNames[] = {"DEBUG", "INFO", "WARN", "ERROR"};
const int kSyslogPriorities[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR};

// A name the library does not know counts as an error, so that no minimum level hides it.
int level_of(const char *name) {
  for (int level = VEMO_LOG_DEBUG; level <= VEMO_LOG_ERROR; ++level) {
    if (strcmp(name, kLevelNames[level]) == 0) return level;
  }
  return VEMO_LOG_ERROR;
}

int clamp_level(int level) {
  return level < VEMO_LOG_DEBUG ? VEMO_LOG_DEBUG : level > VEMO_LOG_ERROR ? VEMO_LOG_ERROR : level;
}

void leave(SinkSlot &slot) {
  if (slot.users.fetch_sub(1) == 1 && g_waiting.load()) {
    pthread_mutex_lock(&g_drain_mu);
    pthread_cond_broadcast(&g_drained);
    pthread_mutex_unlock(&g_drain_mu);
  }
}

// The slot in force with this thread counted in, or null when no sink is installed.
SinkSlot *pin() {
  int index = g_current.load();
  while (index >= 0) {
    SinkSlot &slot = g_slots[index];
    slot.users.fetch_add(1);
    int now = g_current.load();
    if (now == index) return &slot;
    leave(slot);
    index = now;
  }
  return nullptr;
}

void wait_drained(SinkSlot &slot) {
  if (slot.users.load() == 0) return;
  pthread_mutex_lock(&g_drain_mu);
  g_waiting.store(true);
  while (slot.users.load() != 0) pthread_cond_wait(&g_drained, &g_drain_mu);
  g_waiting.store(false);
  pthread_mutex_unlock(&g_drain_mu);
}

void format_message(char (&out)[VEMO_LOG_MESSAGE_MAX], const char *format, va_list args)
    VEMO_PRINTF(2, 0);
void format_message(char (&out)[VEMO_LOG_MESSAGE_MAX], const char *format, va_list args) {
  int length = vsnprintf(out, sizeof out, format, args);
  if (length < 0) {
    out[0] = '\0';
  } else if (static_cast<size_t>(length) >= sizeof out) {
    memcpy(out + sizeof out - 4, "...", 4);
  }
}

const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }

}  // namespace

bool log_sink_deliver(const char *level, const char *file, int line, const char *function,
                      const char *format, va_list args) {
  // The atomic first: with no sink installed, a line costs no lookup of thread-local storage.
  if (g_current.load(std::memory_order_relaxed) < 0 || t_in_sink) return false;
  SinkSlot *slot = pin();
  if (slot == nullptr) return false;
  int severity = level_of(level);
  if (severity >= slot->min_level.load(std::memory_order_relaxed)) {
    char message[VEMO_LOG_MESSAGE_MAX];
    format_message(message, format, args);
    t_in_sink = true;
    slot->sink.load(std::memory_order_relaxed)(slot->user.load(std::memory_order_relaxed), severity,
                                               function, file, line, message);
    t_in_sink = false;
  }
  leave(*slot);
  return true;
}

void log_set_syslog(SyslogFn fn) { g_syslog.store(fn != nullptr ? fn : ::syslog); }

}  // namespace vemo

using vemo::g_slots;

extern "C" VEMO_API int vemo_set_log_sink(vemo_log_sink_cb sink, void *user, int min_level) {
  if (vemo::t_in_sink) {
    LOG_PRINT("WARN", "fail to set the log sink from within a sink");
    return VEMO_ERR_INVALID_ARG;
  }
  if (sink != nullptr && (min_level < VEMO_LOG_DEBUG || min_level > VEMO_LOG_ERROR)) {
    LOG_PRINT("WARN", "the level is invalid, level=%d", min_level);
    return VEMO_ERR_INVALID_ARG;
  }
  pthread_mutex_lock(&vemo::g_install);
  int previous = vemo::g_current.load();
  int next = -1;
  if (sink != nullptr) {
    next = previous == 0 ? 1 : 0;
    // Only a thread that raced with an earlier install can still be counted here, and it
    // leaves at once.
    vemo::wait_drained(g_slots[next]);
    g_slots[next].sink.store(sink, std::memory_order_relaxed);
    g_slots[next].user.store(user, std::memory_order_relaxed);
    g_slots[next].min_level.store(min_level, std::memory_order_relaxed);
  }
  vemo::g_current.store(next);
  if (previous >= 0) vemo::wait_drained(g_slots[previous]);
  pthread_mutex_unlock(&vemo::g_install);
  return VEMO_OK;
}

extern "C" VEMO_API void vemo_log_sink_stream(void *user, int level, const char *function,
                                              const char *file, int line, const char *message) {
  vemo::log_write_text(static_cast<FILE *>(user), vemo::kLevelNames[vemo::clamp_level(level)],
                       vemo::text_or_empty(file), line, vemo::text_or_empty(function),
                       vemo::text_or_empty(message));
}

extern "C" VEMO_API void vemo_log_sink_syslog(void *, int level, const char *function,
                                              const char *file, int line, const char *message) {
  int index = vemo::clamp_level(level);
  vemo::g_syslog.load()(vemo::kSyslogPriorities[index], "%5s | %s:%d | %s | - %s",
                        vemo::kLevelNames[index], vemo::text_or_empty(file), line,
                        vemo::text_or_empty(function), vemo::text_or_empty(message));
}
