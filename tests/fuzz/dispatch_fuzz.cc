// Fuzz entry point for the dispatch of received messages, on a live client.
//
// One client context serves the whole process, so it lives across runs: a fake daemon
// (dispatch_peer.h) serves a private socket path, the client is connected and has a handler
// and the hello pair registered, two asynchronous requests wait in its response list, and two
// holder threads keep a request each (one asynchronous, one synchronous) waiting for its
// acknowledgement. Each run sends a request
// whose acknowledgement the peer writes right after the input's messages (dispatch_input.h), so
// the run ends once the client has read them all; every kAnswerCheckEvery runs a cloud_request
// checks that the handlers still answer. A teardown ordered by the input is followed by a
// registration on a new connection. A client that neither goes on nor closes the connection
// within kReplyWaitMs hangs: the run aborts, so that the fuzzer keeps the input. Every so many
// runs the harness orders a teardown itself, so that what runs leave behind (responses nobody
// collects) stays bounded.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "dispatch_input.h"
#include "dispatch_peer.h"
#include "util/log_internal.h"
#include "vemo/vemo.h"
#include "vemo/vemo_ext.h"

namespace dispatch_fuzz {
namespace {

// Far above any answer time of a live client, also under a sanitizer or an emulator.
constexpr int kReplyWaitMs = 20000;
constexpr int kHoldTimeoutMs = 1000;
constexpr int kPendingRequests = 2;
constexpr int kPendingTimeoutMs = 60000;
constexpr int kRegisterAttempts = 3;
constexpr int kSettleWaitMs = 1000;
constexpr unsigned kTeardownEvery = 500;
constexpr unsigned kAnswerCheckEvery = 64;
constexpr int kFirstSentinel = 1000000000;
constexpr size_t kRecentValues = 8;

void on_cloud_request(const char *request, char **response) {
  // The request's first letter picks what the handler does, so inputs reach every path; the
  // answer is the request itself, whatever bytes it holds, so that the reply's text escapes are
  // exercised too.
  switch (request[0]) {
    case 'n':
      return;  // no answer
    case 'g': {
      char *text = nullptr;
      if (vemo_get_response(5000, &text) == 0) free(text);
      break;
    }
    case 's':  // a request from a handler; the peer refuses it, so nothing stays pending
      vemo_send_request_async("refuse:from a handler", 50, 0, nullptr);
      break;
    case 'r':
      vemo_reconnect_cloud();
      break;
    default:
      break;
  }
  *response = strdup(request);
}

void on_hello_request(char **response) { *response = strdup("hello"); }
void on_hello_response(const char *) {}
const vemo_hello_cloud_cb_t kHello = {on_hello_request, on_hello_response};

// Odd request ids are collected by their callback, even ones by the harness.
void on_response(int id, const char *) {
  char *text = nullptr;
  if (id % 2 != 0 && vemo_get_response(id, &text) == 0) free(text);
}

// The library's latest log lines, kept in memory (writing them all out would cost more than
// the runs) and printed when a run fails.
constexpr size_t kLogRingBytes = 1 << 20;
std::mutex g_log_mu;  // guards the three below (the FILE's own lock is not one a sanitizer sees)
char g_log_ring[kLogRingBytes];
size_t g_log_at = 0;      // where the next byte goes
bool g_log_full = false;  // the ring has wrapped

ssize_t log_ring_write(void *, const char *data, size_t size) {
  std::lock_guard<std::mutex> hold(g_log_mu);
  for (size_t done = 0; done < size;) {
    size_t n = std::min(size - done, kLogRingBytes - g_log_at);
    memcpy(g_log_ring + g_log_at, data + done, n);
    done += n;
    g_log_at += n;
    if (g_log_at == kLogRingBytes) {
      g_log_at = 0;
      g_log_full = true;
    }
  }
  return static_cast<ssize_t>(size);
}

FILE *open_log() {
  // DISPATCH_FUZZ_LOG names a file for every line instead.
  if (const char *path = getenv("DISPATCH_FUZZ_LOG")) return fopen(path, "w");
  cookie_io_functions_t io = {nullptr, log_ring_write, nullptr, nullptr};
  FILE *ring = fopencookie(nullptr, "w", io);
  // Line by line, so that the ring holds the very last lines when a run fails.
  if (ring != nullptr) setvbuf(ring, nullptr, _IOLBF, 0);
  return ring;
}

[[noreturn]] void die(const char *what, int code) {
  fprintf(stderr, "dispatch fuzz: %s, code=%d\n", what, code);
  // The client's threads as they are (DISPATCH_FUZZ_GDB=1, where gdb is installed), then the
  // library's last lines.
  if (getenv("DISPATCH_FUZZ_GDB") != nullptr) {
    std::string command = "gdb -p " + std::to_string(getpid()) + " -batch -ex 'thread apply all bt' 1>&2";
    if (system(command.c_str()) != 0) fprintf(stderr, "dispatch fuzz: gdb failed\n");
  }
  {
    std::lock_guard<std::mutex> hold(g_log_mu);
    if (g_log_full) fwrite(g_log_ring + g_log_at, 1, kLogRingBytes - g_log_at, stderr);
    fwrite(g_log_ring, 1, g_log_at, stderr);
  }
  abort();
}

class Harness {
 public:
  bool start() {
    std::string path = "/tmp/vemo_dispatch_fuzz." + std::to_string(getpid()) + ".sock";
    std::string error;
    if (!peer_.start(path, &error) || vemo_set_socket_path(path.c_str()) != 0) {
      fprintf(stderr, "dispatch fuzz: %s\n", error.c_str());
      return false;
    }
    for (int i = 0; i < kHolders; ++i) holders_[i] = std::thread([this, i] { hold(i); });
    return true;
  }

