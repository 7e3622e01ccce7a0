// Stress of the whole client against the in-process daemon on /tmp/cloud_svr: 32 application
// threads send 500 requests each, synchronous and asynchronous mixed, while the daemon sends
// cloud requests to the registered handler and, once half of all requests are done, orders
// exactly one teardown (server_notify type 1). The client must not crash or deadlock, every
// call must end with its echoed response or with a code that the teardown explains, and after
// the teardown the client must reconnect and serve again.
//
// What a teardown may do to a call that overlaps it, and nothing else:
//   - vemo_send_request_async / _sync fail with VEMO_ERR_DISCONNECTED (-1101): the call found
//     the client stopping, its id pool closed, its socket shut down, or (sync) its response
//     list closed while it waited;
//   - vemo_send_request_sync and vemo_get_response return VEMO_ERR_NOT_FOUND (-2000) for a
//     request acknowledged on the first connection: the list that held it is gone;
//   - the response callback of a request acknowledged on the first connection never comes.
// VEMO_ERR_NOT_ARRIVED (-2001) is only ever "poll again". VEMO_ERR_TIMEOUT (-20002), -1102 and
// every other code are failures: the daemon drops nothing, so a timeout means a lost message.
//
// A call may count a teardown code only if it began before the client had reconnected and
// ended after the teardown was ordered; a -2000 or a missing callback also needs the request
// to have gone over the first connection (the daemon's handler records the connection of
// every request by its unique tag). Once the daemon has accepted the second connection, the
// first client is torn down completely, its dispatch threads included: a callback that has not
// come by then for a first-connection request never comes.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "util/clock.h"
#include "util/log_internal.h"
#include "util/sync.h"
#include "vemo/util.h"
#include "vemo/vemo.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace {

using vemo::CondVar;
using vemo::Mutex;
using vemo::MutexLock;
using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

constexpr int kThreads = 32;
constexpr int kRequestsPerThread = 500;
constexpr int kTotal = kThreads * kRequestsPerThread;
// Generous: the daemon answers within 2 ms, so reaching this bound means a lost message.
constexpr int kRequestTimeoutMs = 10000;
// Cloud requests answered after the handler is registered again: the reconnected client
// serves the cloud too.
constexpr int kMinLateCloudReplies = 20;
// Bounds on waiting: for one event (a response, a reply, the reconnection), and for all the
// request threads to end. The whole run takes about 2 s plain, 5 s under ASan and 12 s under
// TSan on two cores; CTest stops a test at 120 s.
#if defined(VEMO_SANITIZER_BUILD) || defined(VEMO_EMULATED_TARGET)
constexpr int kWaitBoundMs = 30000;
constexpr int kWatchdogMs = 80000;
#else
constexpr int kWaitBoundMs = 10000;
constexpr int kWatchdogMs = 30000;
#endif

// The test's view of the one teardown, in order.
enum Phase : int { kBefore = 0, kOrdered = 1, kReconnected = 2, kReregistered = 3 };

enum Kind : int { kSync, kPoll, kCallbackThenCollect, kCollectInCallback, kKinds };
const char *const kKindNames[kKinds] = {"sync", "async, polled", "async, callback + collect",
                                        "async, collected in callback"};

enum Outcome : int {
  kOk,
  kSendDisconnected,   // -1101 from the request call
  kListGone,           // -2000 collecting a first-connection request
  kCallbackLost,       // the callback of a first-connection request never came
  kFailed,
  kOutcomes
};
const char *const kOutcomeNames[kOutcomes] = {"ok", "-1101 from the call", "-2000 (list gone)",
                                              "callback lost", "FAILED"};

// What a response callback saw.
struct Arrival {
  int calls = 0;
  std::string text;       // the text the callback was handed
  int collect_rc = 1;     // vemo_get_response from inside the callback (kCollectInCallback)
  std::string collected;  // its text
  int phase = kBefore;    // phase when the callback ran
};

struct CloudReply {
  int error_code = 0;
  bool has_response = false;
  std::string response;
};

class Stress;
Stress *g_stress = nullptr;
// Outside Stress: the handler must stay callable as long as the library may dispatch.
std::atomic<int> g_handler_calls{0};

uint32_t now_ms() { return get_tick_count(); }

