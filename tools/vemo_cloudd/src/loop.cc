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
#include "vemo/ipc_socket.h"

namespace vemo {
namespace cloudd {

thread_local CloudDaemon::Loop *CloudDaemon::Loop::current_ = nullptr;

namespace {

// How long accepting pauses when the process runs out of descriptors: without the pause the
// still-readable listening socket would turn the loop into a busy one.
constexpr int kAcceptRetryMs = 100;

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
  std::vector<struct pollfd> fds;
  std::vector<int> ids;
  while (!st_.stop_requested.load()) {
    fds.clear();
    ids.clear();
    fds.push_back({wake_fd_, POLLIN, 0});
    fds.push_back({accept_paused_ ? -1 : listen_fd_, POLLIN, 0});  // poll skips a negative fd
    for (const auto &entry : conns_) {
      fds.push_back({entry.second, POLLIN, 0});
      ids.push_back(entry.first);
    }
    int n = poll(fds.data(), fds.size(), poll_timeout_ms());
    if (n < 0) {
      if (errno == EINTR) continue;
      st_.emit(std::string("error poll failed: ") + strerror(errno));
      break;
    }
    if (fds[0].revents != 0) {
      uint64_t count;
      ssize_t got = read(wake_fd_, &count, sizeof(count));
      (void)got;  // a spurious wake-up only costs one pass
      run_commands();
    }
    if ((fds[1].revents & POLLIN) != 0) accept_all();
    for (std::size_t i = 0; i < ids.size(); ++i) {
      short revents = fds[i + 2].revents;
      // A command, a handler or an earlier message may have closed it in this very pass.
      if (revents == 0 || conns_.count(ids[i]) == 0) continue;
      if ((revents & POLLIN) != 0) {
        receive(ids[i]);
      } else {
        close_connection(ids[i], "hung up");
      }
    }
    fire_due_timers();
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
  for (auto &cmd : batch) {
    int result = cmd->fn(*this);
    MutexLock lock(st_.mu);
    cmd->result = result;
    cmd->done = true;
    st_.cv.broadcast();
  }
}

void CloudDaemon::Loop::accept_all() {
  for (;;) {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
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
    st_.emit("connected " + conn_text(id));
    conns_[id] = fd;
    {
      MutexLock lock(st_.mu);
      st_.open_ids.push_back(id);
      st_.cv.broadcast();
    }
    greet(id);
  }
}

void CloudDaemon::Loop::receive(int conn) {
  char *text = nullptr;
  int rc = ipc_socket_recv(conns_[conn], &text);
  if (rc != 0) {
    free(text);
    // After a bad frame the stream cannot be trusted to be at a frame boundary again.
    close_connection(conn, rc == VEMO_ERR_PEER_CLOSED
                               ? std::string("closed by the client")
                               : "receive failed, code=" + std::to_string(rc));
    return;
  }
  std::string payload(text);
  free(text);
  // The settings in force when the message arrived decide its answer, even if a waiter that
  // sees it recorded changes them at once.
  const Behaviour behaviour = st_.behaviour_snapshot();
  st_.emit("recv " + conn_text(conn) + " " + describe_payload(payload));
  Received parsed = parse_received(conn, payload);
  if (parsed.is_reply()) note_reply(parsed);
  Received msg = st_.record_received(std::move(parsed));
  Handler handler;
  {
    MutexLock lock(st_.mu);
    handler = st_.handler;
  }
  if (handler && handler(*st_.owner, msg)) return;
  answer(msg, behaviour);
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
    st_.emit("error " + conn_text(conn) +
             " not sent, the connection is closed: " + describe_payload(text));
    return false;
  }
  int rc = ipc_socket_send(it->second, text.c_str());
  if (rc != 0) {
    close_connection(conn, "send failed, code=" + std::to_string(rc));
    return false;
  }
  st_.emit("send " + conn_text(conn) + " " + describe_payload(text));
  st_.record_sent(conn, text, false);
  return true;
}

bool CloudDaemon::Loop::send_raw(int conn, const std::string &bytes) {
  auto it = conns_.find(conn);
  if (it == conns_.end()) return false;
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(it->second, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close_connection(conn, std::string("send failed: ") + strerror(errno));
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  st_.emit("send " + conn_text(conn) + " (bytes) " + hex(bytes));
  st_.record_sent(conn, bytes, true);
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
  st_.emit("disconnected " + conn_text(conn) + " (" + why + ")");
  close(it->second);
  conns_.erase(it);
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
