// vemo_soak: the client kept busy through the faults a long-running device process meets.
//
// Eight threads send synchronous and asynchronous requests without pause while a handler is
// registered, and a fault driver works through a shuffled list of events: daemon restarts (the
// daemon closes the connection and a new one binds the socket path after a moment), teardowns
// ordered by the daemon (after which the application registers again), and faults in the stream
// (a stray byte, an oversize length header, a frame cut short, the connection closed in the
// middle of a frame). After every event the handler must answer a cloud request again within
// 6 s, and after every lost connection the client must announce its registration again within
// that time. Every call must return within its deadline plus the slack; a synchronous call must
// return its own response; a call that runs on far past its deadline is a deadlock and ends the
// program at once. Leaks are the sanitizer's to find at exit.
//
// The daemon is the in-process twin of the reference daemon on a private socket path. The
// library's log goes to /dev/null (or --log FILE); one line of figures goes to standard error,
// then a line per failed check. The exit status is non-zero when a check fails.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "soak.h"
#include "vemo/vemo_ext.h"

namespace soak {
namespace {

// A call this far past its deadline is not late but stuck.
constexpr long kHangMs = 10000;
constexpr auto kWatchdogPeriod = std::chrono::milliseconds(250);

bool parse(int argc, char **argv, Options *o) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool has_value = i + 1 < argc;
    if (arg == "--quick") {  // the bounded run of the test suite
      o->restarts = 10;
      o->teardowns = 10;
      o->faults = 50;
    } else if (has_value && (arg == "--restarts" || arg == "--teardowns" || arg == "--faults")) {
      int n = atoi(argv[++i]);
      (arg == "--restarts" ? o->restarts : arg == "--teardowns" ? o->teardowns : o->faults) = n;
      if (n < 0) return false;
    } else if (has_value && arg == "--slack-ms") {
      o->slack_ms = atol(argv[++i]);
    } else if (has_value && arg == "--seed") {
      o->seed = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
    } else if (has_value && (arg == "--socket" || arg == "--log")) {
      (arg == "--socket" ? o->socket : o->log) = argv[++i];
    } else {
      return false;
    }
  }
  return true;
}

// The events, shuffled: the faults in the stream are shared out among their four kinds.
std::vector<Faults::Kind> schedule(const Options &o) {
  std::vector<Faults::Kind> events(static_cast<size_t>(o.restarts), Faults::kRestart);
  events.insert(events.end(), static_cast<size_t>(o.teardowns), Faults::kTeardown);
  for (int i = 0; i < o.faults; ++i) events.push_back(static_cast<Faults::Kind>(Faults::kStrayByte + i % 4));
  std::shuffle(events.begin(), events.end(), std::mt19937(o.seed));
  return events;
}

