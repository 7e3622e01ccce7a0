#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <syslog.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "util/clock.h"
#include "util/log_internal.h"
#include "vemo/util.h"
#include "vemo/vemo_ext.h"

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

// ---- The application's log sink --------------------------------------------------------------

struct Recorded {
  int level;
  std::string function, file, message;
  int line;
};

struct Recorder {
  std::mutex mu;
  std::vector<Recorded> lines;
  std::atomic<long> calls{0};
  std::atomic<bool> retired{false};  // set once the install that replaced this sink returned
  std::atomic<long> late_calls{0};
  int install_result = 0;  // of an install tried from within the sink
};

void record(void *user, int level, const char *function, const char *file, int line,
            const char *message) {
  auto *rec = static_cast<Recorder *>(user);
  std::lock_guard<std::mutex> hold(rec->mu);
  rec->lines.push_back({level, function, file, message, line});
}

void count(void *user, int, const char *, const char *, int, const char *) {
  auto *rec = static_cast<Recorder *>(user);
  rec->calls.fetch_add(1);
  std::this_thread::yield();  // a call that lasts
  // Checked as the call ends: the whole call must be over before the next install returns.
  if (rec->retired.load()) rec->late_calls.fetch_add(1);
}

void reentrant(void *user, int, const char *, const char *, int, const char *) {
  static_cast<Recorder *>(user)->install_result = vemo_set_log_sink(nullptr, nullptr, 0);
  LOG_PRINT("ERROR", "logged by the sink");
}

TEST(LogSink, DeliversLinesAtOrAboveTheMinimumLevelWithTheirPlace) {
  struct Case {
    int min_level;
    const char *level;
    int delivered_as;  // -1: dropped
  } const cases[] = {
      {VEMO_LOG_DEBUG, "DEBUG", VEMO_LOG_DEBUG},
      {VEMO_LOG_DEBUG, "ERROR", VEMO_LOG_ERROR},
      {VEMO_LOG_WARN, "INFO", -1},
      {VEMO_LOG_WARN, "WARN", VEMO_LOG_WARN},
      {VEMO_LOG_INFO, "DEBUG", -1},
      {VEMO_LOG_INFO, "INFO", VEMO_LOG_INFO},
      {VEMO_LOG_ERROR, "NOTICE", VEMO_LOG_ERROR},  // unknown names are never filtered away
  };
  vemo_test::LogCapture capture;
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.level) + " at minimum " + std::to_string(c.min_level));
    Recorder rec;
    ASSERT_EQ(vemo_set_log_sink(record, &rec, c.min_level), VEMO_OK);
    vemo_log_print(c.level, "src/ipc/ipc_socket.cc", 249, "ipc_socket_send", "IPC send to %d: %s",
                   4, "{}");
    ASSERT_EQ(vemo_set_log_sink(nullptr, nullptr, 0), VEMO_OK);
    if (c.delivered_as < 0) {
      EXPECT_TRUE(rec.lines.empty());
      continue;
    }
    ASSERT_EQ(rec.lines.size(), 1u);
    const Recorded &got = rec.lines[0];
    EXPECT_EQ(got.level, c.delivered_as);
    EXPECT_EQ(got.function, "ipc_socket_send");
    EXPECT_EQ(got.file, "src/ipc/ipc_socket.cc");
    EXPECT_EQ(got.line, 249);
    EXPECT_EQ(got.message, "IPC send to 4: {}");
  }
  EXPECT_EQ(capture.text(), "");
}

