// Captures the library's log lines for a test's lifetime.
#ifndef VEMO_TESTS_SUPPORT_LOG_CAPTURE_H
#define VEMO_TESTS_SUPPORT_LOG_CAPTURE_H

#include <stdio.h>

#include <string>
#include <vector>

namespace vemo_test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // Everything logged since construction (or the last clear).
  std::string text();
  std::vector<std::string> lines();
  // The message parts (after " | - ") of the lines whose function field is function (any when
  // empty) and whose level is level (any when empty).
  std::vector<std::string> messages(const std::string &function = "", const std::string &level = "");
  bool contains(const std::string &message);
  void clear();

 private:
  FILE *file_;
};

}  // namespace vemo_test

#endif
