// vemo_burst: the client library hit by a burst, as a device would be. A fake daemon writes
// thousands of frames without reading while it writes; the program counts the threads that the
// library creates, its RSS growth and the answers, and times one request sent during the burst.
//
// Each scenario runs in a child process of its own (a fresh client, RSS and thread count, and a
// hard kill when the client hangs for good). One line of figures per scenario goes to standard
// error; the library's log goes to /dev/null (or --log FILE). The exit status is non-zero when a
// check fails. docs/performance.md ("Burst") describes the scenarios and the figures.
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>

#include "fake_daemon.h"
#include "vemo/vemo.h"
#include "vemo/vemo_ext.h"

// Every thread of the process starts here, the library's included: the executable's definition
// comes first in the symbol lookup, and the next one (libc's, or a sanitizer's) does the work.
namespace {
std::atomic<int> g_created{0}, g_live{1}, g_peak{1};
struct Start {
  void *(*entry)(void *);
  void *arg;
};
struct Live {
  ~Live() { g_live.fetch_sub(1); }  // also when the thread ends in pthread_exit
};
void *counted_entry(void *p) {
  Start start = *static_cast<Start *>(p);
  free(p);
  Live live;
  return start.entry(start.arg);
}
}  // namespace

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *),
                              void *arg) noexcept {
  using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
  static const Create next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  auto *start = static_cast<Start *>(malloc(sizeof(Start)));
  if (start == nullptr) return EAGAIN;
  *start = Start{entry, arg};
  int live = g_live.fetch_add(1) + 1;
  int rc = next(thread, attr, counted_entry, start);
  if (rc != 0) {
    g_live.fetch_sub(1);
    free(start);
    return rc;
  }
  g_created.fetch_add(1);
  for (int peak = g_peak.load(); live > peak && !g_peak.compare_exchange_weak(peak, live);) {
  }
  return 0;
}

namespace {

using namespace burst;

// The checks: the library may run up to kThreadCap handler threads, and start a few of its own.
constexpr int kThreadCap = 16;
constexpr int kThreadSlack = 3;
#if defined(VEMO_SANITIZER_BUILD) || defined(VEMO_EMULATED_TARGET)
// Shadow memory, ASan's quarantine of freed blocks and qemu's translated code grow with the run
// whatever the library does: there the limit only catches a growth per message.
constexpr long kRssGrowthLimitKib = 8 * 16 * 1024;
#else
constexpr long kRssGrowthLimitKib = 16 * 1024;
#endif
constexpr int kSyncTimeoutMs = 1000;  // the request sent during the burst
// Bounds of the program itself, which only a client that hangs or crawls reaches.
constexpr int kHandlerSyncTimeoutMs = 5000;
constexpr int kAsyncTimeoutMs = 30000;
constexpr long kDeadlineBaseMs = 15000;
constexpr int kStallMs = 10000;       // no answer for this long: the client hangs
constexpr long kExitGraceMs = 10000;  // after the deadline, for the report and the exit

struct Options {
  int requests = 10000, handler_ms = 100, notifications = 100000;
  bool sync_in_handler = false;
  std::string scenarios = "AB", socket, log = "/dev/null";
};

// Scenario A's handlers sleep handler_ms each with at most kThreadCap at a time; B's are quick.
long deadline_ms(const Options &o, char scenario) {
  if (scenario == 'B') return kDeadlineBaseMs + o.notifications;
  return kDeadlineBaseMs + 3L * o.requests * (o.handler_ms + (o.sync_in_handler ? 5 : 0)) / kThreadCap;
}

long status_kib(const char *field) {  // a "Vm...:" line of /proc/self/status
  FILE *f = fopen("/proc/self/status", "r");
  char line[256];
  long value = -1;
  while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
    if (strncmp(line, field, strlen(field)) == 0) value = atol(line + strlen(field));
  }
  if (f != nullptr) fclose(f);
  return value;
}

// The application. Handlers are plain C function pointers, so they find their setting here;
// it is written before the client starts and only read afterwards.
Tally *g_tally = nullptr;
int g_handler_ms = 0;
bool g_sync_in_handler = false;

void on_cloud_request(const char *, char **response) {
  std::this_thread::sleep_for(std::chrono::milliseconds(g_handler_ms));
  if (g_sync_in_handler) {
    char *text = nullptr;
    int rc = vemo_send_request_sync("from a handler", kHandlerSyncTimeoutMs, 0, &text);
    free(text);
    g_tally->update([rc](Tally &t) {
      t.handler_syncs += rc == 0 ? 1 : 0;
      return false;  // read at the end; the reply that follows is what the scenario waits for
    });
  }
  *response = strdup("answered");
}

