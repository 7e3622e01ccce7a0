#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>

#include "daemon_internal.h"
#include "json.h"
#include "protocol.h"
#include "vemo/codes.h"

namespace vemo {
namespace cloudd {

thread_local CloudDaemon::Loop *CloudDaemon::Loop::current_ = nullptr;

namespace {

// How long accepting pauses when the process runs out of descriptors: without the pause the
// still-readable listening socket would turn the loop into a busy one.
constexpr int kAcceptRetryMs = 100;
// A client that does not read what the daemon answers is not read from either once this much
// output waits for it: its own sends then block, and the daemon's memory stays bounded without
// the daemon ever blocking on it.
constexpr std::size_t kMaxPendingOutput = 1024 * 1024;

std::string conn_text(int conn) { return std::to_string(conn); }

}  // namespace

CloudDaemon::Loop::Loop(State &state, int listen_fd, int wake_fd, std::string path, FileId bound)
    : st_(state), listen_fd_(listen_fd), wake_fd_(wake_fd), path_(std::move(path)), bound_(bound) {}

CloudDaemon::Loop::~Loop() {
  // A loop whose thread never ran still owns its descriptors and the socket file.
  if (!ran_) {
    close(listen_fd_);
    close(wake_fd_);
    remove_socket_file(path_, bound_);
  }
}

void CloudDaemon::Loop::run() {
  ran_ = true;
  current_ = this;
  settings_ = st_.settings_snapshot();
  std::vector<struct pollfd> fds;
  std::vector<int> ids;
  while (!st_.stop_requested.load()) {
    fds.clear();
    ids.clear();
    fds.push_back({wake_fd_, POLLIN, 0});
    fds.push_back({accept_paused_ ? -1 : listen_fd_, POLLIN, 0});  // poll skips a negative fd
    for (const auto &entry : conns_) {
      const std::size_t pending = entry.second->pending_output();
      short events = pending < kMaxPendingOutput ? POLLIN : 0;
      if (pending > 0) events |= POLLOUT;
      fds.push_back({entry.second->fd(), events, 0});
      ids.push_back(entry.first);
    }
    int n = poll(fds.data(), fds.size(), poll_timeout_ms());
    if (n < 0) {
      if (errno == EINTR) continue;
      st_.emit(std::string("error poll failed: ") + strerror(errno));
      break;
    }
    refresh_settings();
    if (fds[0].revents != 0) {
      uint64_t count;
      ssize_t got = read(wake_fd_, &count, sizeof(count));
      (void)got;  // a spurious wake-up only costs one pass
      run_commands();
    }
    if ((fds[1].revents & POLLIN) != 0) accept_all();
    for (std::size_t i = 0; i < ids.size() && !st_.stop_requested.load(); ++i) {
      short revents = fds[i + 2].revents;
      // A command, a handler or an earlier message may have closed it in this very pass.
      if (revents == 0 || conns_.count(ids[i]) == 0) continue;
      if ((revents & POLLOUT) != 0) flush(ids[i]);
      if ((revents & POLLIN) != 0) {
        receive(ids[i]);
      } else if ((revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        close_connection(ids[i], "hung up");
      }
    }
    fire_due_timers();
    flush_all();
  }

  {
    MutexLock lock(st_.mu);
    st_.accepting = false;
    for (auto &cmd : st_.commands) cmd->done = true;
    st_.commands.clear();
    st_.wake_fd = -1;
    close(wake_fd_);
    st_.cv.broadcast();
  }
  while (!conns_.empty()) close_connection(conns_.begin()->first, "daemon stopping");
  timers_.clear();
  close(listen_fd_);
  remove_socket_file(path_, bound_);
  st_.emit("stopped");
  {
    MutexLock lock(st_.mu);
    st_.running = false;
    st_.cv.broadcast();
  }
  current_ = nullptr;
}

void CloudDaemon::Loop::refresh_settings() {
  if (st_.settings_version.load(std::memory_order_acquire) == settings_version_) return;
  SettingsPtr fresh;
  {
    MutexLock lock(st_.mu);
    fresh = st_.settings;
    settings_version_ = st_.settings_version.load(std::memory_order_relaxed);
  }
  settings_.swap(fresh);  // the old ones, if last held here, go outside the lock
}

void CloudDaemon::Loop::trace(const std::string &line) const {
  if (settings_->sink) settings_->sink(line);
}

int CloudDaemon::Loop::poll_timeout_ms() const {
  if (timers_.empty()) return -1;
  auto wait = timers_.begin()->first - Clock::now();
  if (wait <= Clock::duration::zero()) return 0;
  // Rounded up: waking a fraction early would only poll again with a zero timeout.
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
  return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

void CloudDaemon::Loop::fire_due_timers() {
  const Clock::time_point now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first <= now) {
    std::function<void()> fn = std::move(timers_.begin()->second);
    timers_.erase(timers_.begin());
    fn();
  }
}

void CloudDaemon::Loop::after(int delay_ms, std::function<void()> fn) {
  if (delay_ms < 0) delay_ms = 0;
  timers_.emplace(Clock::now() + std::chrono::milliseconds(delay_ms), std::move(fn));
}

void CloudDaemon::Loop::run_commands() {
  std::deque<std::shared_ptr<State::Command>> batch;
  {
    MutexLock lock(st_.mu);
    batch.swap(st_.commands);
  }
  for (auto &cmd : batch) cmd->result = cmd->fn(*this);
  // What the commands sent is on its way before their callers go on.
  flush_all();
  MutexLock lock(st_.mu);
  for (auto &cmd : batch) cmd->done = true;
  st_.cv.broadcast();
}

void CloudDaemon::Loop::flush(int conn) {
  auto it = conns_.find(conn);
  if (it == conns_.end() || it->second->pending_output() == 0) return;
  if (!it->second->flush()) close_connection(conn, std::string("send failed: ") + strerror(errno));
}

void CloudDaemon::Loop::flush_all() {
  for (auto it = conns_.begin(); it != conns_.end();) {
    const int conn = (it++)->first;  // flush may close it
    flush(conn);
  }
}

void CloudDaemon::Loop::accept_all() {
  for (;;) {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      st_.emit(std::string("error fail to accept a connection: ") + strerror(errno) +
               ", trying again in " + std::to_string(kAcceptRetryMs) + " ms");
      accept_paused_ = true;
      after(kAcceptRetryMs, [this] { accept_paused_ = false; });
      return;
    }
    // Every line is emitted before the change it tells of becomes visible to waiters, so a
    // test that waited for a change finds its line already there.
    int id;
    {
      MutexLock lock(st_.mu);
      id = ++st_.seen;
    }
    if (tracing()) trace("connected " + conn_text(id));
    conns_[id].reset(new Connection(fd));
    {
      MutexLock lock(st_.mu);
      st_.open_ids.push_back(id);
      st_.cv.broadcast();
    }
    greet(id);
  }
}

void CloudDaemon::Loop::receive(int conn) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return;  // a failed flush in this pass closed it
  const Connection::ReadResult read = it->second->read_some();
  // Every whole frame that came in this read is handled now; what a handler does may close
  // the connection or stop the daemon between two of them.
  for (;;) {
    it = conns_.find(conn);
    if (it == conns_.end() || st_.stop_requested.load()) return;
    const int rc = it->second->next_frame(&payload_);
    if (rc == 0) break;
    if (rc < 0) {
      // After a bad frame the stream cannot be trusted to be at a frame boundary again.
      close_connection(conn, "receive failed, code=" + std::to_string(rc));
      return;
    }
    handle(conn, payload_);
  }
  if (read == Connection::ReadResult::kClosed && !it->second->mid_frame()) {
    close_connection(conn, "closed by the client");
  } else if (read == Connection::ReadResult::kClosed || read == Connection::ReadResult::kFailed) {
    // A frame cut off by the end of the stream, or a failed receive (a reset, say).
    close_connection(conn, "receive failed, code=" + std::to_string(VEMO_ERR_SHORT_READ));
  }
}

void CloudDaemon::Loop::handle(int conn, const std::string &payload) {
  // The settings in force when the message arrived decide its answer, even if a waiter that
  // sees it recorded changes them at once.
  refresh_settings();
  const SettingsPtr settings = settings_;
  Received parsed = parse_received(conn, payload);
  if (tracing()) trace("recv " + conn_text(conn) + " " + describe_payload(payload, parsed.json));
  if (parsed.is_reply()) note_reply(parsed);
  const Received msg = st_.record_received(std::move(parsed), settings->keep_log);
  if (settings->handler && settings->handler(*st_.owner, msg)) return;
  answer(msg);
}

std::vector<int> CloudDaemon::Loop::targets(int conn) const {
  std::vector<int> out;
  if (conn == kAllConnections) {
    for (const auto &entry : conns_) out.push_back(entry.first);
  } else if (conns_.count(conn) != 0) {
    out.push_back(conn);
  }
  return out;
}

bool CloudDaemon::Loop::send_frame(int conn, const std::string &text) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) {
    if (tracing()) {
      trace("error " + conn_text(conn) +
            " not sent, the connection is closed: " + describe_payload(text));
    }
    return false;
  }
  it->second->queue_frame(text);
  if (tracing()) trace("send " + conn_text(conn) + " " + describe_payload(text));
  if (settings_->keep_log) st_.record_sent(conn, text, false);
  return true;
}

