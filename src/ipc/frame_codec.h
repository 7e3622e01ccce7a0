// The frame layout of the transport, without any I/O:
//
//   offset 0  0xA1             magic, first byte
//   offset 1  0xB2             magic, second byte
//   offset 2  L (4 bytes)      payload length, unsigned, most significant byte first
//   offset 6  L bytes          the text, without its terminating zero
//
// Kept apart from the socket code so that the byte layout is tested (and fuzzed) on its own.
#ifndef VEMO_IPC_FRAME_CODEC_H
#define VEMO_IPC_FRAME_CODEC_H

#include <stddef.h>
#include <stdint.h>

#include "vemo/ipc_socket.h"

namespace vemo {
namespace frame {

constexpr size_t kMagicSize = 2;
constexpr size_t kLengthSize = 4;
constexpr size_t kHeaderSize = IPC_FRAME_HEADER_SIZE;
static_assert(kMagicSize + kLengthSize == kHeaderSize, "header = magic + length");

constexpr uint8_t kMagic0 = (IPC_FRAME_MAGIC >> 8) & 0xFF;
constexpr uint8_t kMagic1 = IPC_FRAME_MAGIC & 0xFF;

constexpr uint32_t kMaxPayload = IPC_FRAME_MAX_PAYLOAD;

// True when a payload of length bytes may be sent or received. The limit also keeps the
// receive buffer size (length + 1) and the frame size (length + 6) far from overflowing.
inline bool payload_length_ok(size_t length) { return length <= kMaxPayload; }

// The size of the frame that carries a payload of length bytes.
inline size_t frame_size(size_t length) { return kHeaderSize + length; }

// Writes the six header bytes for a payload of length bytes.
void write_header(uint32_t length, uint8_t out[kHeaderSize]);

// Writes the whole frame (header and the length bytes of text) into out, which holds at least
// frame_size(length) bytes. length must satisfy payload_length_ok().
void encode(const char *text, uint32_t length, uint8_t *out);

// True when the two bytes are 0xA1 0xB2, in that order.
bool magic_matches(const uint8_t magic[kMagicSize]);

// The payload length from the four length bytes (big-endian).
uint32_t decode_length(const uint8_t length[kLengthSize]);

}  // namespace frame
}  // namespace vemo

#endif
