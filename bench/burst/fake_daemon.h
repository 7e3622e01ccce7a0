// The fake daemon of vemo_burst: the transport's framing and the daemon's answers, written from
// scratch on a non-blocking socket so that it can write a burst without reading.
#ifndef VEMO_BENCH_BURST_FAKE_DAEMON_H
#define VEMO_BENCH_BURST_FAKE_DAEMON_H

#include <cjson/cJSON.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace burst {

using Clock = std::chrono::steady_clock;

// What the daemon, the application's handlers and the scenario count. All guarded by mu;
// waiters are woken only when something they wait for may have happened.
struct Tally {
  std::mutex mu;
  std::condition_variable changed;
  int expected = 0;  // answers that end the burst: replies (A) or response callbacks (B)
  int answered = 0;  // ids answered once, with the right text
  int bad = 0;       // a duplicate, an unknown id, a wrong text, a failed collection
  int handler_syncs = 0;         // vemo_send_request_sync calls in handlers that returned 0
  bool burst_started = false;    // the first piece of the burst is on the socket
  bool sync_done = false;        // the request sent during the burst has returned
  int sync_rc = 0;
  long sync_ms = 0;

  template <typename Change>  // change returns whether to wake the waiters
  void update(Change change) {
    std::lock_guard<std::mutex> hold(mu);
    if (change(*this)) changed.notify_all();
  }
  template <typename Pred>
  bool wait_until(Clock::time_point deadline, Pred pred) {
    std::unique_lock<std::mutex> hold(mu);
    return changed.wait_until(hold, deadline, [&] { return pred(*this); });
  }
  void count_answer(bool good) {
    update([good](Tally &t) {
      ++(good ? t.answered : t.bad);
      return t.answered + t.bad == t.expected;
    });
  }
};

// One client connection served by one thread that never blocks. It answers as the daemon does,
// except that it writes its burst (count cloud_requests, or the held response notifications of
// the requests whose text starts with kHeldPrefix) in one go without reading. Its thread's every
// wait ends at the deadline.
class FakeDaemon {
 public:
  static constexpr const char *kHeldPrefix = "held:";

  FakeDaemon(Tally *tally, bool cloud_requests, int count, Clock::time_point deadline)
      : tally_(tally), cloud_requests_(cloud_requests), count_(count), deadline_(deadline) {
    // What the burst needs is allocated before the scenario takes its RSS baseline; the burst
    // goes out in pieces, as the daemon shares the process (and the RSS) with the client.
    chunk_.reserve(kChunkBytes + 256);
    if (cloud_requests) seen_.assign(static_cast<size_t>(count) + 1, 0);
    if (!cloud_requests) held_.reserve(static_cast<size_t>(count));
  }
  ~FakeDaemon() { stop(); }

  bool listen(const std::string &path, std::string *error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A file at the path is left alone: it may be a daemon that someone else runs.
    if (path.size() < sizeof address.sun_path) memcpy(address.sun_path, path.c_str(), path.size());
    bool ok = path.size() < sizeof address.sun_path && listen_fd_ >= 0 &&
              pipe2(wake_, O_CLOEXEC | O_NONBLOCK) == 0 &&
              bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
              ::listen(listen_fd_, 4) == 0;
    if (!ok) *error = "cannot serve " + path + ": " + strerror(errno);
    if (ok) path_ = path;
    return ok;
  }
  void start() { thread_ = std::thread([this] { serve(); }); }
  void start_burst() { command(&burst_requested_); }
  void stop() {  // also when the client hangs: the thread never blocks for long
    if (thread_.joinable()) {
      command(&stop_requested_);
      thread_.join();
    }
    for (int *fd : {&conn_, &listen_fd_, &wake_[0], &wake_[1]}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
    if (!path_.empty()) unlink(path_.c_str());
    path_.clear();
  }
  std::string failure;  // why the thread ended early; read after stop()

 private:
  static constexpr size_t kHeader = 6;
  static constexpr size_t kChunkBytes = 64 * 1024;
  static constexpr size_t kMaxFrame = 1 << 20;  // nothing the client sends here comes near it

  void command(std::atomic<bool> *flag) {
    flag->store(true);
    // A full pipe already holds a wake-up, after which the flag is seen.
    if (write(wake_[1], "x", 1) < 0) return;
  }
  bool fail(const char *why, bool with_errno = true) {
    failure = std::string(why) + (with_errno ? std::string(": ") + strerror(errno) : "");
    return false;
  }

  // Waits for events on the connection (the listening socket before it); false at the
  // deadline and on a command, which the caller then looks at.
  bool wait_for(short events) {
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
      if (stop_requested_.load() || burst_requested_.load()) return false;
      if (left <= 0) return fail("the daemon's deadline passed", false);
      pollfd fds[2] = {{conn_ >= 0 ? conn_ : listen_fd_, events, 0}, {wake_[0], POLLIN, 0}};
      int n = poll(fds, 2, static_cast<int>(left));
      if (n < 0 && errno != EINTR) return fail("poll");
      char drain[64];
      while (n > 0 && (fds[1].revents & POLLIN) && read(wake_[0], drain, sizeof drain) > 0) {
      }
      if (n > 0 && fds[0].revents != 0) return true;
    }
  }

  bool send_all(const char *data, size_t size) {  // writability only: the burst must not read
    while (size > 0) {
      ssize_t sent = send(conn_, data, size, MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN && errno != EINTR) return fail("send");
      if (sent < 0 && !wait_for(POLLOUT)) return false;
      if (sent > 0) {
        data += sent;
        size -= static_cast<size_t>(sent);
      }
    }
    return true;
  }