bool CloudDaemon::Loop::send_raw(int conn, const std::string &bytes) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return false;
  it->second->queue_bytes(bytes);
  if (tracing()) trace("send " + conn_text(conn) + " (bytes) " + hex(bytes));
  if (settings_->keep_log) st_.record_sent(conn, bytes, true);
  return true;
}

int CloudDaemon::Loop::send_to(int conn, const std::string &text, int delay_ms) {
  std::vector<int> ids = targets(conn);
  if (delay_ms <= 0) {
    int sent = 0;
    for (int id : ids) sent += send_frame(id, text) ? 1 : 0;
    return sent;
  }
  for (int id : ids) after(delay_ms, [this, id, text] { send_frame(id, text); });
  return static_cast<int>(ids.size());
}

void CloudDaemon::Loop::close_connection(int conn, const std::string &why) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return;
  // What was queued before the close still goes, as far as the socket takes it at once.
  it->second->flush();
  if (tracing()) trace("disconnected " + conn_text(conn) + " (" + why + ")");
  conns_.erase(it);
  for (auto held = held_.begin(); held != held_.end();) {
    held = held->second.conn == conn ? held_.erase(held) : std::next(held);
  }
  {
    MutexLock lock(st_.mu);
    auto &ids = st_.open_ids;
    for (auto id = ids.begin(); id != ids.end(); ++id) {
      if (*id == conn) {
        ids.erase(id);
        break;
      }
    }
    st_.cv.broadcast();
  }
}

}  // namespace cloudd
}  // namespace vemo
