// CloudDaemon's public face: start and stop, settings, commands and the waits of a test.
#include "vemo_cloudd/cloud_daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <system_error>

#include "daemon_internal.h"
#include "protocol.h"
#include "util/clock.h"
#include "vemo/codes.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace vemo {
namespace cloudd {

// ---- State ----------------------------------------------------------------------------------

int CloudDaemon::State::run_on_loop(std::function<int(Loop &)> fn) {
  Loop *here = Loop::current();
  if (here != nullptr && &here->state() == this) return fn(*here);
  auto cmd = std::make_shared<Command>();
  cmd->fn = std::move(fn);
  MutexLock lock(mu);
  if (!accepting) return 0;
  commands.push_back(cmd);
  const uint64_t one = 1;
  ssize_t n = write(wake_fd, &one, sizeof(one));
  (void)n;  // only fails when the counter is already non-zero, which wakes the loop as well
  while (!cmd->done) cv.wait(mu);
  return cmd->result;
}

void CloudDaemon::State::emit(const std::string &line) {
  const std::shared_ptr<const Settings> s = settings_snapshot();
  if (s->sink) s->sink(line);
}

Received CloudDaemon::State::record_received(Received r, bool keep) {
  MutexLock lock(mu);
  r.index = received.size();
  if (!keep) return r;
  received.push_back(r);
  cv.broadcast();
  return r;
}

void CloudDaemon::State::record_sent(int conn, const std::string &text, bool raw_bytes) {
  MutexLock lock(mu);
  Sent s;
  s.index = sent.size();
  s.conn = conn;
  s.text = text;
  s.raw_bytes = raw_bytes;
  sent.push_back(std::move(s));
  cv.broadcast();
}

std::shared_ptr<const CloudDaemon::State::Settings> CloudDaemon::State::settings_snapshot() const {
  MutexLock lock(mu);
  return settings;
}

void CloudDaemon::State::change_settings(const std::function<void(Settings &)> &change) {
  // The settings replaced go after the lock: their handler and sink are the caller's code, and
  // so are the destructors of what these hold.
  std::shared_ptr<const Settings> replaced;
  MutexLock lock(mu);
  auto next = std::make_shared<Settings>(*settings);
  change(*next);
  replaced = std::move(settings);
  settings = std::move(next);
  settings_version.fetch_add(1, std::memory_order_release);
}

int CloudDaemon::State::take_request_id() {
  MutexLock lock(mu);
  return next_request_id++;
}

int CloudDaemon::State::take_cloud_id() {
  MutexLock lock(mu);
  return next_cloud_id++;
}

// ---- Lifecycle ------------------------------------------------------------------------------

CloudDaemon::CloudDaemon(std::string socket_path)
    : path_(std::move(socket_path)), state_(new State(this)) {}

CloudDaemon::~CloudDaemon() { stop(); }

int CloudDaemon::start() {
  State &st = *state_;
  MutexLock life(st.life_mu);
  if (st.thread.joinable()) {
    if (running()) return 0;
    // The loop ended by itself (a handler stopped it): collect it before starting anew.
    st.thread.join();
    st.loop.reset();
  }
  auto fail = [&st](const std::string &why, int code) {
    MutexLock lock(st.mu);
    st.last_error = why;
    return code;
  };
  std::string why;
  if (prepare_socket_path(path_, &why) != 0) return fail(why, VEMO_ERR_NO_SERVER);
  errno = 0;
  const int listen_fd = ipc_socket_init_as_server(path_.c_str());
  if (listen_fd < 0) {
    const int err = errno;
    return fail("cannot listen on " + path_ + (err != 0 ? std::string(": ") + strerror(err) : ""),
                VEMO_ERR_NO_SERVER);
  }
  fcntl(listen_fd, F_SETFD, FD_CLOEXEC);
  st.bound = file_id_of(path_);
  const int wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wake_fd < 0) {
    const int err = errno;
    close(listen_fd);
    remove_socket_file(path_, st.bound);
    return fail(std::string("cannot create the wake-up descriptor: ") + strerror(err),
                VEMO_ERR_NO_RESOURCE);
  }
  st.loop.reset(new Loop(st, listen_fd, wake_fd, path_, st.bound));
  st.stop_requested.store(false);
  {
    MutexLock lock(st.mu);
    st.running = true;
    st.accepting = true;
    st.wake_fd = wake_fd;
    st.last_error.clear();
  }
  st.emit("listening on " + path_);
  try {
    Loop *loop = st.loop.get();
    st.thread = std::thread([loop] { loop->run(); });
  } catch (const std::system_error &e) {
    {
      MutexLock lock(st.mu);
      st.running = false;
      st.accepting = false;
      st.wake_fd = -1;
    }
    st.loop.reset();  // closes both descriptors and removes the socket file
    return fail(std::string("cannot start the loop thread: ") + e.what(), VEMO_ERR_NO_RESOURCE);
  }
  return 0;
}

void CloudDaemon::stop() {
  State &st = *state_;
  Loop *here = Loop::current();
  if (here != nullptr && &here->state() == &st) {
    // The loop cannot join itself: it ends after the current message, and a later stop() or
    // the destructor collects the thread.
    st.stop_requested.store(true);
    return;
  }
  MutexLock life(st.life_mu);
  if (!st.thread.joinable()) return;
  st.stop_requested.store(true);
  {
    MutexLock lock(st.mu);
    if (st.accepting) {
      const uint64_t one = 1;
      ssize_t n = write(st.wake_fd, &one, sizeof(one));
      (void)n;
    }
  }
  st.thread.join();
  st.loop.reset();
}