void on_response(int id, const char *) {
  char *text = nullptr;
  int rc = vemo_get_response(id, &text);
  g_tally->count_answer(rc == 0 && text != nullptr && text == "resp:" + std::to_string(id));
  free(text);
}

int run_scenario(const Options &o, char scenario) {
  const bool a = scenario == 'A';
  const int count = a ? o.requests : o.notifications;
  const auto deadline = Clock::now() + std::chrono::milliseconds(deadline_ms(o, scenario));
  Tally tally;
  tally.expected = count;
  g_tally = &tally;
  g_handler_ms = o.handler_ms;
  g_sync_in_handler = a && o.sync_in_handler;
  FakeDaemon daemon(&tally, a, count, deadline);
  std::string path = o.socket.empty() ? "/tmp/vemo_burst." + std::to_string(getpid()) + ".sock" : o.socket;
  std::string error = "bad socket path";
  if (!daemon.listen(path, &error) || vemo_set_socket_path(path.c_str()) != 0) {
    fprintf(stderr, "vemo_burst: %s\n", error.c_str());
    return 2;
  }
  daemon.start();
  int created = g_created.load();
  const int rc = vemo_register_callback(on_cloud_request, nullptr);  // connects
  const int startup_threads = g_created.load() - created;
  std::thread sync_thread([&tally, deadline] {
    if (!tally.wait_until(deadline, [](Tally &t) { return t.burst_started; })) return;
    char *text = nullptr;
    auto start = Clock::now();
    int sync_rc = vemo_send_request_sync("during the burst", kSyncTimeoutMs, 0, &text);
    long ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    free(text);
    tally.update([&](Tally &t) {
      t.sync_done = true;
      t.sync_rc = sync_rc;
      t.sync_ms = ms;
      return true;
    });
  });
  int async_failed = 0;
  const auto async_start = Clock::now();
  for (int i = 0; !a && rc == 0 && i < count && Clock::now() < deadline; ++i) {
    std::string request = FakeDaemon::kHeldPrefix + std::to_string(i);
    async_failed += vemo_send_request_async(request.c_str(), kAsyncTimeoutMs, 0, on_response) < 0;
  }

  const double async_s = std::chrono::duration<double>(Clock::now() - async_start).count();
  const long rss_before_kib = status_kib("VmRSS:");
  // Sets VmHWM back to the current RSS, so that it holds the peak of the burst alone. Where that
  // is refused, VmHWM covers the child's whole life: a bound from above.
  if (FILE *clear_refs = fopen("/proc/self/clear_refs", "w")) {
    fputs("5", clear_refs);
    fclose(clear_refs);
  }
  created = g_created.load();
  g_peak.store(g_live.load());
  const auto start = Clock::now();
  bool stalled = false;
  if (rc == 0) {
    daemon.start_burst();
    // A client that deadlocks for good is told from a slow one by its progress: no answer for
    // kStallMs, far longer than any handler takes, ends the wait before the deadline.
    for (int seen = -1; !stalled;) {
      auto until = std::min(deadline, Clock::now() + std::chrono::milliseconds(kStallMs));
      if (tally.wait_until(until, [](Tally &t) { return t.sync_done && t.answered + t.bad >= t.expected; })) break;
      std::lock_guard<std::mutex> hold(tally.mu);
      stalled = tally.answered + tally.bad == seen || Clock::now() >= deadline;
      seen = tally.answered + tally.bad;
    }
  }
  const double burst_s = std::chrono::duration<double>(Clock::now() - start).count();
  const int threads_created = g_created.load() - created;
  const long rss_growth_kib = status_kib("VmHWM:") - rss_before_kib;

  std::unique_lock<std::mutex> hold(tally.mu);
  const struct {
    bool ok;
    std::string what;
  } checks[] = {
      {rc == 0, "the client did not connect and register, error=" + std::to_string(rc)},
      {startup_threads > 0, "no thread seen at start-up: pthread_create is not interposed"},
      {threads_created <= kThreadCap + kThreadSlack, "too many threads created during the burst"},
      {rss_growth_kib <= kRssGrowthLimitKib, "RSS grew too much"},
      {tally.answered == count && tally.bad + async_failed == 0, "not every request was answered once"},
      {!g_sync_in_handler || tally.handler_syncs == count, "requests sent from handlers failed"},
      {!stalled, "the burst did not end: no answer for " + std::to_string(kStallMs / 1000) + " s, or the deadline"},
      {tally.sync_done && tally.sync_rc == 0 && tally.sync_ms <= kSyncTimeoutMs,
       "the request sent during the burst did not complete within its timeout"},
  };
  bool pass = std::all_of(std::begin(checks), std::end(checks), [](const auto &c) { return c.ok; });
  fprintf(stderr,
          "burst scenario=%c count=%d handler_ms=%d sync_in_handler=%d answered=%d handler_syncs=%d "
          "threads_created=%d peak_threads=%d rss_growth_mib=%.1f vm_peak_mib=%ld sync_rc=%d sync_ms=%ld "
          "async_s=%.1f burst_s=%.1f result=%s\n",
          scenario, count, a ? o.handler_ms : 0, g_sync_in_handler, tally.answered, tally.handler_syncs,
          threads_created, g_peak.load(),
          rss_growth_kib / 1024.0, status_kib("VmPeak:") / 1024, tally.sync_rc,
          tally.sync_done ? tally.sync_ms : -1L, async_s, burst_s, pass ? "pass" : "FAIL");
  for (const auto &check : checks) {
    if (!check.ok) fprintf(stderr, "  FAIL (%c): %s\n", scenario, check.what.c_str());
  }
  hold.unlock();
  daemon.stop();
  if (!daemon.failure.empty()) fprintf(stderr, "  daemon (%c): %s\n", scenario, daemon.failure.c_str());
  if (!pass) {
    // Library threads (and so the request sent during the burst) may be stuck for good.
    sync_thread.detach();
    fflush(nullptr);  // the report, and the tail of the library's log for --log
    _exit(1);
  }
  sync_thread.join();
  return 0;
}