  // After the client's own exit hook (registered later, so it runs first).
  void stop() {
    {
      std::lock_guard<std::mutex> hold(mu_);
      stopping_ = true;
      changed_.notify_all();
    }
    for (std::thread &t : holders_) t.join();
    peer_.stop();
    fprintf(stderr, "dispatch fuzz: runs=%u connections=%d answer_checks=%u\n", runs_, peer_.connections(),
            answer_checks_);
  }

  void run(const uint8_t *data, size_t size) {
    if (++runs_ % kTeardownEvery == 0) order_teardown();
    ensure_ready();
    Script script = build_script(data, size, known());
    // The frames go out right before the acknowledgement of this call's request: when it comes,
    // the client has read every one of them. The input may acknowledge the request itself (its
    // id is one the input aims at), so the acknowledgement carries a code of this run only;
    // after any other answer, a second request ends the run once everything is read.
    const int code = kSyncAckBase - static_cast<int>(runs_ % 1000000);
    int rc = sync(script.frames, code);
    if (rc != code && rc != VEMO_ERR_DISCONNECTED && rc != VEMO_ERR_NO_SERVER) rc = sync("", code);
    if (rc == VEMO_ERR_DISCONNECTED || rc == VEMO_ERR_NO_SERVER) registered_conn_ = -1;
    // Every kAnswerCheckEvery runs (the first one included), a handler must answer.
    if (runs_ % kAnswerCheckEvery == 1 && handlers_in_place()) handler_answers();
  }

 private:
  // Sends a sync request with frames armed; its result. A hang ends the run.
  int sync(const std::string &frames, int code) {
    peer_.arm(frames, code);
    const auto start = std::chrono::steady_clock::now();
    int rc = vemo_send_request_async(kSyncRequest, kReplyWaitMs, 0, nullptr);
    if (std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(kReplyWaitMs)) {
      die("the client does not read on", rc);
    }
    return rc;
  }

  // The handlers stay registered as long as the connection they were announced on: a teardown
  // the input ordered ends it, and whoever calls next (a holder, or the run's own request) may
  // have made the next one already.
  bool handlers_in_place() const { return peer_.open() && peer_.connections() == registered_conn_; }

  // True when the handler answers a cloud_request, false when the connection closed first.
  bool handler_answers() {
    ++answer_checks_;
    const int id = kFirstSentinel + static_cast<int>(runs_ % kFirstSentinel);
    std::string frame;
    append_frame(&frame, "{\"inner_method\":\"cloud_request\",\"inner_id\":" + std::to_string(id) +
                             ",\"inner_params\":{\"request\":\"check\"}}");
    // Only on the connection the handlers were announced on: a holder may have made a new one
    // since the run's teardown, and that one has no handler (the next run registers).
    peer_.expect_reply(id, registered_conn_);
    bool closed = !peer_.send(frame, registered_conn_);
    if (!closed && !peer_.wait_reply(kReplyWaitMs, &closed) && !closed) {
      die("the handler does not answer", kReplyWaitMs);
    }
    return !closed;
  }

  // A teardown ordered the way the daemon orders it.
  void order_teardown() {
    std::string notify;
    append_frame(&notify, R"({"inner_method":"server_notify","inner_params":{"type":1}})");
    peer_.expect_reply(0);
    bool closed = false;
    if (peer_.send(notify) && !peer_.wait_reply(kReplyWaitMs, &closed) && !closed) {
      die("the client ignores an ordered teardown", kReplyWaitMs);
    }
  }