// The request text: a unique tag, then filler of varying length with characters that JSON
// must escape, so that the echo checks the escaping both ways.
std::string make_request(int thread, int index) {
  char tag[32];
  snprintf(tag, sizeof tag, "t%02d-r%03d|", thread, index);
  static const char kFiller[] = "abc \"q\" \\ / \t\xC3\xA9 xyz {}[]:,";
  std::string text = tag;
  size_t length = static_cast<size_t>((index * 37 + thread * 11) % 700);
  for (size_t i = 0; i < length; ++i) text += kFiller[i % (sizeof kFiller - 1)];
  return text;
}

std::string tag_of(const std::string &request) { return request.substr(0, request.find('|')); }

// The index of a worker's request (it is also the request's flag), or -1 for any other text.
int tagged_index(const std::string &request) {
  int thread = -1, index = -1;
  char bar = 0;
  if (sscanf(request.c_str(), "t%2d-r%3d%c", &thread, &index, &bar) != 3 || bar != '|') return -1;
  return index;
}

class Stress {
 public:
  explicit Stress(CloudDaemon &daemon) : daemon_(daemon) {
    for (auto &cv : worker_cv_) cv.reset(new CondVar());
  }

  // The daemon's handler, on its loop thread: notes which connection each request came over,
  // varies the response delay between 0 and 2 ms, and collects the replies to cloud requests.
  bool on_daemon_message(CloudDaemon &d, const Received &r) {
    if (r.method == "device_request") {
      const int index = tagged_index(r.request);
      if (index >= 0) {
        // The numbers travel unchanged.
        if (r.flag != index || r.timeout_ms != kRequestTimeoutMs)
          note_failure("daemon: " + tag_of(r.request) + " came with flag " + std::to_string(r.flag) +
                       " and timeout " + std::to_string(r.timeout_ms));
        MutexLock hold(mu_);
        conn_of_[tag_of(r.request)] = r.conn;
        note_client_connection(r.conn);
      }
      d.set_response_delay_ms(r.id % 3);
    } else if (r.is_reply() && r.has_id) {
      MutexLock hold(mu_);
      CloudReply &reply = replies_[r.id];
      reply.error_code = r.error_code;
      reply.has_response = r.has_response;
      reply.response = r.response;
      cloud_cv_.broadcast();
    }
    return false;  // the daemon answers as usual
  }

  void on_response(int id, const char *text, bool collect) {
    int rc = 1;
    std::string collected;
    int phase = phase_.load();
    if (collect) {
      // Runs on a dispatch thread of the library: collecting its own response here is allowed.
      char *got = nullptr;
      rc = vemo_get_response(id, &got);
      if (got != nullptr) collected = got;
      if (rc != 0 && got != nullptr) note_failure("get_response stored a text on failure");
      free(got);
      phase = phase_.load();
    }
    MutexLock hold(mu_);
    Arrival &a = arrivals_[id];
    a.calls += 1;
    a.text = text != nullptr ? text : "(null)";
    a.collect_rc = rc;
    a.collected = collected;
    a.phase = phase;
    auto waiter = waiting_.find(id);
    if (waiter != waiting_.end()) waiter->second->signal();
  }

  int client_connections() {
    MutexLock hold(mu_);
    return static_cast<int>(client_conns_.size());
  }
  void worker(int thread);
  void conductor();
  void cloud_requests();
  void report_and_check(double seconds);
  // What a hung run has got to, for the watchdog.
  void dump() {
    fprintf(stderr, "stress: phase %d, %d requests done, %d client connections\n", phase_.load(),
            completed_.load(), client_connections());
    MutexLock hold(failure_mu_);
    for (const std::string &f : failures_) fprintf(stderr, "  %s\n", f.c_str());
  }

  std::atomic<bool> workers_done{false};

