#include "dispatch_peer.h"

#include <cjson/cJSON.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

namespace dispatch_fuzz {
namespace {

constexpr size_t kHeader = 6;
// The client's own messages are small; anything larger means the stream is out of step.
constexpr size_t kMaxClientFrame = 1 << 20;
constexpr const char kGreeting[] = R"({"inner_method":"server_notify","inner_params":{"type":0}})";

const char *text_of(const cJSON *object, const char *name) {
  return cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
}

}  // namespace

void append_frame(std::string *out, const std::string &payload) {
  const size_t n = payload.size();
  const char header[kHeader] = {'\xA1', '\xB2', static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                                static_cast<char>(n >> 8), static_cast<char>(n)};
  out->append(header, kHeader).append(payload);
}

bool FakePeer::start(const std::string &path, std::string *error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    *error = "socket path too long";
    return false;
  }
  memcpy(address.sun_path, path.c_str(), path.size());
  unlink(path.c_str());  // our own path: a stale file is left from an earlier run of this pid
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  bool ok = listen_fd_ >= 0 && pipe2(wake_, O_CLOEXEC | O_NONBLOCK) == 0 &&
            bind(listen_fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
            listen(listen_fd_, 4) == 0;
  if (!ok) {
    *error = "cannot serve " + path + ": " + strerror(errno);
    return false;
  }
  path_ = path;
  thread_ = std::thread([this] { serve(); });
  return true;
}

void FakePeer::stop() {
  if (thread_.joinable()) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      stop_ = true;
    }
    wake();
    thread_.join();
  }
  close_conn();
  for (int *fd : {&listen_fd_, &wake_[0], &wake_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
  if (!path_.empty()) unlink(path_.c_str());
  path_.clear();
}

void FakePeer::wake() {
  // A full pipe already holds a wake-up.
  if (wake_[1] >= 0 && write(wake_[1], "x", 1) < 0) return;
}

bool FakePeer::send(const std::string &bytes, int conn) {
  {
    std::lock_guard<std::mutex> hold(mu_);
    if (conn_fd_ < 0 || (conn != 0 && conn != connections_)) return false;
    outbox_ += bytes;
  }
  wake();
  return true;
}

void FakePeer::arm(const std::string &frames, int code) {
  std::lock_guard<std::mutex> hold(mu_);
  armed_ = frames;
  armed_code_ = code;
}

void FakePeer::queue_locked(const std::string &payload) { append_frame(&outbox_, payload); }

void FakePeer::expect_reply(int id, int conn) {
  std::lock_guard<std::mutex> hold(mu_);
  expected_reply_ = id;
  expected_conn_ = conn != 0 ? conn : conn_fd_ >= 0 ? connections_ : -1;
  reply_seen_ = false;
}

bool FakePeer::wait_reply(int timeout_ms, bool *closed) {
  std::unique_lock<std::mutex> hold(mu_);
  // The connection the reply was expected on may already be replaced by a newer one.
  auto gone = [this] { return conn_fd_ < 0 || connections_ != expected_conn_; };
  changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] { return reply_seen_ || gone(); });
  *closed = !reply_seen_ && gone();
  return reply_seen_;
}

std::vector<int> FakePeer::held_ids() const {
  std::lock_guard<std::mutex> hold(mu_);
  std::vector<int> ids;
  for (int h = 0; h < kHolders; ++h) {
    if (holding_[h] && held_[h] != 0) ids.push_back(held_[h]);
  }
  return ids;
}

void FakePeer::holder_enters(int holder) {
  std::lock_guard<std::mutex> hold(mu_);
  holding_[holder] = true;
  held_[holder] = 0;
}

void FakePeer::holder_leaves(int holder) {
  std::lock_guard<std::mutex> hold(mu_);
  holding_[holder] = false;
  held_[holder] = 0;
}

int FakePeer::connections() const {
  std::lock_guard<std::mutex> hold(mu_);
  return connections_;
}

bool FakePeer::open() const {
  std::lock_guard<std::mutex> hold(mu_);
  return conn_fd_ >= 0;
}

void FakePeer::close_conn() {
  std::lock_guard<std::mutex> hold(mu_);
  if (conn_fd_ >= 0) close(conn_fd_);
  conn_fd_ = -1;
  outbox_.clear();
  out_at_ = 0;
  armed_.clear();
  in_.clear();
  for (int &id : held_) id = 0;
  changed_.notify_all();
}

void FakePeer::accept_one() {
  int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return;
  // The client has one connection at a time: a new one means the old one is finished with.
  close_conn();
  std::lock_guard<std::mutex> hold(mu_);
  conn_fd_ = fd;
  ++connections_;
  queue_locked(kGreeting);
  changed_.notify_all();
}

