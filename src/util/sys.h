// The system-call seam of the transport and the client.
//
// Every socket, poll, file and allocation call of the transport goes through sys::ops(), a
// table of plain function pointers that defaults to the real calls. Tests swap in a table of
// their own with ScopedOps to make a call fail (EINTR, EAGAIN, EPIPE, no memory) or come short,
// which a real socket cannot be made to do on demand.
//
// The table is read through one atomic pointer, so swapping it is safe while other threads are
// inside calls; a thread that already fetched the old table may finish its call with it.
#ifndef VEMO_UTIL_SYS_H
#define VEMO_UTIL_SYS_H

#include <poll.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace vemo {
namespace sys {

struct Ops {
  int (*socket)(int domain, int type, int protocol);
  int (*bind)(int fd, const struct sockaddr *address, socklen_t length);
  int (*listen)(int fd, int backlog);
  int (*connect)(int fd, const struct sockaddr *address, socklen_t length);
  int (*accept)(int fd, struct sockaddr *address, socklen_t *length);
  ssize_t (*send)(int fd, const void *buffer, size_t count, int flags);
  // A frame's header and text go out together from two places, without being copied into one.
  ssize_t (*sendmsg)(int fd, const struct msghdr *message, int flags);
  ssize_t (*recv)(int fd, void *buffer, size_t count, int flags);
  int (*poll)(struct pollfd *fds, nfds_t count, int timeout_ms);
  // fcntl is variadic; every command we use takes one int argument (or none, then 0).
  int (*fcntl)(int fd, int command, int argument);
  int (*shutdown)(int fd, int how);
  int (*close)(int fd);
  int (*access)(const char *path, int mode);
  int (*unlink)(const char *path);
  // Allocation of buffers that are later released with free(): the default is malloc itself,
  // so a test can make one allocation fail without touching the rest of the process.
  void *(*malloc)(size_t size);
};

// The table in force.
const Ops &ops();

// The real calls, for tests that replace only a few entries and forward the rest.
const Ops &real_ops();

// Test-only: puts ops in force for the lifetime of the object and restores the previous table
// afterwards. ops must outlive the object. Overrides nest; destroy them in reverse order.
class ScopedOps {
 public:
  explicit ScopedOps(const Ops &ops);
  ~ScopedOps();
  ScopedOps(const ScopedOps &) = delete;
  ScopedOps &operator=(const ScopedOps &) = delete;

 private:
  const Ops *previous_;
};

}  // namespace sys
}  // namespace vemo

#endif
