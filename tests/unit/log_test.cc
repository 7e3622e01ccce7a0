#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "support/log_capture.h"
#include "util/clock.h"
#include "util/log_internal.h"
#include "vemo/util.h"

namespace {

std::string write_line(const char *timestamp, const char *level, const char *fmt, ...) {
  char *buf = nullptr;
  size_t size = 0;
  FILE *f = open_memstream(&buf, &size);
  va_list args;
  va_start(args, fmt);
  vemo::log_write(f, timestamp, level, "src/ipc/ipc_socket.cc", 57, "ipc_socket_recv", fmt, args);
  va_end(args);
  fclose(f);
  std::string out(buf, size);
  free(buf);
  return out;
}

std::string thread_field() {
  char buf[64];
  snprintf(buf, sizeof buf, "%d:0x%lX", (int)getpid(), (unsigned long)pthread_self());
  return buf;
}

TEST(LogLine, WithTimestampHasExactLayout) {
  std::string line = write_line("2024-03-05 14:07:09.042", "ERROR", "the magic does not match");
  EXPECT_EQ(line, "2024-03-05 14:07:09.042 | ERROR | " + thread_field() +
                      " | src/ipc/ipc_socket.cc:57 | ipc_socket_recv | - the magic does not match\n");
}

TEST(LogLine, WithoutTimestampStartsAtRightAlignedLevel) {
  EXPECT_EQ(write_line(nullptr, "WARN", "x=%d", 3).substr(0, 8), " WARN | ");
  EXPECT_EQ(write_line(nullptr, "INFO", "x").substr(0, 8), " INFO | ");
  EXPECT_EQ(write_line(nullptr, "ERROR", "x").substr(0, 8), "ERROR | ");
  EXPECT_EQ(write_line(nullptr, "DEBUG", "x").substr(0, 8), "DEBUG | ");
}

TEST(LogLine, MacroNamesCallerFunctionFileAndLine) {
  vemo_test::LogCapture capture;
  int line = __LINE__ + 1;
  LOG_PRINT("INFO", "IPC send to %d: %s", 4, "{\"a\":1}");
  std::string text = capture.text();
  std::regex shape(
      "^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3} \\|  INFO \\| \\d+:0x[0-9A-F]+ \\| "
      "tests/unit/log_test\\.cc:" + std::to_string(line) +
      " \\| TestBody \\| - IPC send to 4: \\{\"a\":1\\}\n$");
  EXPECT_TRUE(std::regex_match(text, shape)) << text;
}

TEST(Timestamp, AlwaysTwentyThreeCharactersWithPaddedFields) {
  struct timeval tv = {};
  tv.tv_sec = 5;       // a few seconds into the epoch, in whatever zone the machine is in
  tv.tv_usec = 5000;   // 5 ms
  char out[vemo::kTimestampSize];
  ASSERT_TRUE(vemo::format_timestamp(tv, out));
  EXPECT_EQ(strlen(out), 23u);
  EXPECT_STREQ(out + 19, ".005");
  std::regex shape("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}$");
  EXPECT_TRUE(std::regex_match(out, shape)) << out;

  char *now = get_current_time();
  ASSERT_NE(now, nullptr);
  EXPECT_EQ(strlen(now), 23u);
  free(now);
}

TEST(TickCount, DifferencesSurviveTheWrap) {
  EXPECT_EQ(vemo::tick_elapsed(5u, 0xFFFFFFFBu), 10);
  EXPECT_EQ(vemo::tick_elapsed(0u, 0xFFFFFFFFu), 1);
  EXPECT_EQ(vemo::tick_elapsed(100u, 200u), -100);
  uint32_t a = get_tick_count();
  usleep(2000);
  EXPECT_GE(vemo::tick_elapsed(get_tick_count(), a), 2);
}

TEST(CopyString, NullEmptyAndText) {
  EXPECT_EQ(copy_string(nullptr), nullptr);
  char *empty = copy_string("");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty[0], '\0');
  free(empty);
  const char *text = "hello";
  char *copy = copy_string(text);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, text);
  EXPECT_STREQ(copy, text);
  free(copy);
}

}  // namespace
