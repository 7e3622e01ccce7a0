#include "ipc/frame_reader.h"
#include <stdlib.h>
#include <string.h>
#include "vemo/codes.h"
#include "vemo/ipc_socket.h"
namespace vemo {
FrameReader::~FrameReader() { free(last_); }
int FrameReader::next(int timeout_ms, const char **text, uint32_t *length) {
  free(last_);
  last_ = nullptr;
  if (failed_) return failure_;
  int rc = ipc_socket_recv_timed(fd_, timeout_ms, &last_);
  if (rc == 0) {
    *text = last_;
    *length = static_cast<uint32_t>(strlen(last_));
    return 0;
  }
  free(last_);
  last_ = nullptr;
  if (rc != VEMO_ERR_RECV_TIMEOUT) {
    failed_ = true;
    failure_ = rc;
  }
  return rc;
}
}  // namespace vemo
