// The bytes of a frame, without any I/O.
#include "ipc/frame_codec.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

using namespace vemo::frame;

TEST(FrameCodec, TextsBecomeTheirExactFrames) {
  const struct {
    std::string text;
    std::vector<uint8_t> frame;
  } cases[] = {
      {"{\"a\":1}", {0xA1, 0xB2, 0x00, 0x00, 0x00, 0x07, '{', '"', 'a', '"', ':', '1', '}'}},
      {"", {0xA1, 0xB2, 0x00, 0x00, 0x00, 0x00}},
  };
  for (const auto &c : cases) {
    std::vector<uint8_t> out(frame_size(c.text.size()), 0xEE);
    encode(c.text.data(), static_cast<uint32_t>(c.text.size()), out.data());
    EXPECT_EQ(out, c.frame);
  }
}

TEST(FrameCodec, LengthIsBigEndianBothWaysWhateverTheHost) {
  const struct {
    uint32_t length;
    uint8_t bytes[kLengthSize];
  } cases[] = {
      {7, {0x00, 0x00, 0x00, 0x07}},          {0x01020304u, {0x01, 0x02, 0x03, 0x04}},
      {65536, {0x00, 0x01, 0x00, 0x00}},      {kMaxPayload, {0x00, 0x40, 0x00, 0x00}},
      {0x80000000u, {0x80, 0x00, 0x00, 0x00}},  // no sign extension of the top byte
      {0xFFFFFFFFu, {0xFF, 0xFF, 0xFF, 0xFF}},
  };
  for (const auto &c : cases) {
    uint8_t header[kHeaderSize];
    write_header(c.length, header);
    EXPECT_TRUE(magic_matches(header));
    EXPECT_EQ(0, memcmp(header + kMagicSize, c.bytes, kLengthSize)) << c.length;
    EXPECT_EQ(decode_length(c.bytes), c.length);
  }
}

TEST(FrameCodec, MagicMustBeBothBytesInOrder) {
  const uint8_t good[kMagicSize] = {0xA1, 0xB2};
  EXPECT_TRUE(magic_matches(good));
  for (const auto &bad : {std::vector<uint8_t>{0xB2, 0xA1}, {0xA1, 0x00}, {0x00, 0xB2}})
    EXPECT_FALSE(magic_matches(bad.data()));
}

TEST(FrameCodec, PayloadLimitIsInclusive) {
  EXPECT_TRUE(payload_length_ok(0));
  EXPECT_TRUE(payload_length_ok(kMaxPayload));
  EXPECT_FALSE(payload_length_ok(static_cast<size_t>(kMaxPayload) + 1));
  EXPECT_FALSE(payload_length_ok(0xFFFFFFFFu));
}

}  // namespace