  static void frame(std::string *out, const char *json) {
    size_t n = strlen(json);
    const char header[kHeader] = {'\xA1', '\xB2', static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                                  static_cast<char>(n >> 8), static_cast<char>(n)};
    out->append(header, kHeader).append(json, n);
  }
  static void notification(std::string *out, int id) {
    char json[128];
    snprintf(json, sizeof json, R"({"inner_error_code":0,"inner_result":{"id":%d,"response":"resp:%d"}})", id, id);
    frame(out, json);
  }

  bool write_burst() {
    if (!send_all(out_.data(), out_.size())) return false;
    out_.clear();
    for (bool more = true; more;) {
      chunk_.clear();
      while (chunk_.size() < kChunkBytes && (more = next_ < (cloud_requests_ ? count_ : int(held_.size())))) {
        char json[128];
        snprintf(json, sizeof json,
                 R"({"inner_method":"cloud_request","inner_id":%d,"inner_params":{"request":"burst"}})", next_ + 1);
        if (cloud_requests_) frame(&chunk_, json);
        if (!cloud_requests_) notification(&chunk_, held_[size_t(next_)]);
        ++next_;
      }
      if (!send_all(chunk_.data(), chunk_.size())) return false;
      tally_->update([](Tally &t) {
        bool first = !t.burst_started;
        t.burst_started = true;
        return first;
      });
    }
    return true;
  }

  void handle(const char *text) {
    cJSON *root = cJSON_Parse(text);
    const cJSON *id = cJSON_GetObjectItem(root, "inner_id");
    const char *method = cJSON_GetStringValue(cJSON_GetObjectItem(root, "inner_method"));
    char json[128];
    if (method != nullptr && cJSON_IsNumber(id)) {  // acknowledge; a device_request gets a request id
      int request_id = strcmp(method, "device_request") == 0 ? next_request_id_++ : 0;
      const char *request = cJSON_GetStringValue(
          cJSON_GetObjectItem(cJSON_GetObjectItem(root, "inner_params"), "request"));
      snprintf(json, sizeof json, request_id > 0 ? R"({"inner_id":%d,"inner_error_code":0,"inner_result":{"id":%d}})"
                                                 : R"({"inner_id":%d,"inner_error_code":0})",
               id->valueint, request_id);
      frame(&out_, json);
      bool held = request != nullptr && strncmp(request, kHeldPrefix, strlen(kHeldPrefix)) == 0;
      if (request_id > 0 && held) held_.push_back(request_id);
      if (request_id > 0 && !held) notification(&out_, request_id);
    } else {  // the reply to a cloud_request: once per id, with code 0 and a response
      const cJSON *code = cJSON_GetObjectItem(root, "inner_error_code");
      int n = cJSON_IsNumber(id) ? id->valueint : 0;
      bool good = method == nullptr && cJSON_IsNumber(code) && code->valueint == 0 && n >= 1 &&
                  size_t(n) < seen_.size() && !seen_[size_t(n)] &&
                  cJSON_GetStringValue(cJSON_GetObjectItem(cJSON_GetObjectItem(root, "inner_result"), "response"));
      if (good) seen_[size_t(n)] = 1;
      tally_->count_answer(good);
    }
    cJSON_Delete(root);
  }

  bool read_frames() {
    char buffer[64 * 1024];
    ssize_t got = recv(conn_, buffer, sizeof buffer, 0);
    if (got == 0) return fail("the client closed the connection", false);
    if (got < 0) return errno == EAGAIN || errno == EINTR || fail("recv");
    in_.append(buffer, size_t(got));
    size_t at = 0;
    for (; in_.size() - at >= kHeader; at += kHeader) {
      auto *h = reinterpret_cast<const unsigned char *>(in_.data() + at);
      size_t n = size_t{h[2]} << 24 | size_t{h[3]} << 16 | size_t{h[4]} << 8 | h[5];
      if (h[0] != 0xA1 || h[1] != 0xB2 || n > kMaxFrame) return fail("a malformed frame", false);
      if (in_.size() - at < kHeader + n) break;
      handle(std::string(in_, at + kHeader, n).c_str());
      at += n;
    }
    in_.erase(0, at);
    return true;
  }

  void serve() {
    if (!wait_for(POLLIN)) return;
    conn_ = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (conn_ < 0) {
      fail("accept");
      return;
    }
    frame(&out_, R"({"inner_method":"server_notify","inner_params":{"type":0}})");
    while (!stop_requested_.load()) {
      if (burst_requested_.exchange(false) && !write_burst()) return;
      ssize_t sent = out_.empty() ? 0 : send(conn_, out_.data(), out_.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN && errno != EINTR) {
        fail("send");
        return;
      }
      if (sent > 0) out_.erase(0, size_t(sent));
      if (wait_for(static_cast<short>(POLLIN | (out_.empty() ? 0 : POLLOUT))) && !read_frames()) return;
      if (!failure.empty()) return;
    }
  }

  Tally *const tally_;
  const bool cloud_requests_;
  const int count_;
  const Clock::time_point deadline_;
  std::string path_;
  int listen_fd_ = -1, conn_ = -1, wake_[2] = {-1, -1};
  std::atomic<bool> stop_requested_{false}, burst_requested_{false};
  std::thread thread_;
  // Only the daemon's thread touches these while it runs.
  std::string in_, out_, chunk_;
  int next_ = 0;  // how much of the burst is written
  int next_request_id_ = 1;
  std::vector<int> held_;            // request ids whose notification waits for the burst
  std::vector<unsigned char> seen_;  // cloud_request ids answered
};

}  // namespace burst

#endif  // VEMO_BENCH_BURST_FAKE_DAEMON_H
