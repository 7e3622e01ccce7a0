#include "mw_test_support.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace mw_test {

namespace {

std::set<int> g_failing;
bool g_fail_all = false;
int g_calls = 0;

void *failing_malloc(size_t size) {
  int call = g_calls++;
  if (g_fail_all || g_failing.count(call) != 0) return nullptr;
  return malloc(size);
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
  return remove(path);
}

}  // namespace

std::string PatternToRegex(const std::string &pattern) {
  static const std::vector<std::pair<std::string, std::string>> kPlaceholders = {
      {"{ADDR}", "(0x[0-9a-f]+|\\(nil\\))"},
      {"{N}", "-?[0-9]+"},
      {"{TIME}", "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}"},
      {"{ANY}", ".*"}};
  std::string out;
  for (size_t i = 0; i < pattern.size();) {
    bool replaced = false;
    for (const auto &placeholder : kPlaceholders) {
      if (pattern.compare(i, placeholder.first.size(), placeholder.first) == 0) {
        out += placeholder.second;
        i += placeholder.first.size();
        replaced = true;
        break;
      }
    }
    if (replaced) continue;
    char c = pattern[i++];
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

bool LineMatches(const std::string &line, const std::string &pattern) {
  return std::regex_match(line, std::regex(PatternToRegex(pattern)));
}

void ExpectLines(const std::vector<std::string> &lines, const std::vector<std::string> &patterns) {
  std::ostringstream all;
  for (const auto &line : lines) all << "  [" << line << "]\n";
  EXPECT_EQ(lines.size(), patterns.size()) << "log lines:\n" << all.str();
  for (size_t i = 0; i < lines.size() && i < patterns.size(); ++i) {
    EXPECT_TRUE(LineMatches(lines[i], patterns[i]))
        << "line " << i << ": [" << lines[i] << "]\npattern: [" << patterns[i] << "]";
  }
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::string> SplitLines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool FileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string Hex(const void *p) {
  char text[32];
  snprintf(text, sizeof text, "%p", p);
  return text;
}

int RunInChild(const std::function<void()> &body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    body();
    exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

void FailSystemMallocs(const std::vector<int> &failing_calls) {
  g_failing = std::set<int>(failing_calls.begin(), failing_calls.end());
  g_fail_all = false;
  g_calls = 0;
  vemo::mwSysMalloc = failing_malloc;
}

void FailAllSystemMallocs() {
  g_failing.clear();
  g_fail_all = true;
  g_calls = 0;
  vemo::mwSysMalloc = failing_malloc;
}

int SystemMallocCalls() { return g_calls; }

void MwTest::SetUp() {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  old_cwd_ = cwd;
  char pattern[] = "/tmp/memguard_test_XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  dir_ = pattern;
  ASSERT_EQ(chdir(dir_.c_str()), 0);
}

void MwTest::TearDown() {
  vemo::mwSysMalloc = malloc;
  g_fail_all = false;
  g_failing.clear();
  if (chdir(old_cwd_.c_str()) != 0) ADD_FAILURE() << "cannot return to " << old_cwd_;
  nftw(dir_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string MwTest::Log() {
  mwFlushNow();
  return ReadFile(dir_ + "/memguard.log");
}

std::vector<std::string> MwTest::LogLines() { return SplitLines(Log()); }

void MwTest::Mark() {
  mwFlushNow();
  mark_ = ReadFile(dir_ + "/memguard.log").size();
  marked_ = true;
}

std::vector<std::string> MwTest::NewLines() {
  std::string text = Log();
  if (!marked_) {
    // Skip the start-up lines: banner, blank, date, blank, modes, sizes, blank.
    std::vector<std::string> lines = SplitLines(text);
    size_t skip = (lines.size() >= 8 && lines[1].find("MEMGUARD 1.00") != std::string::npos) ? 8 : 0;
    return std::vector<std::string>(lines.begin() + (long)skip, lines.end());
  }
  return SplitLines(text.size() > mark_ ? text.substr(mark_) : std::string());
}

}  // namespace mw_test