// Ends the program when a call hangs: nothing could end it, not even the exit.
class Watchdog {
 public:
  explicit Watchdog(const Calls &calls) : calls_(calls), thread_([this] { watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> hold(mu_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

 private:
  void watch() {
    std::unique_lock<std::mutex> hold(mu_);
    while (!wake_.wait_for(hold, kWatchdogPeriod, [this] { return stop_; })) {
      long overrun = calls_.worst_running_overrun();
      if (overrun > kHangMs) {
        fprintf(stderr, "soak result=FAIL\n  FAIL: a call hangs, %ld ms past its deadline (a deadlock)\n", overrun);
        fflush(nullptr);
        _exit(1);
      }
    }
  }
  const Calls &calls_;
  std::mutex mu_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

int run(const Options &o) {
  Calls calls;
  calls.set_slack(o.slack_ms);
  Watchdog watchdog(calls);
  Faults faults(o, &calls);
  std::string error;
  if (!faults.start(&error)) {
    fprintf(stderr, "vemo_soak: %s\n", error.c_str());
    return 2;
  }
  Senders senders(&calls);
  senders.start();
  const auto start = Clock::now();
  std::vector<std::string> failures;
  int failed_events = 0;
  for (Faults::Kind kind : schedule(o)) {
    if (faults.run(kind, &error)) continue;
    ++failed_events;
    if (failures.size() < 5) failures.push_back(std::string(Faults::name(kind)) + ": " + error);
  }
  senders.stop();
  faults.shutdown();
  const double seconds = ms_since(start) / 1000.0;

  const struct {
    bool ok;
    std::string what;
  } checks[] = {
      {failed_events == 0, std::to_string(failed_events) + " events without recovery"},
      {calls.late() == 0, std::to_string(calls.late()) + " calls returned more than " + std::to_string(o.slack_ms) +
                              " ms past their deadline"},
      {calls.wrong_responses() == 0, std::to_string(calls.wrong_responses()) + " synchronous calls returned another response"},
      {calls.succeeded() > 0, "no call succeeded"},
  };
  bool pass = std::all_of(std::begin(checks), std::end(checks), [](const auto &c) { return c.ok; });
  long worst_reanswer = 0, worst_reregister = 0;
  for (int k = 0; k < Faults::kKinds; ++k) {
    worst_reanswer = std::max(worst_reanswer, faults.worst_reanswer(static_cast<Faults::Kind>(k)));
    worst_reregister = std::max(worst_reregister, faults.worst_reregister(static_cast<Faults::Kind>(k)));
  }
  fprintf(stderr,
          "soak restarts=%d teardowns=%d stray_bytes=%d oversize_headers=%d cut_frames=%d closed_mid_frame=%d "
          "calls=%ld succeeded=%ld async_responses=%ld worst_overrun_ms=%ld (%s) late_calls=%ld wrong_responses=%ld "
          "worst_reanswer_ms=%ld (restart %ld, teardown %ld, fault %ld) worst_reregister_ms=%ld failures=%s "
          "seconds=%.1f result=%s\n",
          faults.done(Faults::kRestart), faults.done(Faults::kTeardown), faults.done(Faults::kStrayByte),
          faults.done(Faults::kOversizeHeader), faults.done(Faults::kCutFrame), faults.done(Faults::kClosedMidFrame),
          calls.calls(), calls.succeeded(), senders.async_responses(), calls.worst_overrun(), calls.worst_call().c_str(),
          calls.late(),
          calls.wrong_responses(), worst_reanswer, faults.worst_reanswer(Faults::kRestart),
          faults.worst_reanswer(Faults::kTeardown),
          std::max({faults.worst_reanswer(Faults::kStrayByte), faults.worst_reanswer(Faults::kOversizeHeader),
                    faults.worst_reanswer(Faults::kCutFrame), faults.worst_reanswer(Faults::kClosedMidFrame)}),
          worst_reregister, calls.failures().c_str(), seconds, pass ? "pass" : "FAIL");
  for (const auto &check : checks) {
    if (!check.ok) fprintf(stderr, "  FAIL: %s\n", check.what.c_str());
  }
  for (const std::string &f : failures) fprintf(stderr, "  event %s\n", f.c_str());
  return pass ? 0 : 1;
}

}  // namespace
}  // namespace soak

int main(int argc, char **argv) {
  soak::Options o;
  if (!soak::parse(argc, argv, &o)) {
    fprintf(stderr,
            "usage: vemo_soak [--quick] [--restarts N] [--teardowns N] [--faults N] [--slack-ms MS]\n"
            "                 [--seed N] [--socket PATH] [--log FILE]\n");
    return 2;
  }
  if (o.socket.empty()) o.socket = "/tmp/vemo_soak." + std::to_string(getpid()) + ".sock";
  // The library logs on standard output, a line per step: into the log file with it.
  int log = open(o.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (log < 0 || dup2(log, STDOUT_FILENO) < 0 || vemo_set_socket_path(o.socket.c_str()) != 0) {
    fprintf(stderr, "vemo_soak: cannot use the log file %s or the socket path %s\n", o.log.c_str(), o.socket.c_str());
    return 2;
  }
  close(log);
  int status = soak::run(o);
  fflush(nullptr);
  return status;
}