 private:
  void note_failure(const std::string &what) {
    MutexLock hold(failure_mu_);
    failure_count_ += 1;
    if (failures_.size() < 30) failures_.push_back(what);
  }
  void finish(Kind kind, int start_phase, Outcome outcome) {
    tally_[kind][outcome].fetch_add(1);
    if (start_phase >= kReconnected && outcome == kOk) ok_after_reconnect_.fetch_add(1);
    if (completed_.fetch_add(1) + 1 == kTotal / 2) {
      MutexLock hold(mu_);
      progress_cv_.broadcast();
    }
  }
  void set_phase(Phase phase) {
    MutexLock hold(mu_);
    phase_.store(phase);
    phase_ms_[phase] = std::chrono::steady_clock::now();
    for (auto &cv : worker_cv_) cv->broadcast();
    cloud_cv_.broadcast();
  }
  int conn_of(const std::string &request) {
    MutexLock hold(mu_);
    auto it = conn_of_.find(tag_of(request));
    return it == conn_of_.end() ? 0 : it->second;
  }
  // -2000 or a missing callback: the request went over the first connection, torn down since.
  bool teardown_lost(const std::string &request) {
    return phase_.load() >= kOrdered && conn_of(request) == first_conn();
  }
  int first_conn() {
    MutexLock hold(mu_);
    return client_conns_.empty() ? 0 : client_conns_.front();
  }
  // The connections that the workers' requests came over, in order. The daemon's own count of
  // accepted connections also counts anyone else who knocks at /tmp/cloud_svr (another daemon
  // checking whether the path is in use, another program's client); a tagged request is ours.
  void note_client_connection(int conn) REQUIRES(mu_) {
    for (int c : client_conns_)
      if (c == conn) return;
    client_conns_.push_back(conn);
    cloud_cv_.broadcast();
  }
  // -1101: the call began before the reconnection and ended after the order.
  bool teardown_failed(int start_phase) {
    return start_phase < kReconnected && phase_.load() >= kOrdered;
  }
  Outcome check_text(const std::string &request, const std::string &got, const char *where) {
    if (got == request) return kOk;
    note_failure(std::string(where) + ": response differs from the request " + tag_of(request));
    return kFailed;
  }
  Outcome do_sync(const std::string &request, int flag, int start_phase);
  Outcome do_poll(int thread, const std::string &request, int flag, int start_phase);
  Outcome do_callback(int thread, const std::string &request, int flag, int start_phase,
                      bool collect_in_callback);

  CloudDaemon &daemon_;
  std::atomic<int> phase_{kBefore};
  std::atomic<int> completed_{0};
  std::atomic<int> ok_after_reconnect_{0};
  std::atomic<int> not_arrived_polls_{0};
  std::atomic<int> tally_[kKinds][kOutcomes] = {};

  Mutex mu_;
  CondVar progress_cv_;  // half of the requests done
  CondVar cloud_cv_;     // a cloud reply came, or the phase changed
  std::unique_ptr<CondVar> worker_cv_[kThreads];
  std::map<int, Arrival> arrivals_ GUARDED_BY(mu_);     // by request id; taken by the waiter
  std::map<int, CondVar *> waiting_ GUARDED_BY(mu_);    // request id -> its waiting worker
  std::unordered_map<std::string, int> conn_of_ GUARDED_BY(mu_);  // request tag -> connection
  std::vector<int> client_conns_ GUARDED_BY(mu_);
  std::map<int, CloudReply> replies_ GUARDED_BY(mu_);   // cloud request id -> reply
  std::chrono::steady_clock::time_point phase_ms_[4];

  // Cloud requests: sent, answered, left unanswered inside the teardown window.
  int cloud_sent_ = 0, cloud_answered_ = 0, cloud_window_unanswered_ = 0, cloud_late_ = 0;
  int cloud_unsent_ = 0;

  Mutex failure_mu_;
  int failure_count_ GUARDED_BY(failure_mu_) = 0;
  std::vector<std::string> failures_ GUARDED_BY(failure_mu_);
};

void response_cb(int id, const char *text) { g_stress->on_response(id, text, false); }
void response_collect_cb(int id, const char *text) { g_stress->on_response(id, text, true); }

void cloud_request_cb(const char *request, char **response) {
  g_handler_calls.fetch_add(1);
  size_t length = strlen(request);
  char *answer = static_cast<char *>(malloc(length + 4));
  if (answer == nullptr) return;
  memcpy(answer, "re:", 3);
  memcpy(answer + 3, request, length + 1);
  *response = answer;
}