  void ensure_ready() {
    if (!handlers_in_place()) {
      pending_.clear();
      int rc = -1;
      for (int attempt = 0; attempt < kRegisterAttempts && rc != 0; ++attempt) {
        if (attempt > 0) {
          // A teardown the input ordered may be in its first moments, when a call fails at once
          // (a moment later it would wait for the teardown): retry once it has shut the socket.
          bool closed = false;
          peer_.expect_reply(0);
          peer_.wait_reply(kSettleWaitMs, &closed);
        }
        rc = vemo_register_callback(on_cloud_request, &kHello);
      }
      if (rc != 0) die("the client does not register again", rc);
      registered_conn_ = peer_.connections();
      std::lock_guard<std::mutex> hold(mu_);
      ++generation_;
      changed_.notify_all();
    }
    for (size_t i = 0; i < pending_.size();) {
      char *text = nullptr;
      int rc = vemo_get_response(pending_[i], &text);
      free(text);
      if (rc == VEMO_ERR_NOT_ARRIVED) {
        ++i;
      } else {
        pending_.erase(pending_.begin() + static_cast<long>(i));
      }
    }
    while (pending_.size() < kPendingRequests) {
      int id = vemo_send_request_async("pending", kPendingTimeoutMs, 0, on_response);
      if (id < 0) break;
      pending_.push_back(id);
    }
  }

  Known known() {
    Known k;
    k.held = peer_.held_ids();
    k.pending = pending_;
    std::lock_guard<std::mutex> hold(mu_);
    k.pending.insert(k.pending.end(), recent_.begin(), recent_.end());
    return k;
  }

  // A holder keeps a request waiting for the acknowledgement that the input may give. What the
  // input acknowledges it with becomes a request id that later inputs can aim at.
  void hold(int index) {
    const std::string text = kHoldPrefix + std::to_string(index);
    uint32_t failed_at = UINT32_MAX;
    for (;;) {
      {
        std::unique_lock<std::mutex> hold(mu_);
        // After a failure, the next registration (or a short pause) comes first.
        changed_.wait_for(hold, std::chrono::milliseconds(200),
                          [&] { return stopping_ || (generation_ > 0 && generation_ != failed_at); });
        if (stopping_) return;
        failed_at = UINT32_MAX;
      }
      // Holder 0 sends asynchronous requests, holder 1 synchronous ones: an acknowledgement
      // from the input then makes it wait for a response that the input may give.
      peer_.holder_enters(index);
      int rc = 0;
      if (index == 0) {
        rc = vemo_send_request_async(text.c_str(), kHoldTimeoutMs, 0, nullptr);
      } else {
        char *response = nullptr;
        rc = vemo_send_request_sync(text.c_str(), kHoldTimeoutMs, 0, &response);
        free(response);
      }
      peer_.holder_leaves(index);
      std::lock_guard<std::mutex> hold(mu_);
      if (rc >= 0 && index == 0) {  // a request id (the synchronous call returns 0)
        recent_.push_back(rc);
        if (recent_.size() > kRecentValues) recent_.erase(recent_.begin());
      } else if (rc == VEMO_ERR_DISCONNECTED || rc == VEMO_ERR_NO_SERVER) {
        failed_at = generation_;
      }
    }
  }

  FakePeer peer_;
  std::thread holders_[kHolders];
  // Only the fuzzing thread.
  unsigned runs_ = 0;
  unsigned answer_checks_ = 0;
  int registered_conn_ = -1;  // the connection (by number) the handlers were announced on
  std::vector<int> pending_;
  // mu_ guards these; changed_ is signalled when the harness stops or the client registers.
  std::mutex mu_;
  std::condition_variable changed_;
  bool stopping_ = false;
  uint32_t generation_ = 0;
  std::vector<int> recent_;
};

Harness *g_harness = nullptr;

void stop_harness() { g_harness->stop(); }

}  // namespace
}  // namespace dispatch_fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using dispatch_fuzz::g_harness;
  if (g_harness == nullptr) {
    // The library logs every rejected message: into the ring, printed only when a run fails.
    vemo::log_set_stream(dispatch_fuzz::open_log());
    g_harness = new dispatch_fuzz::Harness();
    if (!g_harness->start()) abort();
    atexit(dispatch_fuzz::stop_harness);
  }
  g_harness->run(data, size);
  return 0;
}
