#include "support/log_capture.h"

#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "util/log_internal.h"

namespace vemo_test {

LogCapture::LogCapture() : file_(tmpfile()) { vemo::log_set_stream(file_); }

LogCapture::~LogCapture() {
  vemo::log_set_stream(nullptr);
  fclose(file_);
}

std::string LogCapture::text() {
  flockfile(file_);
  fflush(file_);
  long end = ftell(file_);
  std::string out(static_cast<size_t>(end), '\0');
  rewind(file_);
  size_t got = fread(&out[0], 1, out.size(), file_);
  out.resize(got);
  fseek(file_, 0, SEEK_END);
  funlockfile(file_);
  return out;
}

std::vector<std::string> LogCapture::lines() {
  std::vector<std::string> out;
  std::istringstream in(text());
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

std::vector<std::string> LogCapture::messages(const std::string &function, const std::string &level) {
  std::vector<std::string> out;
  for (const std::string &line : lines()) {
    size_t sep = line.find(" | - ");
    if (sep == std::string::npos) continue;
    size_t fn_start = line.rfind(" | ", sep - 1);
    std::string fn = line.substr(fn_start + 3, sep - fn_start - 3);
    if (!function.empty() && fn != function) continue;
    if (!level.empty()) {
      std::string padded = std::string(5 - std::min<size_t>(5, level.size()), ' ') + level;
      if (line.find(" | " + padded + " | ") == std::string::npos &&
          line.compare(0, padded.size() + 3, padded + " | ") != 0)
        continue;
    }
    out.push_back(line.substr(sep + 5));
  }
  return out;
}

bool LogCapture::contains(const std::string &message) {
  for (const std::string &m : messages())
    if (m == message) return true;
  return false;
}

void LogCapture::clear() {
  flockfile(file_);
  fflush(file_);
  if (ftruncate(fileno(file_), 0) != 0) {
  }
  rewind(file_);
  funlockfile(file_);
}

}  // namespace vemo_test
