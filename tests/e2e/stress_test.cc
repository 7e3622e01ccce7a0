// The whole client under load, run under ThreadSanitizer too: 32 application threads send 500
// requests each (synchronous, polled, with a callback then collected, collected inside the
// callback) while the daemon sends cloud requests to the registered handler and, once half of
// all requests are done, orders exactly one teardown. The client must not crash or deadlock;
// every call ends with its echoed response or with what the teardown explains; the client
// reconnects once and serves again, the re-registered handler included.
//
// What the teardown may do, only to a call that began before the client had reconnected and
// ended after the order: -1101 from the request call; and for a request that went over the
// first connection, -2000 when collecting it, or a callback that never comes. A timeout or any
// other code is a lost message: the daemon drops nothing.
#include <stdio.h>
#include <string.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>

#include "support/e2e_fixture.h"

namespace vemo_e2e {
namespace {

constexpr int kThreads = 32;
constexpr int kEach = 500;
constexpr int kTotal = kThreads * kEach;
constexpr int kTimeoutMs = 10000;  // generous: reaching it means a lost message
constexpr int kMinLateCloudReplies = 20;
#if defined(VEMO_SANITIZER_BUILD) || defined(VEMO_EMULATED_TARGET)
constexpr int kWatchdogMs = 80000;
#else
constexpr int kWatchdogMs = 30000;
#endif

enum Phase : int { kBefore, kOrdered, kReconnected, kReregistered };
enum Outcome : int { kOk, kTeardownExplained, kFailed };

struct Arrival {
  int calls = 0;
  std::string text, collected;
  int collect_rc = 1;
};

class Stress : public E2ETest {
 public:
  std::mutex mu_;
  std::condition_variable cv_;  // any change below
  std::atomic<int> phase_{kBefore};
  std::atomic<int> completed_{0}, ok_after_reconnect_{0};
  std::map<std::string, int> conn_of_;  // request tag -> connection it came over
  std::vector<int> client_conns_;       // connections of tagged requests, in order
  std::map<int, Arrival> arrivals_;     // request id -> its callbacks, until the worker takes it
  std::map<int, std::string> replies_;  // cloud request id -> reply
  Strings failures_;

  void fail(const std::string &what) {
    std::lock_guard<std::mutex> hold(mu_);
    failures_.push_back(what);
  }
  void set_phase(Phase p) {
    std::lock_guard<std::mutex> hold(mu_);
    phase_ = p;
    cv_.notify_all();
  }
  template <typename Pred>
  bool wait(std::unique_lock<std::mutex> &hold, Pred pred) {
    return cv_.wait_for(hold, std::chrono::milliseconds(kTimeoutMs), pred);
  }
  // The request went over the first connection, torn down since.
  bool on_first(const std::string &tag) {
    std::lock_guard<std::mutex> hold(mu_);
    return phase_ >= kOrdered && !client_conns_.empty() && conn_of_[tag] == client_conns_.front();
  }
  bool overlapped(int start_phase) { return start_phase < kReconnected && phase_ >= kOrdered; }

  // The daemon's handler: checks the numbers, notes the connection, varies the response delay
  // between 0 and 2 ms, and collects the replies to cloud requests.
  bool OnDaemonMessage(CloudDaemon &d, const Received &r) {
    std::lock_guard<std::mutex> hold(mu_);
    int thread = -1, index = -1;
    if (r.method == "device_request" && sscanf(r.request.c_str(), "t%d-r%d|", &thread, &index) == 2) {
      const std::string tag = r.request.substr(0, r.request.find('|'));
      if (r.flag != index || r.timeout_ms != kTimeoutMs) failures_.push_back(tag + ": flag or timeout changed");
      conn_of_[tag] = r.conn;
      if (client_conns_.empty() || client_conns_.back() != r.conn) client_conns_.push_back(r.conn);
      d.set_response_delay_ms(r.id % 3);
    } else if (r.is_reply() && r.has_id) {
      replies_[r.id] = r.error_code == 0 && r.has_response ? r.response : "<bad reply>";
    }
    cv_.notify_all();
    return false;  // the daemon answers as usual
  }

