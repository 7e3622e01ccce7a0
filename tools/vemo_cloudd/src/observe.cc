// What a test reads from the daemon: counters, logs, and waits for them with a time limit.
#include "daemon_internal.h"
#include "util/clock.h"
#include "vemo/util.h"

namespace vemo {
namespace cloudd {

namespace {

// Milliseconds left of a wait that began at start; 0 or less when it is over.
int32_t remaining_ms(uint32_t start, int timeout_ms) {
  return timeout_ms - tick_elapsed(get_tick_count(), start);
}

}  // namespace

int CloudDaemon::connections_seen() const {
  MutexLock lock(state_->mu);
  return state_->seen;
}

int CloudDaemon::open_connections() const {
  MutexLock lock(state_->mu);
  return static_cast<int>(state_->open_ids.size());
}

std::vector<int> CloudDaemon::open_connection_ids() const {
  MutexLock lock(state_->mu);
  return state_->open_ids;
}

bool CloudDaemon::wait_for_connections(int seen, int timeout_ms) {
  State &st = *state_;
  const uint32_t start = get_tick_count();
  MutexLock lock(st.mu);
  for (;;) {
    if (st.seen >= seen) return true;
    int32_t left = remaining_ms(start, timeout_ms);
    if (left <= 0) return false;
    st.cv.wait_for_ms(st.mu, left);
  }
}

bool CloudDaemon::wait_for_open_connections(int open, int timeout_ms) {
  State &st = *state_;
  const uint32_t start = get_tick_count();
  MutexLock lock(st.mu);
  for (;;) {
    if (static_cast<int>(st.open_ids.size()) == open) return true;
    int32_t left = remaining_ms(start, timeout_ms);
    if (left <= 0) return false;
    st.cv.wait_for_ms(st.mu, left);
  }
}

std::vector<Received> CloudDaemon::received() const {
  MutexLock lock(state_->mu);
  return state_->received;
}

std::vector<Sent> CloudDaemon::sent() const {
  MutexLock lock(state_->mu);
  return state_->sent;
}

// The predicates are the caller's code: they run on copies, outside the lock, so that they may
// call back into the daemon.
std::optional<Received> CloudDaemon::wait_for_message(
    const std::function<bool(const Received &)> &pred, int timeout_ms, std::size_t from) {
  State &st = *state_;
  const uint32_t start = get_tick_count();
  std::size_t next = from;
  for (;;) {
    std::vector<Received> fresh;
    {
      MutexLock lock(st.mu);
      while (next >= st.received.size()) {
        int32_t left = remaining_ms(start, timeout_ms);
        if (left <= 0) return std::nullopt;
        st.cv.wait_for_ms(st.mu, left);
      }
      fresh.assign(st.received.begin() + static_cast<std::ptrdiff_t>(next), st.received.end());
      next = st.received.size();
    }
    for (const Received &r : fresh) {
      if (pred(r)) return r;
    }
  }
}

std::optional<Received> CloudDaemon::wait_for_method(const std::string &method, int timeout_ms,
                                                     std::size_t from) {
  return wait_for_message([&](const Received &r) { return r.method == method; }, timeout_ms, from);
}

std::optional<Received> CloudDaemon::wait_for_reply(int id, int timeout_ms) {
  return wait_for_message(
      [id](const Received &r) { return r.is_reply() && r.has_id && r.id == id; }, timeout_ms);
}

std::optional<Received> CloudDaemon::wait_for_hello_reply(int timeout_ms, std::size_t from) {
  return wait_for_message([](const Received &r) { return r.is_reply() && !r.has_id; }, timeout_ms,
                          from);
}

std::optional<Sent> CloudDaemon::wait_for_sent(const std::function<bool(const Sent &)> &pred,
                                               int timeout_ms, std::size_t from) {
  State &st = *state_;
  const uint32_t start = get_tick_count();
  std::size_t next = from;
  for (;;) {
    std::vector<Sent> fresh;
    {
      MutexLock lock(st.mu);
      while (next >= st.sent.size()) {
        int32_t left = remaining_ms(start, timeout_ms);
        if (left <= 0) return std::nullopt;
        st.cv.wait_for_ms(st.mu, left);
      }
      fresh.assign(st.sent.begin() + static_cast<std::ptrdiff_t>(next), st.sent.end());
      next = st.sent.size();
    }
    for (const Sent &s : fresh) {
      if (pred(s)) return s;
    }
  }
}

}  // namespace cloudd
}  // namespace vemo