// Runs one scenario in a child and waits for it until its deadline and the grace have passed.
bool run_child(const Options &o, char scenario) {
  sigset_t child_ended;
  sigemptyset(&child_ended);
  sigaddset(&child_ended, SIGCHLD);
  pid_t pid = fork();
  if (pid == 0) {
    int log = open(o.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log < 0 || dup2(log, STDOUT_FILENO) < 0) _exit(2);
    sigprocmask(SIG_UNBLOCK, &child_ended, nullptr);
    exit(run_scenario(o, scenario));
  }
  if (pid < 0) {
    perror("vemo_burst: fork");
    return false;
  }
  const long limit_ms = deadline_ms(o, scenario) + kExitGraceMs;
  const auto until = Clock::now() + std::chrono::milliseconds(limit_ms);
  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(pid, &status, WNOHANG)) == 0) {
    auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(until - Clock::now()).count();
    timespec wait{static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
    if (left <= 0 || (sigtimedwait(&child_ended, nullptr, &wait) < 0 && errno == EAGAIN)) {
      fprintf(stderr, "burst scenario=%c result=FAIL\n  FAIL (%c): killed, no end within %ld s\n", scenario,
              scenario, limit_ms / 1000);
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return false;
    }
  }
  return ended == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool parse(int argc, char **argv, Options *o) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool has_value = i + 1 < argc;
    if (arg == "--sync-in-handler") {
      o->sync_in_handler = true;
    } else if (arg == "--quick") {  // the bounded run of the test suite
      o->requests = 1000;
      o->handler_ms = 20;
      o->notifications = 5000;
    } else if (has_value && (arg == "--requests" || arg == "--handler-ms" || arg == "--notifications")) {
      int n = atoi(argv[++i]);
      (arg == "--requests" ? o->requests : arg == "--handler-ms" ? o->handler_ms : o->notifications) = n;
      if (n < (arg == "--handler-ms" ? 0 : 1)) return false;
    } else if (has_value && (arg == "--socket" || arg == "--log" || arg == "--scenario")) {
      (arg == "--socket" ? o->socket : arg == "--log" ? o->log : o->scenarios) = argv[++i];
    } else {
      return false;
    }
  }
  return o->scenarios == "AB" || o->scenarios == "A" || o->scenarios == "B";
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  if (!parse(argc, argv, &o)) {
    fprintf(stderr,
            "usage: vemo_burst [--quick] [--requests N] [--handler-ms H] [--notifications N]\n"
            "                  [--sync-in-handler] [--scenario A|B] [--socket PATH] [--log FILE]\n");
    return 2;
  }
  // SIGCHLD stays blocked in this process, so that sigtimedwait can wait for each child.
  sigset_t child_ended;
  sigemptyset(&child_ended);
  sigaddset(&child_ended, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child_ended, nullptr);
  bool pass = true;
  for (char scenario : o.scenarios) pass = run_child(o, scenario) && pass;
  return pass ? 0 : 1;
}