  void OnResponse(int id, const char *text, bool collect) {
    Arrival a;
    a.text = text;
    if (collect) {  // on a dispatch thread of the library: collecting its own response is allowed
      char *got = nullptr;
      a.collect_rc = vemo_get_response(id, &got);
      if ((a.collect_rc == 0) != (got != nullptr)) fail("get_response: text and result disagree");
      a.collected = got != nullptr ? got : "";
      free(got);
    }
    std::lock_guard<std::mutex> hold(mu_);
    Arrival &slot = arrivals_[id];
    a.calls = slot.calls + 1;
    slot = a;
    cv_.notify_all();
  }

  Outcome Send(int thread, int i);
  void Conductor();
  int CloudRequests();
};

Stress *g_stress = nullptr;
void response_cb(int id, const char *text) { g_stress->OnResponse(id, text, false); }
void collect_cb(int id, const char *text) { g_stress->OnResponse(id, text, true); }
void cloud_cb(const char *request, char **response) { *response = strdup(("re:" + std::string(request)).c_str()); }

// Filler with characters that JSON must escape, of varying length: the echo checks the
// escaping both ways.
std::string make_request(int thread, int i) {
  static const char kFiller[] = "abc \"q\" \\ / \t\xC3\xA9 xyz {}[]:,";
  std::string text = "t" + std::to_string(thread) + "-r" + std::to_string(i) + "|";
  for (int n = 0; n < (i * 37 + thread * 11) % 700; ++n) text += kFiller[n % (sizeof kFiller - 1)];
  return text;
}

Outcome Stress::Send(int thread, int i) {
  const std::string request = make_request(thread, i), tag = request.substr(0, request.find('|'));
  const int start_phase = phase_, kind = (thread + i) % 4;
  char *got = nullptr;
  int rc = 0;
  if (kind == 0) {
    rc = vemo_send_request_sync(request.c_str(), kTimeoutMs, i, &got);
  } else {
    const int id = vemo_send_request_async(request.c_str(), kTimeoutMs, i,
                                           kind == 1 ? nullptr : kind == 2 ? response_cb : collect_cb);
    rc = id < 0 ? id : 0;
    if (id >= 0 && kind == 1) {  // polled, as an application without a callback does
      eventually([&] { return (rc = vemo_get_response(id, &got)) != VEMO_ERR_NOT_ARRIVED; }, kTimeoutMs);
    } else if (id >= 0) {
      Arrival a;
      {
        std::unique_lock<std::mutex> hold(mu_);
        const bool told = wait(hold, [&] {
          return arrivals_.count(id) > 0 || (phase_ >= kReconnected && !client_conns_.empty() &&
                                             conn_of_[tag] == client_conns_.front());
        });
        if (!told || arrivals_.count(id) == 0) {
          hold.unlock();
          if (told && on_first(tag)) return kTeardownExplained;  // its callback never comes
          fail(tag + ": no callback");
          return kFailed;
        }
        a = arrivals_[id];
        arrivals_.erase(id);
      }
      if (a.calls != 1 || a.text != request) fail(tag + ": callback called " + std::to_string(a.calls) + " times or wrong");
      if (kind == 2) rc = vemo_get_response(id, &got);
      if (kind == 3) {
        rc = a.collect_rc;
        got = rc == 0 ? strdup(a.collected.c_str()) : nullptr;
      }
    }
  }
  const std::string text = got != nullptr ? got : "";
  free(got);
  if (rc == 0 && text == request) {
    if (start_phase >= kReconnected) ++ok_after_reconnect_;
    return kOk;
  }
  if (rc == VEMO_ERR_DISCONNECTED && overlapped(start_phase)) return kTeardownExplained;
  if (rc == VEMO_ERR_NOT_FOUND && overlapped(start_phase) && on_first(tag)) return kTeardownExplained;
  fail(tag + ": kind " + std::to_string(kind) + " code " + std::to_string(rc) + " in phase " + std::to_string(phase_));
  return kFailed;
}

void Stress::Conductor() {
  std::unique_lock<std::mutex> hold(mu_);
  if (!cv_.wait_for(hold, std::chrono::milliseconds(kWatchdogMs), [this] { return completed_ >= kTotal / 2; }))
    return failures_.push_back("half of the requests not done in time");
  const int first = client_conns_.front();
  hold.unlock();
  set_phase(kOrdered);
  if (daemon_.send_server_notify(1, first) != 1) fail("the order was not sent");
  // The reconnected client's first request also tells that the first client is gone for good:
  // a client starts only once the last one is torn down.
  hold.lock();
  if (!wait(hold, [this] { return client_conns_.size() >= 2; })) return failures_.push_back("no reconnection");
  hold.unlock();
  set_phase(kReconnected);
  if (vemo_register_callback(cloud_cb, nullptr) != 0) fail("registering again failed");  // the teardown forgot it
  set_phase(kReregistered);
}

// Cloud requests to the workers' current connection until the workers are done and enough went
// to the re-registered handler; those sent inside the teardown window may go unanswered.
int Stress::CloudRequests() {
  int late = 0;
  for (int n = 0; completed_ < kTotal || (late < kMinLateCloudReplies && phase_ == kReregistered); ++n) {
    const std::string text = "cloud-" + std::to_string(n) + " \"x\" \\ y";
    const int sent_phase = phase_;
    std::unique_lock<std::mutex> hold(mu_);
    if (!wait(hold, [this] { return !client_conns_.empty(); })) return late;
    const int conn = client_conns_.back();
    hold.unlock();
    int id = 0;
    if (daemon_.send_cloud_request(text, conn, &id) == 0) {  // only between the order and the reconnection
      if (sent_phase < kOrdered) fail("no connection for a cloud request before the order");
      hold.lock();
      cv_.wait_for(hold, std::chrono::milliseconds(2));
      continue;
    }
    hold.lock();
    const bool answered = wait(hold, [&] { return replies_.count(id) > 0 || (sent_phase != kReregistered && phase_ == kReregistered); });
    if (answered && replies_.count(id) > 0) {
      if (replies_[id] != "re:" + text) failures_.push_back("cloud request " + std::to_string(id) + ": wrong reply");
      late += sent_phase == kReregistered;
    } else if (sent_phase == kReregistered || phase_ == kBefore) {
      failures_.push_back("cloud request " + std::to_string(id) + ": no reply");
    }
  }
  return late;
}

TEST_F(Stress, ThirtyTwoThreadsWithCloudRequestsAndOneTeardown) {
  g_stress = this;
  daemon_.set_handler([this](CloudDaemon &d, const Received &r) { return OnDaemonMessage(d, r); });
  ASSERT_EQ(0, vemo_register_callback(cloud_cb, nullptr));
  std::vector<std::future<std::array<int, 3>>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [this, t] {
      std::array<int, 3> tally = {};
      for (int i = 0; i < kEach; ++i) {
        ++tally[Send(t, i)];
        if (++completed_ == kTotal / 2) {
          std::lock_guard<std::mutex> hold(mu_);
          cv_.notify_all();
        }
      }
      return tally;
    }));
  }
  std::future<void> conductor = std::async(std::launch::async, [this] { Conductor(); });
  std::future<int> cloud = std::async(std::launch::async, [this] { return CloudRequests(); });
  std::array<int, 3> sum = {};
  for (auto &w : workers) {
    const std::array<int, 3> tally = FinishOrDie(w, kWatchdogMs, "a request thread");
    for (int o = 0; o < 3; ++o) sum[o] += tally[o];
  }
  FinishOrDie(conductor, kWatchdogMs, "the conductor");
  const int late = FinishOrDie(cloud, kWatchdogMs, "the cloud requests");
  printf("stress: %d ok, %d explained by the teardown, %d failed; %d ok after the reconnection, %d late cloud replies\n",
         sum[kOk], sum[kTeardownExplained], sum[kFailed], ok_after_reconnect_.load(), late);

  std::lock_guard<std::mutex> hold(mu_);
  EXPECT_EQ(Strings{}, Strings(failures_.begin(), failures_.begin() + std::min<size_t>(failures_.size(), 30)));
  EXPECT_EQ(0, sum[kFailed]);
  EXPECT_EQ(kReregistered, phase_.load()) << "the teardown did not run its course";
  EXPECT_EQ(2u, client_conns_.size()) << "no start-up may fail or repeat";
  EXPECT_GT(ok_after_reconnect_.load(), 0);
  EXPECT_GE(late, kMinLateCloudReplies);
  EXPECT_TRUE(arrivals_.empty()) << "callbacks nobody waited for: twice, late or for a failed request";
  daemon_.set_handler(nullptr);
  char *response = nullptr;
  EXPECT_EQ(0, vemo_send_request_sync("after the stress", kTimeoutMs, 0, &response));
  EXPECT_STREQ("after the stress", response);
  free(response);
  g_stress = nullptr;
}

}  // namespace
}  // namespace vemo_e2e
