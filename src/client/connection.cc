#include "client/connection.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>

#include "ipc/frame_send.h"
#include "util/sys.h"
#include "vemo/codes.h"
#include "vemo/util.h"

namespace vemo {

Connection *Connection::adopt(int fd) {
  void *memory = malloc(sizeof(Connection));
  if (memory == nullptr) {
    sys::ops().close(fd);
    return nullptr;
  }
  return new (memory) Connection(fd);
}

Connection *Connection::ref() {
  refs_.fetch_add(1, std::memory_order_relaxed);
  return this;
}

void Connection::unref() {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  sys::ops().close(fd_);
  this->~Connection();
  free(this);
}

void Connection::shut() {
  if (shut_.exchange(true, std::memory_order_acq_rel)) return;
  sys::ops().shutdown(fd_, SHUT_RDWR);
  MutexLock hold(writer_mu_);
  writer_free_.broadcast();
}

int Connection::send(const char *text, const Deadline &deadline) {
  {
    MutexLock hold(writer_mu_);
    for (;;) {
      if (is_shut()) return VEMO_ERR_DISCONNECTED;
      if (!writing_) break;
      int32_t left = deadline.remaining_ms(get_tick_count());
      if (left <= 0) return VEMO_ERR_TIMEOUT;
      writer_free_.wait_for_ms(writer_mu_, left);
    }
    writing_ = true;
  }
  bool cut = false;
  int rc = frame_send(fd_, text, deadline, &cut);
  if (cut) shut();
  MutexLock hold(writer_mu_);
  writing_ = false;
  writer_free_.signal();
  return rc;
}

}  // namespace vemo
