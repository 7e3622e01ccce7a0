// The captured log as golden lines "LEVEL function: message", the form the tables spell out, so
// that a row names the level, the function that logged and the exact text in one string.
#ifndef VEMO_TESTS_UNIT_GOLDEN_H
#define VEMO_TESTS_UNIT_GOLDEN_H

#include <string>
#include <vector>

#include "support/log_capture.h"

namespace vemo_unit {

using Lines = std::vector<std::string>;

// Only the lines at level when it is given ("ERROR", "INFO", ...).
inline Lines golden(vemo_test::LogCapture &log, const std::string &level = "") {
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

}  // namespace vemo_unit

#endif
