#include "ipc/frame_codec.h"

#include <string.h>

namespace vemo {
namespace frame {

void write_header(uint32_t length, uint8_t out[kHeaderSize]) {
  out[0] = kMagic0;
  out[1] = kMagic1;
  // Byte by byte rather than htonl + memcpy: the layout is the same on every host and needs
  // no alignment.
  out[2] = static_cast<uint8_t>(length >> 24);
  out[3] = static_cast<uint8_t>(length >> 16);
  out[4] = static_cast<uint8_t>(length >> 8);
  out[5] = static_cast<uint8_t>(length);
}

void encode(const char *text, uint32_t length, uint8_t *out) {
  write_header(length, out);
  if (length > 0) memcpy(out + kHeaderSize, text, length);
}

bool magic_matches(const uint8_t magic[kMagicSize]) {
  return magic[0] == kMagic0 && magic[1] == kMagic1;
}

uint32_t decode_length(const uint8_t length[kLengthSize]) {
  return (static_cast<uint32_t>(length[0]) << 24) | (static_cast<uint32_t>(length[1]) << 16) |
         (static_cast<uint32_t>(length[2]) << 8) | static_cast<uint32_t>(length[3]);
}

}  // namespace frame
}  // namespace vemo