Outcome Stress::do_sync(const std::string &request, int flag, int start_phase) {
  char *got = nullptr;
  int rc = vemo_send_request_sync(request.c_str(), kRequestTimeoutMs, flag, &got);
  if (rc == 0) {
    Outcome outcome = got != nullptr ? check_text(request, got, "sync") : kFailed;
    if (got == nullptr) note_failure("sync: 0 without a text");
    free(got);
    return outcome;
  }
  if (got != nullptr) {
    note_failure("sync: a text stored on failure");
    free(got);
    return kFailed;
  }
  if (rc == VEMO_ERR_DISCONNECTED && teardown_failed(start_phase)) return kSendDisconnected;
  if (rc == VEMO_ERR_NOT_FOUND && teardown_lost(request)) return kListGone;
  note_failure("sync " + tag_of(request) + ": code " + std::to_string(rc) + " in phase " +
               std::to_string(phase_.load()) + " (started in " + std::to_string(start_phase) +
               ", connection " + std::to_string(conn_of(request)) + ")");
  return kFailed;
}

Outcome Stress::do_poll(int thread, const std::string &request, int flag, int start_phase) {
  int id = vemo_send_request_async(request.c_str(), kRequestTimeoutMs, flag, nullptr);
  if (id < 0) {
    if (id == VEMO_ERR_DISCONNECTED && teardown_failed(start_phase)) return kSendDisconnected;
    note_failure("async " + tag_of(request) + ": code " + std::to_string(id));
    return kFailed;
  }
  // Without a callback nothing tells the application that the response is there: polling is
  // the documented way, with a short pause that grows while the answer is late.
  const uint32_t start = now_ms();
  int pause_ms = 1;
  for (;;) {
    char *got = nullptr;
    int rc = vemo_get_response(id, &got);
    if (rc == 0) {
      Outcome outcome = got != nullptr ? check_text(request, got, "poll") : kFailed;
      free(got);
      return outcome;
    }
    free(got);
    if (rc == VEMO_ERR_NOT_FOUND && teardown_lost(request)) return kListGone;
    if (rc != VEMO_ERR_NOT_ARRIVED) {
      note_failure("poll " + tag_of(request) + ": code " + std::to_string(rc));
      return kFailed;
    }
    not_arrived_polls_.fetch_add(1);
    if (vemo::tick_elapsed(now_ms(), start) >= kWaitBoundMs) {
      note_failure("poll " + tag_of(request) + ": no response within the bound");
      return kFailed;
    }
    MutexLock hold(mu_);
    worker_cv_[thread]->wait_for_ms(mu_, pause_ms);
    pause_ms = pause_ms < 4 ? pause_ms * 2 : 4;
  }
}

Outcome Stress::do_callback(int thread, const std::string &request, int flag, int start_phase,
                            bool collect_in_callback) {
  int id = vemo_send_request_async(request.c_str(), kRequestTimeoutMs, flag,
                                   collect_in_callback ? response_collect_cb : response_cb);
  if (id < 0) {
    if (id == VEMO_ERR_DISCONNECTED && teardown_failed(start_phase)) return kSendDisconnected;
    note_failure("async " + tag_of(request) + ": code " + std::to_string(id));
    return kFailed;
  }
  // The callback may have run before the id came back; it leaves its record in arrivals_.
  Arrival arrival;
  bool arrived = false;
  bool lost = false;
  const uint32_t start = now_ms();
  {
    MutexLock hold(mu_);
    for (;;) {
      auto it = arrivals_.find(id);
      if (it != arrivals_.end()) {
        arrival = it->second;
        arrivals_.erase(it);
        arrived = true;
        break;
      }
      if (phase_.load() >= kReconnected) {
        auto conn = conn_of_.find(tag_of(request));
        if (conn != conn_of_.end() && conn->second == client_conns_.front()) {
          lost = true;
          break;
        }
      }
      int32_t left = kWaitBoundMs - vemo::tick_elapsed(now_ms(), start);
      if (left <= 0) break;
      waiting_[id] = worker_cv_[thread].get();
      worker_cv_[thread]->wait_for_ms(mu_, left);
      waiting_.erase(id);
    }
  }
  if (!arrived && !lost) {
    note_failure("callback " + tag_of(request) + ": none within the bound");
    return kFailed;
  }
  if (arrived) {
    if (arrival.calls != 1) {
      note_failure("callback " + tag_of(request) + ": called " + std::to_string(arrival.calls) +
                   " times");
      return kFailed;
    }
    if (check_text(request, arrival.text, "callback") != kOk) return kFailed;
  }
  if (collect_in_callback) {
    if (lost) return kCallbackLost;
    if (arrival.collect_rc == 0) return check_text(request, arrival.collected, "in callback");
    if (arrival.collect_rc == VEMO_ERR_NOT_FOUND && arrival.phase >= kOrdered &&
        conn_of(request) == first_conn())
      return kListGone;
    note_failure("in callback " + tag_of(request) + ": code " + std::to_string(arrival.collect_rc));
    return kFailed;
  }
  char *got = nullptr;
  int rc = vemo_get_response(id, &got);
  if (rc == 0) {
    Outcome outcome = got != nullptr && !lost ? check_text(request, got, "collect") : kFailed;
    if (lost) note_failure("collect " + tag_of(request) + ": a response whose callback was lost");
    free(got);
    return outcome;
  }
  free(got);
  if (rc == VEMO_ERR_NOT_FOUND && teardown_lost(request)) return lost ? kCallbackLost : kListGone;
  // After the callback the response is stored: -2001 here would be a lie.
  note_failure("collect " + tag_of(request) + ": code " + std::to_string(rc) +
               (arrived ? " after its callback" : ""));
  return kFailed;
}

