// Captures the library's log lines for a test's lifetime, and matches them against golden lines.
#ifndef VEMO_TESTS_SUPPORT_LOG_CAPTURE_H
#define VEMO_TESTS_SUPPORT_LOG_CAPTURE_H

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace vemo_test {

// The parts of a library log line ("LEVEL | pid:thread | file:line | function | - message").
struct LogLine {
  std::string level;
  std::string function;
  std::string message;
};
bool parse_log_line(const std::string &line, LogLine *out);

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // Everything logged since construction (or the last clear).
  std::string text();
  std::vector<std::string> lines();
  // The message parts of the lines of function (any when empty) at level (any when empty).
  std::vector<std::string> messages(const std::string &function = "", const std::string &level = "");
  // "LEVEL function: message" of every WARN and ERROR line (of every line with debug), in order.
  std::vector<std::string> summary(bool debug = false);
  void clear();

 private:
  FILE *file_;
};

// True when text matches pattern, in which <num> stands for an integer, <addr> for an address
// ("0x..." or "(nil)") and <time> for a date and time of day; everything else is literal.
bool golden_match(const std::string &pattern, const std::string &text);
// The lines match the golden lines one for one; on failure says which differ.
::testing::AssertionResult golden_lines(const std::vector<std::string> &golden,
                                        const std::vector<std::string> &lines);

}  // namespace vemo_test

#endif
