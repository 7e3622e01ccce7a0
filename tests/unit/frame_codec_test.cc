#include "ipc/frame_codec.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

using namespace vemo::frame;

std::vector<uint8_t> encoded(const std::string &text) {
  std::vector<uint8_t> out(frame_size(text.size()), 0xEE);
  encode(text.data(), static_cast<uint32_t>(text.size()), out.data());
  return out;
}

TEST(FrameCodec, SmallJsonTextIsThirteenExactBytes) {
  std::vector<uint8_t> expected = {0xA1, 0xB2, 0x00, 0x00, 0x00, 0x07,
                                   '{',  '"',  'a',  '"',  ':',  '1', '}'};
  EXPECT_EQ(encoded("{\"a\":1}"), expected);
}

TEST(FrameCodec, EmptyTextIsHeaderOnly) {
  std::vector<uint8_t> expected = {0xA1, 0xB2, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(encoded(""), expected);
}

TEST(FrameCodec, LengthIsBigEndianWhateverTheHost) {
  uint8_t header[kHeaderSize];
  write_header(0x01020304u, header);
  const uint8_t expected[kHeaderSize] = {0xA1, 0xB2, 0x01, 0x02, 0x03, 0x04};
  EXPECT_EQ(0, memcmp(header, expected, kHeaderSize));
  write_header(0xFFFFFFFEu, header);
  EXPECT_EQ(header[2], 0xFF);
  EXPECT_EQ(header[5], 0xFE);
}

TEST(FrameCodec, DecodeReadsMostSignificantByteFirst) {
  const uint8_t a[kLengthSize] = {0x00, 0x00, 0x00, 0x07};
  const uint8_t b[kLengthSize] = {0x01, 0x02, 0x03, 0x04};
  const uint8_t c[kLengthSize] = {0xFF, 0xFF, 0xFF, 0xFF};
  const uint8_t d[kLengthSize] = {0x80, 0x00, 0x00, 0x00};
  EXPECT_EQ(decode_length(a), 7u);
  EXPECT_EQ(decode_length(b), 0x01020304u);
  EXPECT_EQ(decode_length(c), 0xFFFFFFFFu);
  EXPECT_EQ(decode_length(d), 0x80000000u);  // no sign extension of the top byte
}

TEST(FrameCodec, EncodeAndDecodeAgreeOnEveryByteOfTheLength) {
  for (uint32_t length : {0u, 1u, 255u, 256u, 65535u, 65536u, 0x00FFFFFFu, kMaxPayload}) {
    uint8_t header[kHeaderSize];
    write_header(length, header);
    EXPECT_TRUE(magic_matches(header));
    EXPECT_EQ(decode_length(header + kMagicSize), length);
  }
}

TEST(FrameCodec, MagicMustBeBothBytesInOrder) {
  const uint8_t good[kMagicSize] = {0xA1, 0xB2};
  const uint8_t swapped[kMagicSize] = {0xB2, 0xA1};
  const uint8_t first_only[kMagicSize] = {0xA1, 0x00};
  const uint8_t second_only[kMagicSize] = {0x00, 0xB2};
  EXPECT_TRUE(magic_matches(good));
  EXPECT_FALSE(magic_matches(swapped));
  EXPECT_FALSE(magic_matches(first_only));
  EXPECT_FALSE(magic_matches(second_only));
}

TEST(FrameCodec, PayloadLimitIsInclusive) {
  EXPECT_TRUE(payload_length_ok(0));
  EXPECT_TRUE(payload_length_ok(kMaxPayload));
  EXPECT_FALSE(payload_length_ok(static_cast<size_t>(kMaxPayload) + 1));
  EXPECT_FALSE(payload_length_ok(0xFFFFFFFFu));
}

TEST(FrameCodec, FrameSizeAddsTheHeader) {
  EXPECT_EQ(frame_size(0), 6u);
  EXPECT_EQ(frame_size(7), 13u);
}

}  // namespace
