// vemo_soak: the client kept busy through the faults a long-running device process meets. See
// main.cc for the run.
#ifndef VEMO_BENCH_SOAK_SOAK_H
#define VEMO_BENCH_SOAK_SOAK_H

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vemo_cloudd/cloud_daemon.h"

namespace soak {

using Clock = std::chrono::steady_clock;

inline long ms_since(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

constexpr int kSenders = 8;
// The calls without a timeout of their own (register, unregister) wait this long at most.
constexpr int kControlTimeoutMs = 5000;
// After a restart (or a lost connection) the handler must answer again within this long.
constexpr long kReanswerLimitMs = 6000;

// How far past its deadline a call may return. Under a sanitizer or an emulator, on a machine
// shared with other work, a thread woken at its deadline can wait far longer than that for a
// core (qemu-arm runs showed 600 ms): there the bound only catches calls that wait on something
// else than their deadline.
#if defined(VEMO_SANITIZER_BUILD) || defined(VEMO_EMULATED_TARGET)
constexpr long kDefaultSlackMs = 1000;
#else
constexpr long kDefaultSlackMs = 100;
#endif

struct Options {
  int restarts = 200, teardowns = 200, faults = 1000;
  long slack_ms = kDefaultSlackMs;
  unsigned seed = 1;
  std::string socket, log = "/dev/null";
};

// Every call of the application, timed. One slot per calling thread, so that the watchdog can
// tell a call that hangs (a deadlock) from one that is merely late.
class Calls {
 public:
  static constexpr int kSlots = kSenders + 1;  // the senders and the fault driver

  // A call (what: "sync", "async", "register", ...) on slot with timeout_ms starts / ends with
  // rc. Returns the call's duration.
  void begin(int slot, const char *what, int timeout_ms);
  long end(int slot, int rc);
  void count_wrong_response() { wrong_responses_.fetch_add(1); }
  // The event the fault driver is working on (a static text), named in worst_call().
  void set_event(const char *name) { event_.store(name); }

  // The longest a call now running has run past its deadline (ms; negative when none has).
  long worst_running_overrun() const;

  long calls() const { return calls_.load(); }
  long succeeded() const { return succeeded_.load(); }
  long late() const { return late_.load(); }
  long worst_overrun() const { return worst_overrun_.load(); }
  long wrong_responses() const { return wrong_responses_.load(); }
  void set_slack(long slack_ms) { slack_ms_ = slack_ms; }
  // The results that were not successes, as "code:count ..." (most frequent first).
  std::string failures() const;
  // The call that overran its deadline most, as "what/timeout/took/rc/event".
  std::string worst_call() const;

 private:
  struct Slot {
    std::atomic<long> started_ms{-1};  // since the program's start; -1 when idle
    std::atomic<int> timeout_ms{0};
    const char *what = "";  // only the slot's own thread
  };
  Slot slots_[kSlots];
  long slack_ms_ = kDefaultSlackMs;
  std::atomic<long> calls_{0}, succeeded_{0}, late_{0}, worst_overrun_{-1000000}, wrong_responses_{0};
  mutable std::mutex mu_;                    // guards codes_ and worst_call_
  std::vector<std::pair<int, long>> codes_;  // failure code, count
  std::string worst_call_ = "none";
  std::atomic<const char *> event_{"start"};
};

// What the current daemon saw of the client: registrations and replies. Filled by the daemon's
// handler (on its loop thread); the fault driver waits on it.
struct Seen {
  std::mutex mu;
  std::condition_variable changed;
  long registrations = 0;  // register_callback messages
  std::string last_check;  // the latest answer to a check (a cloud request of the fault driver)
};

// The senders: kSenders threads, each alternating synchronous and asynchronous requests with
// timeouts of 100, 300 and 1000 ms until stop().
class Senders {
 public:
  explicit Senders(Calls *calls) : calls_(calls) {}
  ~Senders() { stop(); }
  void start();
  void stop();
  long async_responses() const { return async_responses_.load(); }

 private:
  void run(int index);
  Calls *calls_;
  std::atomic<bool> stop_{false};
  std::thread threads_[kSenders];
  static std::atomic<long> async_responses_;
  static void on_response(int id, const char *response);
};

// The handler registered by the soak: answers every cloud request with its own text.
void on_cloud_request(const char *request, char **response);

// The events and the recovery after each. Runs on the fault driver's thread.
class Faults {
 public:
  Faults(const Options &options, Calls *calls) : options_(options), calls_(calls) {}
  ~Faults();
  // Starts the first daemon and registers the handler; false (with a message) when it fails.
  bool start(std::string *error);

  enum Kind { kRestart, kTeardown, kStrayByte, kOversizeHeader, kCutFrame, kClosedMidFrame, kKinds };
  static const char *name(Kind kind);
  // Carries the event out and waits until the handler answers again. False when it does not
  // within kReanswerLimitMs (or the event could not be made).
  bool run(Kind kind, std::string *error);
  // The figures: events done by kind, the worst time until the handler answered again and
  // until the registration was announced again (ms), by kind.
  int done(Kind kind) const { return done_[kind]; }
  long worst_reanswer(Kind kind) const { return worst_reanswer_[kind]; }
  long worst_reregister(Kind kind) const { return worst_reregister_[kind]; }
  void shutdown();  // unregisters and stops the daemon

 private:
  bool start_daemon(std::string *error);
  bool register_again(Clock::time_point deadline);
  // Time from since until the handler answered a cloud request from the current daemon, or -1.
  long wait_answer(Clock::time_point since, Clock::time_point deadline);
  long wait_registration(long before, Clock::time_point since, Clock::time_point deadline);
  bool stream_fault(Kind kind);

  const Options options_;
  Calls *calls_;
  Seen seen_;
  std::unique_ptr<vemo::cloudd::CloudDaemon> daemon_;
  int done_[kKinds] = {0};
  long worst_reanswer_[kKinds] = {0};
  long worst_reregister_[kKinds] = {0};
  int answer_serial_ = 0;
  unsigned rng_ = 1;
};

}  // namespace soak

#endif