void Stress::worker(int thread) {
  for (int i = 0; i < kRequestsPerThread; ++i) {
    const std::string request = make_request(thread, i);
    const int start_phase = phase_.load();
    const Kind kind = static_cast<Kind>((thread + i) % kKinds);
    Outcome outcome = kFailed;
    switch (kind) {
      case kSync:
        outcome = do_sync(request, i, start_phase);
        break;
      case kPoll:
        outcome = do_poll(thread, request, i, start_phase);
        break;
      case kCallbackThenCollect:
        outcome = do_callback(thread, request, i, start_phase, false);
        break;
      case kCollectInCallback:
      case kKinds:
        outcome = do_callback(thread, request, i, start_phase, true);
        break;
    }
    finish(kind, start_phase, outcome);
  }
}

void Stress::conductor() {
  const uint32_t start = now_ms();
  {
    MutexLock hold(mu_);
    while (completed_.load() < kTotal / 2) {
      int32_t left = kWaitBoundMs - vemo::tick_elapsed(now_ms(), start);
      if (left <= 0) break;
      progress_cv_.wait_for_ms(mu_, left);
    }
  }
  if (completed_.load() < kTotal / 2) {
    note_failure("conductor: half of the requests not done within the bound");
    return;
  }
  set_phase(kOrdered);
  int written = daemon_.send_server_notify(1, first_conn());
  if (written != 1) note_failure("conductor: notify written to " + std::to_string(written));
  // The reconnected client's first message (its start-up is complete by then) also tells that
  // the first client is gone for good: a client starts only once the last one is torn down.
  {
    MutexLock hold(mu_);
    const uint32_t wait_start = now_ms();
    while (client_conns_.size() < 2) {
      int32_t left = kWaitBoundMs - vemo::tick_elapsed(now_ms(), wait_start);
      if (left <= 0) break;
      cloud_cv_.wait_for_ms(mu_, left);
    }
    if (client_conns_.size() < 2) {
      note_failure("conductor: the client did not reconnect");
      return;
    }
  }
  set_phase(kReconnected);
  // The teardown forgot the handler: the application registers it again.
  int rc = vemo_register_callback(cloud_request_cb, nullptr);
  if (rc != 0) note_failure("conductor: register after the reconnection: " + std::to_string(rc));
  set_phase(kReregistered);
}

