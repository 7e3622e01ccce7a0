// Placeholder until the buffered reader lands.
#ifndef VEMO_IPC_FRAME_READER_H
#define VEMO_IPC_FRAME_READER_H
#include <stdint.h>
namespace vemo {
class FrameReader {
 public:
  explicit FrameReader(int fd) : fd_(fd) {}
  ~FrameReader();
  FrameReader(const FrameReader &) = delete;
  FrameReader &operator=(const FrameReader &) = delete;
  int next(int timeout_ms, const char **text, uint32_t *length);
 private:
  int fd_;
  char *last_ = nullptr;
  bool failed_ = false;
  int failure_ = 0;
};
}  // namespace vemo
#endif
