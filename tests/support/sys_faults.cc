#include "support/sys_faults.h"

#include <errno.h>

#include <algorithm>

namespace vemo_test {
namespace {

std::atomic<SysFaults *> g_current{nullptr};

const vemo::sys::Ops &real() { return vemo::sys::real_ops(); }
SysFaults &now() { return *g_current.load(); }
size_t capped(size_t count, size_t chunk) { return chunk > 0 ? std::min(chunk, count) : count; }

int fake_socket(int domain, int type, int protocol) {
  return now().socket.next() ? -1 : real().socket(domain, type, protocol);
}
int fake_bind(int fd, const struct sockaddr *address, socklen_t length) {
  now().last_bind_length = static_cast<int>(length);
  return real().bind(fd, address, length);
}
int fake_listen(int fd, int backlog) { return now().listen.next() ? -1 : real().listen(fd, backlog); }
int fake_connect(int fd, const struct sockaddr *address, socklen_t length) {
  now().last_connect_length = static_cast<int>(length);
  return real().connect(fd, address, length);
}
ssize_t fake_send(int fd, const void *buffer, size_t count, int flags) {
  now().last_send_flags = flags;
  return now().send.next() ? -1 : real().send(fd, buffer, capped(count, now().send_chunk), flags);
}
// Scripted as send: both are "a send" to the tests. A chunk cap trims the parts handed over.
ssize_t fake_sendmsg(int fd, const struct msghdr *message, int flags) {
  now().last_send_flags = flags;
  if (now().send.next()) return -1;
  size_t chunk = now().send_chunk;
  if (chunk == 0) return real().sendmsg(fd, message, flags);
  struct iovec parts[8];
  struct msghdr trimmed = *message;
  trimmed.msg_iov = parts;
  trimmed.msg_iovlen = 0;
  for (size_t i = 0; i < message->msg_iovlen && i < 8 && chunk > 0; ++i, ++trimmed.msg_iovlen) {
    parts[i] = message->msg_iov[i];
    parts[i].iov_len = std::min(parts[i].iov_len, chunk);
    chunk -= parts[i].iov_len;
  }
  return real().sendmsg(fd, &trimmed, flags);
}
ssize_t fake_recv(int fd, void *buffer, size_t count, int flags) {
  return now().recv.next() ? -1 : real().recv(fd, buffer, capped(count, now().recv_chunk), flags);
}
int fake_poll(struct pollfd *fds, nfds_t count, int timeout_ms) {
  now().last_poll_timeout = timeout_ms;
  now().last_poll_events = count > 0 ? fds[0].events : 0;
  return now().poll.next() ? -1 : real().poll(fds, count, timeout_ms);
}
int fake_fcntl(int fd, int command, int argument) {
  return now().fcntl.next() ? -1 : real().fcntl(fd, command, argument);
}
void *fake_malloc(size_t size) { return now().malloc.next() ? nullptr : real().malloc(size); }

}  // namespace

bool CallScript::next() {
  ++calls;
  if (pass.load() > 0) {
    --pass;
    return false;
  }
  if (fail.load() <= 0) return false;
  --fail;
  errno = error.load();
  return true;
}

SysFaults::SysFaults() : ops_(vemo::sys::real_ops()) {
  ops_.socket = fake_socket;
  ops_.bind = fake_bind;
  ops_.listen = fake_listen;
  ops_.connect = fake_connect;
  ops_.send = fake_send;
  ops_.sendmsg = fake_sendmsg;
  ops_.recv = fake_recv;
  ops_.poll = fake_poll;
  ops_.fcntl = fake_fcntl;
  ops_.malloc = fake_malloc;
  g_current.store(this);
  scope_.reset(new vemo::sys::ScopedOps(ops_));
}

SysFaults::~SysFaults() {
  scope_.reset();
  g_current.store(nullptr);
}

}  // namespace vemo_test
