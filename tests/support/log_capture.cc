#include "support/log_capture.h"

#include <ctype.h>
#include <string.h>
#include <unistd.h>

#include <sstream>

#include "util/log_internal.h"

namespace vemo_test {

bool parse_log_line(const std::string &line, LogLine *out) {
  const size_t sep = line.find(" | - ");
  if (sep == std::string::npos) return false;
  std::vector<std::string> fields;
  for (size_t start = 0;;) {
    const size_t bar = line.find(" | ", start);
    fields.push_back(line.substr(start, bar - start));
    if (bar == sep) break;
    start = bar + 3;
  }
  if (fields.size() < 4) return false;
  const std::string &level = fields[fields.size() - 4];
  out->level = level.substr(level.find_first_not_of(' '));
  out->function = fields.back();
  out->message = line.substr(sep + 5);
  return true;
}

LogCapture::LogCapture() : file_(tmpfile()) { vemo::log_set_stream(file_); }

LogCapture::~LogCapture() {
  vemo::log_set_stream(nullptr);
  fclose(file_);
}

std::string LogCapture::text() {
  flockfile(file_);
  fflush(file_);
  std::string out(static_cast<size_t>(ftell(file_)), '\0');
  rewind(file_);
  out.resize(fread(&out[0], 1, out.size(), file_));
  fseek(file_, 0, SEEK_END);
  funlockfile(file_);
  return out;
}

std::vector<std::string> LogCapture::lines() {
  std::vector<std::string> out;
  std::istringstream in(text());
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::vector<std::string> LogCapture::messages(const std::string &function, const std::string &level) {
  std::vector<std::string> out;
  LogLine l;
  for (const std::string &line : lines()) {
    if (!parse_log_line(line, &l)) continue;
    if ((function.empty() || l.function == function) && (level.empty() || l.level == level))
      out.push_back(l.message);
  }
  return out;
}

std::vector<std::string> LogCapture::summary(bool debug) {
  std::vector<std::string> out;
  LogLine l;
  for (const std::string &line : lines()) {
    if (parse_log_line(line, &l) && (debug || l.level == "WARN" || l.level == "ERROR"))
      out.push_back(l.level + " " + l.function + ": " + l.message);
  }
  return out;
}

void LogCapture::clear() {
  flockfile(file_);
  fflush(file_);
  if (ftruncate(fileno(file_), 0) != 0) perror("ftruncate");
  rewind(file_);
  funlockfile(file_);
}

namespace {

// The length of the text at t that placeholder matches; 0 for none.
size_t placeholder_length(const std::string &placeholder, const char *t) {
  const char *p = t;
  if (placeholder == "<num>") {
    if (*p == '-') ++p;
    while (isdigit(static_cast<unsigned char>(*p))) ++p;
    return p > t && isdigit(static_cast<unsigned char>(p[-1])) ? p - t : 0;
  }
  if (placeholder == "<addr>") {
    if (strncmp(p, "(nil)", 5) == 0) return 5;
    if (strncmp(p, "0x", 2) != 0) return 0;
    for (p += 2; isxdigit(static_cast<unsigned char>(*p));) ++p;
    return p - t;
  }
  if (placeholder == "<time>") {
    while (isdigit(static_cast<unsigned char>(*p)) || strchr("-:. ", *p) != nullptr) ++p;
    while (p > t && p[-1] == ' ') --p;
    return p - t;
  }
  return 0;
}

}  // namespace

bool golden_match(const std::string &pattern, const std::string &text) {
  size_t t = 0;
  for (size_t p = 0; p < pattern.size();) {
    if (pattern[p] == '<') {
      const size_t close = pattern.find('>', p);
      if (close != std::string::npos) {
        const size_t n = placeholder_length(pattern.substr(p, close - p + 1), text.c_str() + t);
        if (n > 0) {
          t += n;
          p = close + 1;
          continue;
        }
      }
    }
    if (t >= text.size() || pattern[p] != text[t]) return false;
    ++p;
    ++t;
  }
  return t == text.size();
}

::testing::AssertionResult golden_lines(const std::vector<std::string> &golden,
                                        const std::vector<std::string> &lines) {
  bool same = golden.size() == lines.size();
  for (size_t i = 0; same && i < golden.size(); ++i) same = golden_match(golden[i], lines[i]);
  if (same) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "expected lines:\n";
  for (const std::string &g : golden) failure << "  " << g << "\n";
  failure << "got:\n";
  for (const std::string &l : lines) failure << "  " << l << "\n";
  return failure;
}

}  // namespace vemo_test