void Stress::cloud_requests() {
  const uint32_t start = now_ms();
  int late = 0;
  for (int n = 0; !(workers_done.load() && (late >= kMinLateCloudReplies ||
                                            phase_.load() < kReregistered));
       ++n) {
    if (vemo::tick_elapsed(now_ms(), start) > kWatchdogMs) {
      note_failure("cloud requests: not done in time");
      return;
    }
    const std::string text = "cloud-" + std::to_string(n) + " \"x\" \\ y";
    const int sent_phase = phase_.load();
    int id = 0;
    int target = 0;
    {
      // Sent to the workers' current connection, known from their first request on.
      MutexLock hold(mu_);
      const uint32_t wait_start = now_ms();
      while (client_conns_.empty() && vemo::tick_elapsed(now_ms(), wait_start) < kWaitBoundMs)
        cloud_cv_.wait_for_ms(mu_, kWaitBoundMs);
      if (client_conns_.empty()) {
        note_failure("cloud requests: no request from the workers");
        return;
      }
      target = client_conns_.back();
    }
    if (daemon_.send_cloud_request(text, target, &id) == 0) {
      // No connection open: only between the teardown and the reconnection.
      cloud_unsent_ += 1;
      if (sent_phase < kOrdered) note_failure("cloud request with no connection before the order");
      MutexLock hold(mu_);
      if (phase_.load() < kReconnected) cloud_cv_.wait_for_ms(mu_, 2);
      continue;
    }
    cloud_sent_ += 1;
    CloudReply reply;
    bool answered = false;
    {
      MutexLock hold(mu_);
      const uint32_t wait_start = now_ms();
      for (;;) {
        auto it = replies_.find(id);
        if (it != replies_.end()) {
          reply = it->second;
          answered = true;
          break;
        }
        // A request sent before the handler is registered again may go unanswered once the
        // teardown is ordered; it is waited for until then.
        if (sent_phase != kReregistered && phase_.load() == kReregistered) break;
        int32_t left = kWaitBoundMs - vemo::tick_elapsed(now_ms(), wait_start);
        if (left <= 0) break;
        cloud_cv_.wait_for_ms(mu_, left);
      }
    }
    if (!answered) {
      if (sent_phase == kReregistered || phase_.load() == kBefore) {
        note_failure("cloud request " + std::to_string(id) + ": no reply");
      } else {
        cloud_window_unanswered_ += 1;
      }
      continue;
    }
    cloud_answered_ += 1;
    if (sent_phase == kReregistered) late += 1;
    if (reply.error_code != 0 || !reply.has_response || reply.response != "re:" + text)
      note_failure("cloud request " + std::to_string(id) + ": wrong reply \"" + reply.response + "\"");
  }
  cloud_late_ = late;
}

void Stress::report_and_check(double seconds) {
  auto ms_since_order = [this](Phase p) {
    return std::chrono::duration<double, std::milli>(phase_ms_[p] - phase_ms_[kOrdered]).count();
  };
  printf("stress: %d threads x %d requests in %.2f s (%.0f requests/s)\n", kThreads,
         kRequestsPerThread, seconds, kTotal / seconds);
  printf("  %-30s", "outcome");
  for (int o = 0; o < kOutcomes; ++o) printf(" %20s", kOutcomeNames[o]);
  printf("\n");
  int sum[kOutcomes] = {};
  for (int k = 0; k < kKinds; ++k) {
    printf("  %-30s", kKindNames[k]);
    for (int o = 0; o < kOutcomes; ++o) {
      int n = tally_[k][o].load();
      sum[o] += n;
      printf(" %20d", n);
    }
    printf("\n");
  }
  printf("  %-30s", "all");
  for (int o = 0; o < kOutcomes; ++o) printf(" %20d", sum[o]);
  printf("\n");
  printf("  -2001 polls: %d; ok after the reconnection: %d; connections: %d of the client, %d "
         "accepted\n",
         not_arrived_polls_.load(), ok_after_reconnect_.load(), client_connections(),
         daemon_.connections_seen());
  if (phase_.load() >= kReregistered) {
    printf("  teardown: reconnected %.1f ms and handler registered again %.1f ms after the order\n",
           ms_since_order(kReconnected), ms_since_order(kReregistered));
  }
  printf("  cloud requests: %d sent, %d answered (%d after the new registration), %d unanswered "
         "in the teardown window, %d with no connection open; handler calls %d\n",
         cloud_sent_, cloud_answered_, cloud_late_, cloud_window_unanswered_, cloud_unsent_,
         g_handler_calls.load());
  fflush(stdout);

  {
    MutexLock hold(failure_mu_);
    for (const std::string &f : failures_) ADD_FAILURE() << f;
    EXPECT_EQ(0, failure_count_) << "failed checks in all (first " << failures_.size() << " above)";
  }
  EXPECT_EQ(kTotal, sum[kOk] + sum[kSendDisconnected] + sum[kListGone] + sum[kCallbackLost]);
  EXPECT_EQ(kReregistered, phase_.load()) << "the teardown did not run its course";
  // One teardown, one reconnection: no start-up failed and none was repeated.
  EXPECT_EQ(2, client_connections());
  EXPECT_GT(ok_after_reconnect_.load(), 0);
  EXPECT_GE(cloud_late_, kMinLateCloudReplies);
  MutexLock hold(mu_);
  // Every callback was claimed by its request: none came twice, late or for a failed request.
  EXPECT_TRUE(arrivals_.empty()) << arrivals_.size() << " callbacks nobody waited for, first id "
                                 << arrivals_.begin()->first;
}