TEST(LogSink, RefusesBadInstallsAndCutsLongMessages) {
  vemo_test::LogCapture capture;
  Recorder rec;
  EXPECT_EQ(vemo_set_log_sink(record, &rec, VEMO_LOG_ERROR + 1), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(vemo_set_log_sink(record, &rec, VEMO_LOG_DEBUG - 1), VEMO_ERR_INVALID_ARG);
  ASSERT_EQ(vemo_set_log_sink(record, &rec, VEMO_LOG_DEBUG), VEMO_OK);
  std::string request(3 * VEMO_LOG_MESSAGE_MAX, 'x');
  LOG_PRINT("INFO", "IPC send to 4: %s", request.c_str());
  ASSERT_EQ(rec.lines.size(), 1u);
  EXPECT_EQ(rec.lines[0].message,
            "IPC send to 4: " + request.substr(0, VEMO_LOG_MESSAGE_MAX - 19) + "...");

  // A sink may neither install another (it would wait for itself) nor reach itself by logging.
  Recorder inner;
  ASSERT_EQ(vemo_set_log_sink(reentrant, &inner, VEMO_LOG_DEBUG), VEMO_OK);
  LOG_PRINT("ERROR", "to the sink");
  ASSERT_EQ(vemo_set_log_sink(nullptr, nullptr, 0), VEMO_OK);
  EXPECT_EQ(inner.install_result, VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(
      capture.messages("", "WARN"),
      (std::vector<std::string>{"the level is invalid, level=4", "the level is invalid, level=-1",
                                "fail to set the log sink from within a sink"}));
  EXPECT_EQ(capture.messages("", "ERROR"), std::vector<std::string>{"logged by the sink"});
}

TEST(LogSink, DefaultLineIsUnchangedAndTheStreamSinkWritesIt) {
  vemo_test::LogCapture capture;
  auto log_info_and_warn = [] {
    vemo_log_print("INFO", "src/ipc/ipc_socket.cc", 57, "ipc_socket_recv",
                   "IPC receive from %d: %s", 5, "{\"a\":1}");
    vemo_log_print("WARN", "src/ipc/ipc_socket.cc", 58, "ipc_socket_recv", "x=%d", 1);
  };
  log_info_and_warn();
  ASSERT_EQ(vemo_set_log_sink(vemo_log_sink_stream, nullptr, VEMO_LOG_WARN), VEMO_OK);
  log_info_and_warn();
  ASSERT_EQ(vemo_set_log_sink(nullptr, nullptr, 0), VEMO_OK);
  log_info_and_warn();
  // The timestamps differ; everything after them is the same bytes.
  std::vector<std::string> lines;
  for (const std::string &line : capture.lines()) lines.push_back(line.substr(23));
  std::string info =
      " |  INFO | " + thread_field() +
      " | src/ipc/ipc_socket.cc:57 | ipc_socket_recv | - IPC receive from 5: {\"a\":1}";
  std::string warn =
      " |  WARN | " + thread_field() + " | src/ipc/ipc_socket.cc:58 | ipc_socket_recv | - x=1";
  EXPECT_EQ(lines, (std::vector<std::string>{info, warn, warn, info, warn}));
}

int g_syslog_priority;
std::string g_syslog_text;
void fake_syslog(int priority, const char *format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  g_syslog_priority = priority;
  g_syslog_text = text;
}

TEST(LogSink, SyslogSinkUsesTheMatchingPriority) {
  vemo::log_set_syslog(fake_syslog);
  const struct {
    int level, priority;
    const char *name;
  } cases[] = {{VEMO_LOG_ERROR, LOG_ERR, "ERROR"},
               {VEMO_LOG_WARN, LOG_WARNING, " WARN"},
               {VEMO_LOG_INFO, LOG_INFO, " INFO"},
               {VEMO_LOG_DEBUG, LOG_DEBUG, "DEBUG"}};
  for (const auto &c : cases) {
    vemo_log_sink_syslog(nullptr, c.level, "task_receive", "src/client/receiver.cc", 12, "m=1");
    EXPECT_EQ(g_syslog_priority, c.priority);
    EXPECT_EQ(g_syslog_text,
              std::string(c.name) + " | src/client/receiver.cc:12 | task_receive | - m=1");
  }
  vemo::log_set_syslog(nullptr);
}

// Installs follow one another while threads log: every line reaches exactly one sink, and no
// sink is called once the install that replaced it has returned.
TEST(LogSink, SwapsUnderLoadLoseNoLineAndNeverCallAReplacedSink) {
  constexpr int kInstalls = 1000;
  std::vector<std::unique_ptr<Recorder>> sinks;
  for (int i = 0; i < kInstalls; ++i) sinks.emplace_back(new Recorder);
  ASSERT_EQ(vemo_set_log_sink(count, sinks[0].get(), VEMO_LOG_DEBUG), VEMO_OK);
  std::atomic<bool> stop{false};
  std::atomic<long> logged{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!stop.load()) {
        LOG_PRINT("DEBUG", "line");
        logged.fetch_add(1);
      }
    });
  }
  for (int i = 1; i < kInstalls; ++i) {
    ASSERT_EQ(vemo_set_log_sink(count, sinks[i].get(), VEMO_LOG_DEBUG), VEMO_OK);
    sinks[i - 1]->retired.store(true);
  }
  stop.store(true);
  for (std::thread &t : threads) t.join();
  ASSERT_EQ(vemo_set_log_sink(nullptr, nullptr, 0), VEMO_OK);
  long delivered = 0;
  for (const auto &sink : sinks) {
    EXPECT_EQ(sink->late_calls.load(), 0);
    delivered += sink->calls.load();
  }
  EXPECT_EQ(delivered, logged.load());
}

}  // namespace
