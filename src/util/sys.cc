#include "util/sys.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>

namespace vemo {
namespace sys {
namespace {

// Thin forwarders rather than the libc symbols themselves: some of these are variadic (fcntl)
// or fortified inline wrappers, whose addresses are not the plain functions we want to call.
int real_socket(int domain, int type, int protocol) { return ::socket(domain, type, protocol); }
int real_bind(int fd, const struct sockaddr *address, socklen_t length) {
  return ::bind(fd, address, length);
}
int real_listen(int fd, int backlog) { return ::listen(fd, backlog); }
int real_connect(int fd, const struct sockaddr *address, socklen_t length) {
  return ::connect(fd, address, length);
}
int real_accept(int fd, struct sockaddr *address, socklen_t *length) {
  return ::accept(fd, address, length);
}
ssize_t real_send(int fd, const void *buffer, size_t count, int flags) {
  return ::send(fd, buffer, count, flags);
}
ssize_t real_sendmsg(int fd, const struct msghdr *message, int flags) {
  return ::sendmsg(fd, message, flags);
}
ssize_t real_recv(int fd, void *buffer, size_t count, int flags) {
  return ::recv(fd, buffer, count, flags);
}
int real_poll(struct pollfd *fds, nfds_t count, int timeout_ms) {
  return ::poll(fds, count, timeout_ms);
}
int real_fcntl(int fd, int command, int argument) { return ::fcntl(fd, command, argument); }
int real_shutdown(int fd, int how) { return ::shutdown(fd, how); }
int real_close(int fd) { return ::close(fd); }
int real_access(const char *path, int mode) { return ::access(path, mode); }
int real_unlink(const char *path) { return ::unlink(path); }
void *real_malloc(size_t size) { return ::malloc(size); }

const Ops kRealOps = {
    real_socket,   real_bind,  real_listen, real_connect, real_accept,
    real_send,     real_sendmsg, real_recv, real_poll,    real_fcntl,
    real_shutdown, real_close, real_access, real_unlink,  real_malloc,
};

std::atomic<const Ops *> g_ops{&kRealOps};

}  // namespace

const Ops &ops() { return *g_ops.load(std::memory_order_acquire); }

const Ops &real_ops() { return kRealOps; }

ScopedOps::ScopedOps(const Ops &replacement)
    : previous_(g_ops.exchange(&replacement, std::memory_order_acq_rel)) {}

ScopedOps::~ScopedOps() { g_ops.store(previous_, std::memory_order_release); }

}  // namespace sys
}  // namespace vemo
