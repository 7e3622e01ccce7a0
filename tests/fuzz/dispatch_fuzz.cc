// Fuzz entry point for the dispatch of received messages, on a live client that lives across
// runs (one client context serves the process). The peer is the reference daemon's in-process
// twin on a private path. The client has its handler and hello pair registered, two asynchronous
// requests in its response list, and two holder threads with a request each (one asynchronous,
// one synchronous) waiting for its acknowledgement. Each run's "sync" request is acknowledged
// right after the input's messages, so the run ends once the client has read them all. A teardown the
// input orders (often: inputs find it quickly, and it bounds what runs leave behind) is followed
// by a registration on a new connection. A client that neither goes on nor closes the connection
// within kReplyWaitMs hangs: the run aborts, so that the fuzzer keeps the input.
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
#include "util/log_internal.h"
#include "vemo/vemo.h"
#include "vemo/vemo_ext.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace dispatch_fuzz {
namespace {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

// kReplyWaitMs: far above any answer time of a live client, also under a sanitizer or an emulator.
constexpr int kReplyWaitMs = 20000, kSettleWaitMs = 1000, kRegisterAttempts = 3;
constexpr int kHoldTimeoutMs = 1000, kPendingRequests = 2, kPendingTimeoutMs = 60000;
constexpr size_t kRecentValues = 8;

void on_cloud_request(const char *request, char **response) {
  // The request's first letter picks what the handler does, so inputs reach every path; the
  // answer is the request itself, whatever bytes it holds, so that the reply's text escapes are
  // exercised too.
  char *text = nullptr;
  switch (request[0]) {
    case 'n': return;  // no answer
    case 'g': if (vemo_get_response(5000, &text) == 0) free(text); break;
    case 's': vemo_send_request_async("refuse:from a handler", 50, 0, nullptr); break;
    case 'r': vemo_reconnect_cloud(); break;
    default: break;
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

[[noreturn]] void die(const char *what, int code) {
  fprintf(stderr, "dispatch fuzz: %s, code=%d (DISPATCH_FUZZ_LOG=<file> keeps the library's lines)\n", what, code);
  abort();
}

// The harness and the daemon's end. The twin acknowledges requests with fresh request ids and
// sends no responses; its handler takes the harness's own requests (dispatch_input.h).
// Connections are followed through its trace lines ("connected N", "disconnected N (...)"); the
// client has one at a time. The twin's handler and trace run on its thread, so mu_ is never held
// while calling the twin or the client.
class Harness {
 public:
  bool start() {
    const std::string path = "/tmp/vemo_dispatch_fuzz." + std::to_string(getpid()) + ".sock";
    daemon_ = std::make_unique<CloudDaemon>(path);
    daemon_->set_keep_log(false);
    daemon_->set_drop_response(true);
    daemon_->set_next_request_id(5000);
    daemon_->set_log_sink([this](const std::string &line) { trace(line); });
    daemon_->set_handler([this](CloudDaemon &d, const Received &m) { return handle(d, m); });
    if (daemon_->start() != 0 || vemo_set_socket_path(path.c_str()) != 0) return fprintf(stderr, "dispatch fuzz: cannot serve %s\n", path.c_str()), false;
    for (int i = 0; i < kHolders; ++i) holders_[i] = std::thread([this, i] { hold(i); });
    return true;
  }

  // After the client's own exit hook (registered later, so it runs first).
  void stop() {
    {
      std::lock_guard<std::mutex> hold(mu_);
      stopping_ = true, changed_.notify_all();
    }
    for (std::thread &t : holders_) t.join();
    daemon_->stop();
    fprintf(stderr, "dispatch fuzz: runs=%u connections=%d\n", runs_, connections_);
  }

  void run(const uint8_t *data, size_t size) {
    ++runs_;
    ensure_ready();
    Known known;
    {
      std::lock_guard<std::mutex> hold(mu_);
      for (int h = 0; h < kHolders; ++h)
        if (holding_[h] && held_[h] != 0) known.held.push_back(held_[h]);
      known.pending = pending_;
      known.pending.insert(known.pending.end(), recent_.begin(), recent_.end());
    }
    // The frames go out right before the acknowledgement of this call's request: when it comes,
    // the client has read every one of them. The input may acknowledge the request itself (its
    // id is one the input aims at), so the acknowledgement carries a code of this run only;
    // after any other answer, a second request ends the run once everything is read.
    const int code = kSyncAckBase - static_cast<int>(runs_ % 1000000);
    int rc = sync(build_script(data, size, known).frames, code);
    if (rc != code && rc != VEMO_ERR_DISCONNECTED && rc != VEMO_ERR_NO_SERVER) rc = sync("", code);
    if (rc == VEMO_ERR_DISCONNECTED || rc == VEMO_ERR_NO_SERVER) registered_conn_ = -1;
  }

 private:
  // Sends a sync request with frames armed; its result. A hang ends the run.
  int sync(const std::string &frames, int code) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      armed_ = frames, armed_code_ = code;
    }
    const auto start = std::chrono::steady_clock::now();
    int rc = vemo_send_request_async(kSyncRequest, kReplyWaitMs, 0, nullptr);
    if (std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(kReplyWaitMs)) die("the client does not read on", rc);
    return rc;
  }

  // The handlers stay registered as long as the connection they were announced on: a teardown
  // the input ordered ends it, and whoever calls next (a holder, or the run's own request) may
  // have made the next one already.
  bool handlers_in_place() {
    std::lock_guard<std::mutex> hold(mu_);
    return current_ >= 0 && connections_ == registered_conn_;
  }

  // Waits until the current connection closes (or is replaced), for at most timeout_ms.
  void wait_closed(int timeout_ms) {
    std::unique_lock<std::mutex> hold(mu_);
    const int conn = current_;
    changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] { return current_ < 0 || current_ != conn; });
  }

  void ensure_ready() {
    if (!handlers_in_place()) {
      pending_.clear();
      int rc = -1;
      for (int attempt = 0; attempt < kRegisterAttempts && rc != 0; ++attempt) {
        if (attempt > 0) {
          // A teardown the input ordered may be in its first moments, when a call fails at once
          // (a moment later it would wait for the teardown): retry once it has shut the socket.
          wait_closed(kSettleWaitMs);
        }
        rc = vemo_register_callback(on_cloud_request, &kHello);
      }
      if (rc != 0) die("the client does not register again", rc);
      std::lock_guard<std::mutex> hold(mu_);
      registered_conn_ = connections_;
      ++generation_;
      changed_.notify_all();
    }
    pending_.erase(std::remove_if(pending_.begin(), pending_.end(), [](int id) {
      char *text = nullptr;
      const int rc = vemo_get_response(id, &text);
      return free(text), rc != VEMO_ERR_NOT_ARRIVED;
    }), pending_.end());
    while (pending_.size() < kPendingRequests) {
      int id = vemo_send_request_async("pending", kPendingTimeoutMs, 0, on_response);
      if (id < 0) break;
      pending_.push_back(id);
    }
  }

  // A holder keeps a request waiting for the acknowledgement that the input may give; while it
  // waits in its call, the message id is offered to the input (one between two calls has none:
  // waiting for it would cost a round trip in many runs). What the input acknowledges it with
  // becomes a request id that later inputs can aim at.
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
        holding_[index] = true;
        held_[index] = 0;
      }
      // Holder 0 sends asynchronous requests, holder 1 synchronous ones: an acknowledgement
      // from the input then makes it wait for a response that the input may give.
      char *response = nullptr;
      const int rc = index == 0 ? vemo_send_request_async(text.c_str(), kHoldTimeoutMs, 0, nullptr)
                                : vemo_send_request_sync(text.c_str(), kHoldTimeoutMs, 0, &response);
      free(response);
      std::lock_guard<std::mutex> hold(mu_);
      holding_[index] = false;
      held_[index] = 0;
      if (rc >= 0 && index == 0) {  // a request id (the synchronous call returns 0)
        recent_.push_back(rc);
        if (recent_.size() > kRecentValues) recent_.erase(recent_.begin());
      } else if (rc == VEMO_ERR_DISCONNECTED || rc == VEMO_ERR_NO_SERVER) {
        failed_at = generation_;
      }
    }
  }

  // On the twin's thread.
  void trace(const std::string &line) {
    int conn = 0;
    std::lock_guard<std::mutex> hold(mu_);
    if (sscanf(line.c_str(), "connected %d", &conn) == 1) {
      current_ = connections_ = conn;
    } else if (sscanf(line.c_str(), "disconnected %d", &conn) == 1 && conn == current_) {
      current_ = -1;
      armed_.clear();
      for (int &id : held_) id = 0;
    }
    changed_.notify_all();
  }
  bool handle(CloudDaemon &d, const Received &m) {
    const std::string ack = "{\"inner_id\":" + std::to_string(m.id) + ",\"inner_error_code\":";
    std::unique_lock<std::mutex> hold(mu_);
    if (m.method != "device_request" || !m.has_request || !m.has_id) return false;
    if (m.request.rfind(kHoldPrefix, 0) == 0) {
      const int holder = atoi(m.request.c_str() + strlen(kHoldPrefix));
      if (holder >= 0 && holder < kHolders && holding_[holder]) held_[holder] = m.id;
      return true;
    }
    if (m.request == kSyncRequest) {
      std::string frames;
      frames.swap(armed_);
      const int code = armed_code_;
      hold.unlock();
      d.send_bytes(frames, m.conn);
      d.send_text(ack + std::to_string(code) + "}", m.conn);
      return true;
    }
    hold.unlock();
    if (m.request.rfind(kRefusePrefix, 0) != 0) return false;
    d.send_text(ack + "-5}", m.conn);
    return true;
  }

  std::unique_ptr<CloudDaemon> daemon_;
  std::thread holders_[kHolders];
  // Only the fuzzing thread.
  unsigned runs_ = 0;
  std::vector<int> pending_;
  int registered_conn_ = -1;  // the connection (by number) the handlers were announced on
  // mu_ guards the rest; changed_ is signalled whenever a waiter may be done.
  std::mutex mu_;
  std::condition_variable changed_;
  bool stopping_ = false;
  uint32_t generation_ = 0;  // registrations so far
  std::vector<int> recent_;
  int current_ = -1, connections_ = 0;  // the open connection's number (-1: none); how many so far
  std::string armed_;
  int armed_code_ = kSyncAckBase;
  int held_[kHolders] = {0};  // the message id of holder h's request, while holding_[h]
  bool holding_[kHolders] = {false};
};

Harness *g_harness = nullptr;

void stop_harness() { g_harness->stop(); }

}  // namespace
}  // namespace dispatch_fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using dispatch_fuzz::g_harness;
  if (g_harness == nullptr) {
    // The library logs every rejected message; DISPATCH_FUZZ_LOG names a file to keep them in.
    const char *log = getenv("DISPATCH_FUZZ_LOG");
    vemo::log_set_stream(fopen(log != nullptr ? log : "/dev/null", "w"));
    g_harness = new dispatch_fuzz::Harness();
    if (!g_harness->start()) abort();
    atexit(dispatch_fuzz::stop_harness);
  }
  g_harness->run(data, size);
  return 0;
}
