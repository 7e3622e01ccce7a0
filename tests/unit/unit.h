// What every unit test file shares: the captured log as golden lines, a clock the tests drive,
// and the driver of tables of calls and their lines.
#ifndef VEMO_TESTS_UNIT_UNIT_H
#define VEMO_TESTS_UNIT_UNIT_H

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/waits.h"

namespace vemo_unit {

using namespace vemo_test;
using Lines = std::vector<std::string>;

// The log as "LEVEL function: message", only the lines at level when it is given ("ERROR", ...).
inline Lines golden(LogCapture &log, const std::string &level = "") {
  Lines out;
  for (const std::string &line : log.lines()) {
    size_t message = line.find(" | - "), field = line.find(" | ");
    if (message == std::string::npos || field == message) continue;
    size_t function = line.rfind(" | ", message - 1) + 3;
    std::string lv = line.substr(field + 3, 5);
    lv.erase(0, lv.find_first_not_of(' '));
    if (level.empty() || lv == level)
      out.push_back(lv + " " + line.substr(function, message - function) + ": " + line.substr(message + 5));
  }
  return out;
}

inline std::atomic<uint32_t> g_now{1000};  // the clock of the lists under test
inline uint32_t fake_tick() { return g_now.load(); }

// Runs sleep on a thread of its own until sleepers() counts it asleep in the library, then event;
// what sleep returned once it woke.
inline int woken(const std::function<int()> &sleep, const std::function<int()> &sleepers,
                 const std::function<void()> &event) {
  std::atomic<int> result{-99999};
  std::thread sleeper([&] { result.store(sleep()); });
  EXPECT_TRUE(eventually([&] { return sleepers() == 1; }));
  event();
  sleeper.join();
  return result.load();
}

// A call (mostly a refused one), its result and the golden lines it logs.
struct Call {
  std::function<int()> call;
  int code;
  Lines lines;
};
inline void expect_calls(const std::vector<Call> &rows) {
  for (const Call &row : rows) {
    LogCapture log;
    EXPECT_EQ(row.call(), row.code) << ::testing::PrintToString(row.lines);
    EXPECT_EQ(golden(log), row.lines);
  }
}

}  // namespace vemo_unit

#endif
