// The application's side of the soak: the senders, the handler, and the timing of every call.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "soak.h"
#include "vemo/vemo.h"

namespace soak {
namespace {

const Clock::time_point g_program_start = Clock::now();

// The senders' timeouts: short ones meet the faults often, the long one rides them out.
constexpr int kTimeoutsMs[] = {100, 300, 1000};
// After a failed call a sender pauses this long, as an application would before it tries again:
// while the daemon is away every call fails at once, and the senders would only spin.
constexpr auto kPauseAfterFailure = std::chrono::milliseconds(10);

}  // namespace

void Calls::begin(int slot, const char *what, int timeout_ms) {
  slots_[slot].what = what;
  slots_[slot].timeout_ms.store(timeout_ms);
  slots_[slot].started_ms.store(ms_since(g_program_start));
}

long Calls::end(int slot, int rc) {
  Slot &s = slots_[slot];
  const long took = ms_since(g_program_start) - s.started_ms.exchange(-1);
  const long overrun = took - s.timeout_ms.load();
  calls_.fetch_add(1);
  if (overrun > slack_ms_) late_.fetch_add(1);
  if (rc >= 0) succeeded_.fetch_add(1);
  std::lock_guard<std::mutex> hold(mu_);
  if (overrun > worst_overrun_.load()) {
    worst_overrun_.store(overrun);
    worst_call_ = std::string(s.what) + "/" + std::to_string(s.timeout_ms.load()) + "ms/took " +
                  std::to_string(took) + "/rc " + std::to_string(rc) + "/" + event_.load();
  }
  if (rc >= 0) return took;
  auto it = std::find_if(codes_.begin(), codes_.end(), [rc](const std::pair<int, long> &c) { return c.first == rc; });
  if (it == codes_.end()) {
    codes_.emplace_back(rc, 1);
  } else {
    ++it->second;
  }
  return took;
}

long Calls::worst_running_overrun() const {
  const long now = ms_since(g_program_start);
  long worst = -1000000;
  for (const Slot &s : slots_) {
    long started = s.started_ms.load();
    if (started >= 0) worst = std::max(worst, now - started - s.timeout_ms.load());
  }
  return worst;
}

std::string Calls::failures() const {
  std::vector<std::pair<int, long>> codes;
  {
    std::lock_guard<std::mutex> hold(mu_);
    codes = codes_;
  }
  std::sort(codes.begin(), codes.end(), [](const auto &a, const auto &b) { return a.second > b.second; });
  std::string out;
  for (const auto &c : codes) out += (out.empty() ? "" : ",") + std::to_string(c.first) + ":" + std::to_string(c.second);
  return out.empty() ? "none" : out;
}

std::string Calls::worst_call() const {
  std::lock_guard<std::mutex> hold(mu_);
  return worst_call_;
}

void on_cloud_request(const char *request, char **response) { *response = strdup(request); }

std::atomic<long> Senders::async_responses_{0};

void Senders::on_response(int id, const char *) {
  async_responses_.fetch_add(1);
  // Collected at once, so that the list does not hold it until its timeout.
  char *text = nullptr;
  if (vemo_get_response(id, &text) == 0) free(text);
}

void Senders::start() {
  for (int i = 0; i < kSenders; ++i) threads_[i] = std::thread([this, i] { run(i); });
}

void Senders::stop() {
  stop_.store(true);
  for (std::thread &t : threads_) {
    if (t.joinable()) t.join();
  }
}

// Sender index alternates synchronous and asynchronous requests. The daemon answers each with
// its own text, so a synchronous call that returns another request's response is caught.
void Senders::run(int index) {
  for (long n = 0; !stop_.load(); ++n) {
    const int timeout = kTimeoutsMs[(n / 2 + index) % 3];
    const std::string text = "t" + std::to_string(index) + "-" + std::to_string(n);
    int rc = 0;
    calls_->begin(index, n % 2 == 0 ? "sync" : "async", timeout);
    if (n % 2 == 0) {
      char *response = nullptr;
      rc = vemo_send_request_sync(text.c_str(), timeout, 0, &response);
      calls_->end(index, rc);
      if (rc == 0 && (response == nullptr || text != response)) calls_->count_wrong_response();
      free(response);
    } else {
      rc = vemo_send_request_async(text.c_str(), timeout, 0, on_response);
      calls_->end(index, rc);
    }
    if (rc < 0) std::this_thread::sleep_for(kPauseAfterFailure);
  }
}

}  // namespace soak
