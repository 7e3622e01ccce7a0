// Placeholder until the deadline-bound sender lands: sends one frame, blocking.
#ifndef VEMO_IPC_FRAME_SEND_H
#define VEMO_IPC_FRAME_SEND_H
#include "util/clock.h"
namespace vemo {
int frame_send(int fd, const char *text, const Deadline &deadline, bool *stream_cut);
}
#endif