// Answers one client message: control requests and device requests are acknowledged (device
// requests with a fresh request id), hold requests are not, replies are checked against the one
// awaited.
void FakePeer::handle(const char *json) {
  cJSON *root = cJSON_Parse(json);
  const cJSON *id = cJSON_GetObjectItem(root, "inner_id");
  const char *method = text_of(root, "inner_method");
  std::lock_guard<std::mutex> hold(mu_);
  if (method == nullptr) {
    if (cJSON_IsNumber(id) && id->valueint == expected_reply_ && expected_reply_ != 0) {
      reply_seen_ = true;
      changed_.notify_all();
    }
  } else if (cJSON_IsNumber(id)) {
    const char *request = text_of(cJSON_GetObjectItem(root, "inner_params"), "request");
    bool device = strcmp(method, "device_request") == 0;
    size_t prefix = strlen(kHoldPrefix);
    if (device && request != nullptr && strncmp(request, kHoldPrefix, prefix) == 0) {
      int holder = atoi(request + prefix);
      if (holder >= 0 && holder < kHolders && holding_[holder]) held_[holder] = id->valueint;
      changed_.notify_all();
    } else if (device && request != nullptr && strcmp(request, kSyncRequest) == 0) {
      outbox_ += armed_;
      armed_.clear();
      queue_locked("{\"inner_id\":" + std::to_string(id->valueint) + ",\"inner_error_code\":" +
                   std::to_string(armed_code_) + "}");
    } else if (device && request != nullptr && strncmp(request, kRefusePrefix, strlen(kRefusePrefix)) == 0) {
      queue_locked("{\"inner_id\":" + std::to_string(id->valueint) + ",\"inner_error_code\":-5}");
    } else if (device) {
      queue_locked("{\"inner_id\":" + std::to_string(id->valueint) +
                   ",\"inner_error_code\":0,\"inner_result\":{\"id\":" + std::to_string(next_request_id_) + "}}");
      next_request_id_ = next_request_id_ >= 1000000 ? 5000 : next_request_id_ + 1;
    } else {
      queue_locked("{\"inner_id\":" + std::to_string(id->valueint) + ",\"inner_error_code\":0}");
    }
  }
  cJSON_Delete(root);
}

void FakePeer::read_frames() {
  char buffer[64 * 1024];
  ssize_t got = recv(conn_fd_, buffer, sizeof buffer, 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got <= 0) {
    close_conn();
    return;
  }
  in_.append(buffer, static_cast<size_t>(got));
  size_t at = 0;
  while (in_.size() - at >= kHeader) {
    auto *h = reinterpret_cast<const unsigned char *>(in_.data() + at);
    size_t n = size_t{h[2]} << 24 | size_t{h[3]} << 16 | size_t{h[4]} << 8 | h[5];
    if (h[0] != 0xA1 || h[1] != 0xB2 || n > kMaxClientFrame) {
      close_conn();  // the client wrote garbage: the waiter sees the connection go
      return;
    }
    if (in_.size() - at < kHeader + n) break;
    handle(std::string(in_, at + kHeader, n).c_str());
    at += kHeader + n;
  }
  in_.erase(0, at);
}

void FakePeer::serve() {
  for (;;) {
    bool want_out = false;
    {
      std::lock_guard<std::mutex> hold(mu_);
      if (stop_) return;
      want_out = !outbox_.empty();
    }
    pollfd fds[3] = {{wake_[0], POLLIN, 0},
                     {listen_fd_, POLLIN, 0},
                     {conn_fd_, static_cast<short>(POLLIN | (want_out ? POLLOUT : 0)), 0}};
    // Every wait ends within a second, so a lost wake-up costs at most that.
    int n = poll(fds, conn_fd_ >= 0 ? 3 : 2, 1000);
    if (n <= 0) continue;
    if (fds[0].revents & POLLIN) {
      char drain[64];
      while (read(wake_[0], drain, sizeof drain) > 0) {
      }
    }
    if (fds[1].revents & POLLIN) {
      accept_one();
      continue;  // the third entry described the connection before this one
    }
    if (conn_fd_ < 0) continue;
    bool failed = false;
    if (fds[2].revents & POLLOUT) {
      std::lock_guard<std::mutex> hold(mu_);
      ssize_t sent = ::send(conn_fd_, outbox_.data() + out_at_, outbox_.size() - out_at_, MSG_NOSIGNAL | MSG_DONTWAIT);
      // Written bytes are skipped rather than erased, which would move the rest every time.
      if (sent > 0) out_at_ += static_cast<size_t>(sent);
      if (out_at_ == outbox_.size()) {
        outbox_.clear();
        out_at_ = 0;
      }
      failed = sent < 0 && errno != EAGAIN && errno != EINTR;
    }
    if (failed) {
      close_conn();
    } else if (fds[2].revents & (POLLIN | POLLHUP | POLLERR)) {
      read_frames();
    }
  }
}

}  // namespace dispatch_fuzz