bool CloudDaemon::running() const {
  MutexLock lock(state_->mu);
  return state_->running;
}

std::string CloudDaemon::last_error() const {
  MutexLock lock(state_->mu);
  return state_->last_error;
}

// ---- Behaviour ------------------------------------------------------------------------------

Behaviour CloudDaemon::behaviour() const { return state_->settings_snapshot()->behaviour; }

#define VEMO_CLOUDD_SET(stmt) \
  state_->change_settings([&](State::Settings &s) { \
    Behaviour &b = s.behaviour;                    \
    stmt;                                          \
  })

void CloudDaemon::set_behaviour(const Behaviour &value) { VEMO_CLOUDD_SET(b = value); }
void CloudDaemon::set_greeting(int type, int delay_ms) {
  VEMO_CLOUDD_SET(b.greeting = true; b.greeting_type = type; b.greeting_delay_ms = delay_ms);
}
void CloudDaemon::disable_greeting() { VEMO_CLOUDD_SET(b.greeting = false); }
void CloudDaemon::set_ack_code(const std::string &method, int code) {
  VEMO_CLOUDD_SET(b.ack_codes[method] = code);
}
void CloudDaemon::set_ack_delay_ms(int ms) { VEMO_CLOUDD_SET(b.ack_delay_ms = ms); }
void CloudDaemon::set_drop_ack(bool drop) { VEMO_CLOUDD_SET(b.drop_ack = drop); }
void CloudDaemon::set_response_delay_ms(int ms) { VEMO_CLOUDD_SET(b.response_delay_ms = ms); }
void CloudDaemon::set_response_echo() { VEMO_CLOUDD_SET(b.echo_request = true); }
void CloudDaemon::set_response_fixed(const std::string &text) {
  VEMO_CLOUDD_SET(b.echo_request = false; b.fixed_response = text);
}
void CloudDaemon::set_response_code(int code) { VEMO_CLOUDD_SET(b.response_code = code); }
void CloudDaemon::set_drop_response(bool drop) { VEMO_CLOUDD_SET(b.drop_response = drop); }
void CloudDaemon::set_duplicate_responses(int count) {
  VEMO_CLOUDD_SET(b.duplicate_responses = count < 0 ? 0 : count);
}

#undef VEMO_CLOUDD_SET

void CloudDaemon::set_next_request_id(int id) {
  MutexLock lock(state_->mu);
  state_->next_request_id = id;
}

void CloudDaemon::set_next_cloud_request_id(int id) {
  MutexLock lock(state_->mu);
  state_->next_cloud_id = id;
}

void CloudDaemon::set_handler(Handler handler) {
  state_->change_settings([&](State::Settings &s) { s.handler = std::move(handler); });
}

void CloudDaemon::set_log_sink(LogSink sink) {
  state_->change_settings([&](State::Settings &s) { s.sink = std::move(sink); });
}

void CloudDaemon::set_keep_log(bool keep) {
  state_->change_settings([keep](State::Settings &s) { s.keep_log = keep; });
}

// ---- Commands -------------------------------------------------------------------------------

int CloudDaemon::send_cloud_request(const std::string &text, int conn, int *id) {
  State &st = *state_;
  // The id is taken even when nobody is connected, so that ids never repeat within a run.
  const int cloud_id = st.take_cloud_id();
  if (id != nullptr) *id = cloud_id;
  return st.run_on_loop([&](Loop &loop) {
    loop.note_cloud_request(cloud_id);
    return loop.send_to(conn, make_cloud_request(cloud_id, text), 0);
  });
}

int CloudDaemon::send_hello_request(int conn) {
  return state_->run_on_loop(
      [&](Loop &loop) { return loop.send_to(conn, make_hello_request(), 0); });
}

int CloudDaemon::send_hello_response(const std::string &text, int conn) {
  return state_->run_on_loop(
      [&](Loop &loop) { return loop.send_to(conn, make_hello_response(text), 0); });
}

int CloudDaemon::send_server_notify(int type, int conn) {
  return state_->run_on_loop(
      [&](Loop &loop) { return loop.send_to(conn, make_server_notify(type), 0); });
}

int CloudDaemon::send_text(const std::string &text, int conn, int delay_ms) {
  return state_->run_on_loop([&](Loop &loop) { return loop.send_to(conn, text, delay_ms); });
}

int CloudDaemon::send_bytes(const std::string &bytes, int conn) {
  return state_->run_on_loop([&](Loop &loop) {
    int sent = 0;
    for (int id : loop.targets(conn)) sent += loop.send_raw(id, bytes) ? 1 : 0;
    return sent;
  });
}

std::vector<HeldRequest> CloudDaemon::held_requests() {
  std::vector<HeldRequest> out;
  state_->run_on_loop([&out](Loop &loop) {
    out = loop.held();
    return 0;
  });
  return out;
}

int CloudDaemon::respond_held(int request_id, const std::string &text) {
  return state_->run_on_loop(
      [&](Loop &loop) { return loop.answer_held(request_id, false, 0, text) ? 1 : 0; });
}

int CloudDaemon::fail_held(int request_id, int code) {
  return state_->run_on_loop(
      [&](Loop &loop) { return loop.answer_held(request_id, true, code, std::string()) ? 1 : 0; });
}

int CloudDaemon::close_connections(int conn) {
  return state_->run_on_loop([&](Loop &loop) {
    std::vector<int> ids = loop.targets(conn);
    for (int id : ids) loop.close_connection(id, "closed by the daemon");
    return static_cast<int>(ids.size());
  });
}

}  // namespace cloudd
}  // namespace vemo