// Joins every thread, or fails the test loudly when one hangs: a deadlock must not wait for
// CTest's timeout, and the threads' stacks cannot be abandoned while they run.
class Watchdog {
 public:
  void launch(std::function<void()> body) {
    threads_.emplace_back([this, body] {
      body();
      MutexLock hold(mu_);
      done_ += 1;
      cv_.broadcast();
    });
  }
  void join_all(int bound_ms, const std::function<void()> &on_hang) {
    const uint32_t start = now_ms();
    {
      MutexLock hold(mu_);
      while (done_ < static_cast<int>(threads_.size())) {
        int32_t left = bound_ms - vemo::tick_elapsed(now_ms(), start);
        if (left <= 0) {
          fprintf(stderr, "stress: %d of %zu threads still running after %d ms: deadlock\n",
                  static_cast<int>(threads_.size()) - done_, threads_.size(), bound_ms);
          on_hang();
          fflush(stderr);
          abort();
        }
        cv_.wait_for_ms(mu_, left);
      }
    }
    for (auto &t : threads_) t.join();
  }

 private:
  std::vector<std::thread> threads_;
  Mutex mu_;
  CondVar cv_;
  int done_ GUARDED_BY(mu_) = 0;
};

// The library logs every message it sends and receives: a few hundred thousand lines here.
// They go to a file, kept (and named) only when the test fails.
class LogToFile {
 public:
  LogToFile() {
    snprintf(path_, sizeof path_, "/tmp/vemo_stress_%d.log", static_cast<int>(getpid()));
    // Never closed: a library thread may still be writing when the test ends. The stream stays
    // reachable from the C library's list of open files until exit flushes it.
    file_ = fopen(path_, "w");
    if (file_ != nullptr) vemo::log_set_stream(file_);
  }
  ~LogToFile() {
    vemo::log_set_stream(nullptr);
    if (file_ == nullptr) return;
    fflush(file_);
    if (::testing::Test::HasFailure()) {
      printf("library log kept in %s\n", path_);
    } else {
      unlink(path_);
    }
  }

 private:
  char path_[64];
  FILE *file_ = nullptr;
};

TEST(ClientStress, ThirtyTwoThreadsWithCloudRequestsAndOneTeardown) {
  LogToFile log;
  CloudDaemon daemon(VEMO_SOCKET_PATH);
  Stress stress(daemon);
  g_stress = &stress;
  daemon.set_handler(
      [&stress](CloudDaemon &d, const Received &r) { return stress.on_daemon_message(d, r); });
  ASSERT_EQ(0, daemon.start()) << daemon.last_error();
  ASSERT_EQ(0, vemo_register_callback(cloud_request_cb, nullptr));

  const auto begin = std::chrono::steady_clock::now();
  Watchdog watchdog;
  for (int t = 0; t < kThreads; ++t) watchdog.launch([&stress, t] { stress.worker(t); });
  watchdog.launch([&stress] { stress.conductor(); });
  Watchdog cloud;
  cloud.launch([&stress] { stress.cloud_requests(); });
  watchdog.join_all(kWatchdogMs, [&stress] { stress.dump(); });
  stress.workers_done.store(true);
  cloud.join_all(kWaitBoundMs + 5000, [&stress] { stress.dump(); });
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  stress.report_and_check(seconds);

  // Served again after the teardown, from a fresh thread as well.
  char *response = nullptr;
  EXPECT_EQ(0, vemo_send_request_sync("after the stress", kRequestTimeoutMs, 0, &response));
  EXPECT_STREQ("after the stress", response);
  free(response);
  EXPECT_EQ(2, stress.client_connections());
  daemon.set_handler({});
  g_stress = nullptr;
}

}  // namespace
