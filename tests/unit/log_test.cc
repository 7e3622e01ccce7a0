// The log line, and the application's log sink that may take it instead of the stream.
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <regex>

#include "unit/unit.h"
#include "util/clock.h"
#include "util/log_internal.h"
#include "vemo/util.h"
#include "vemo/vemo_ext.h"

namespace {

using namespace vemo_unit;

TEST(LogLine, NamesLevelThreadFileLineAndFunctionOfTheCaller) {
  LogCapture log;
  const int line = __LINE__ + 1;
  for (const char *level : {"ERROR", "WARN", "INFO", "DEBUG"}) LOG_PRINT(level, "IPC send to %d: %s", 4, "{}");
  char thread[64];
  snprintf(thread, sizeof thread, "%d:0x%lX", static_cast<int>(getpid()), static_cast<unsigned long>(pthread_self()));
  const std::regex timestamp("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}$");
  Lines lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  for (std::string &l : lines) {
    EXPECT_TRUE(std::regex_match(l.substr(0, 23), timestamp)) << l;
    l.erase(0, 23);
  }
  const std::string rest = std::string(" | ") + thread + " | tests/unit/log_test.cc:" + std::to_string(line) +
                           " | TestBody | - IPC send to 4: {}";
  EXPECT_EQ(lines, (Lines{" | ERROR" + rest, " |  WARN" + rest, " |  INFO" + rest, " | DEBUG" + rest}));
  struct timeval tv = {5, 5000};  // fields are zero-padded: 5 ms is ".005"
  char out[vemo::kTimestampSize];
  ASSERT_TRUE(vemo::format_timestamp(tv, out));
  EXPECT_TRUE(std::regex_match(out, timestamp) && strcmp(out + 19, ".005") == 0) << out;
  EXPECT_EQ(vemo::tick_elapsed(5u, 0xFFFFFFFBu), 10);  // differences survive the wrap
  EXPECT_EQ(vemo::tick_elapsed(100u, 200u), -100);
}

struct Recorder {
  std::vector<std::string> lines;  // "level function file:line message"
  std::atomic<long> calls{0}, late_calls{0};
  std::atomic<bool> retired{false};  // the install that replaced this sink has returned
  int install_result = 0;            // of an install tried from within the sink
};

void record(void *user, int level, const char *function, const char *file, int line, const char *message) {
  static_cast<Recorder *>(user)->lines.push_back(std::to_string(level) + " " + function + " " + file + ":" +
                                                 std::to_string(line) + " " + message);
}

TEST(LogSink, DeliversLinesAtOrAboveTheMinimumLevel) {
  // delivered_as -1: dropped
  const struct { int min_level; const char *level; int delivered_as; } rows[] = {
      {VEMO_LOG_DEBUG, "DEBUG", VEMO_LOG_DEBUG}, {VEMO_LOG_DEBUG, "ERROR", VEMO_LOG_ERROR},
      {VEMO_LOG_WARN, "INFO", -1},               {VEMO_LOG_WARN, "WARN", VEMO_LOG_WARN},
      {VEMO_LOG_INFO, "DEBUG", -1},              {VEMO_LOG_INFO, "INFO", VEMO_LOG_INFO},
      {VEMO_LOG_ERROR, "NOTICE", VEMO_LOG_ERROR},  // unknown names are never filtered away
  };
  LogCapture log;
  for (const auto &row : rows) {
    Recorder rec;
    ASSERT_EQ(vemo_set_log_sink(record, &rec, row.min_level), VEMO_OK);
    vemo_log_print(row.level, "src/ipc/ipc_socket.cc", 249, "ipc_socket_send", "IPC send to %d: %s", 4, "{}");
    ASSERT_EQ(vemo_set_log_sink(nullptr, nullptr, 0), VEMO_OK);
    Lines expected;
    if (row.delivered_as >= 0)
      expected = {std::to_string(row.delivered_as) + " ipc_socket_send src/ipc/ipc_socket.cc:249 IPC send to 4: {}"};
    EXPECT_EQ(rec.lines, expected) << row.level << " at " << row.min_level;
  }
  EXPECT_EQ(log.text(), "");  // a sink takes the line instead of the stream
}

void reentrant(void *user, int, const char *, const char *, int, const char *) {
  static_cast<Recorder *>(user)->install_result = vemo_set_log_sink(nullptr, nullptr, 0);
  LOG_PRINT("ERROR", "logged by the sink");
}

TEST(LogSink, RefusesBadInstallsAndCutsLongMessages) {
  LogCapture log;
  Recorder rec, inner;
  EXPECT_EQ(vemo_set_log_sink(record, &rec, VEMO_LOG_ERROR + 1), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(vemo_set_log_sink(record, &rec, VEMO_LOG_DEBUG - 1), VEMO_ERR_INVALID_ARG);
  ASSERT_EQ(vemo_set_log_sink(record, &rec, VEMO_LOG_DEBUG), VEMO_OK);
  const std::string request(3 * VEMO_LOG_MESSAGE_MAX, 'x');
  vemo_log_print("INFO", "f.cc", 1, "fn", "IPC send to 4: %s", request.c_str());
  EXPECT_EQ(rec.lines, Lines{"1 fn f.cc:1 IPC send to 4: " + request.substr(0, VEMO_LOG_MESSAGE_MAX - 19) + "..."});
  // A sink may neither install another (it would wait for itself) nor reach itself by logging.
  ASSERT_EQ(vemo_set_log_sink(reentrant, &inner, VEMO_LOG_DEBUG), VEMO_OK);
  LOG_PRINT("ERROR", "to the sink");
  ASSERT_EQ(vemo_set_log_sink(nullptr, nullptr, 0), VEMO_OK);
  EXPECT_EQ(inner.install_result, VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(golden(log), (Lines{"WARN vemo_set_log_sink: the level is invalid, level=4",
                                "WARN vemo_set_log_sink: the level is invalid, level=-1",
                                "WARN vemo_set_log_sink: fail to set the log sink from within a sink",
                                "ERROR reentrant: logged by the sink"}));
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
  const struct { int level, priority; const char *name; } rows[] = {
      {VEMO_LOG_ERROR, LOG_ERR, "ERROR"}, {VEMO_LOG_WARN, LOG_WARNING, " WARN"},
      {VEMO_LOG_INFO, LOG_INFO, " INFO"}, {VEMO_LOG_DEBUG, LOG_DEBUG, "DEBUG"}};
  for (const auto &row : rows) {
    vemo_log_sink_syslog(nullptr, row.level, "task_receive", "src/client/receiver.cc", 12, "m=1");
    EXPECT_EQ(g_syslog_priority, row.priority);
    EXPECT_EQ(g_syslog_text, std::string(row.name) + " | src/client/receiver.cc:12 | task_receive | - m=1");
  }
  vemo::log_set_syslog(nullptr);
}

void count(void *user, int, const char *, const char *, int, const char *) {
  auto *rec = static_cast<Recorder *>(user);
  rec->calls.fetch_add(1);
  std::this_thread::yield();  // a call that lasts: it must be over before the next install returns
  if (rec->retired.load()) rec->late_calls.fetch_add(1);
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
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&] {
      for (; !stop.load(); logged.fetch_add(1)) LOG_PRINT("DEBUG", "line");
    });
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
