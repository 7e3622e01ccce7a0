#include "mw_test_support.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

namespace mw_test {
namespace {

std::set<int> g_failing;  // the numbers of the system allocations that fail
int g_calls = 0;
void *failing_malloc(size_t size) {
  return g_failing.empty() || g_failing.count(g_calls++) != 0 ? nullptr : malloc(size);
}

std::string Escape(const std::string &text) {
  return std::regex_replace(text, std::regex(R"([\\^$.|?*+()\[\]{}])"), R"(\$&)");
}

std::string ToRegex(const std::string &golden, const Vars &vars) {
  std::map<std::string, std::string> holders = {
      {"{ADDR}", R"((0x[0-9a-f]+|\(nil\)))"}, {"{N}", "-?[0-9]+"}, {"{ANY}", ".*"},
      {"{TIME}", "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}"}};
  for (const auto &var : vars) holders["{" + var.first + "}"] = Escape(var.second);
  std::string re = Escape(golden);
  for (const auto &holder : holders) {
    std::string key = Escape(holder.first);
    for (size_t at = 0; (at = re.find(key, at)) != std::string::npos; at += holder.second.size())
      re.replace(at, key.size(), holder.second);
  }
  return re;
}

}  // namespace

std::string Hex(const void *p) {
  char text[32];
  return snprintf(text, sizeof text, "%p", p), text;
}

void ExpectLines(const std::vector<std::string> &lines, const std::vector<std::string> &rows,
                 const Vars &vars) {
  std::vector<std::string> golden;
  for (const std::string &row : rows) {
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1)
      golden.push_back(row.substr(start, (end = row.find('\n', start)) - start));
  }
  EXPECT_EQ(lines.size(), golden.size()) << "log lines: " << testing::PrintToString(lines);
  for (size_t i = 0; i < lines.size() && i < golden.size(); ++i) {
    EXPECT_TRUE(std::regex_match(lines[i], std::regex(ToRegex(golden[i], vars))))
        << "line " << i << ": [" << lines[i] << "]\ngolden: [" << golden[i] << "]";
  }
}

std::string Stats(long count, long peak, long total, long unfreed, long anomalies) {
  return "\nMemory usage statistics (global):\n N)umber of allocations made: " +
         std::to_string(count) + "\n L)argest memory usage      : " + std::to_string(peak) +
         "\n T)otal of all alloc() calls: " + std::to_string(total) +
         "\n U)nfreed bytes totals      : " + std::to_string(unfreed) +
         (anomalies ? "\nMEMGUARD detected " + std::to_string(anomalies) + " anomalies" : "");
}

std::string ReadFile(const std::string &path) {
  std::ostringstream out;
  return out << std::ifstream(path, std::ios::binary).rdbuf(), out.str();
}

std::vector<std::string> LogLines(const std::string &path) {
  std::vector<std::string> lines;
  std::istringstream in(ReadFile(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  if (lines.size() < 8 || lines[1].find("MEMGUARD 1.00") == std::string::npos) return lines;
  ExpectLines({lines.begin(), lines.begin() + 8},
              {"\n============= MEMGUARD 1.00 =============\n\nStarted at {TIME}\n",
               "Modes: __STDC__ 64-bit mwDWORD==(unsigned long)",
               "mwROUNDALLOC==8 sizeof(mwData)==" + std::to_string(sizeof(vemo::mwData)) +
                   " mwDataSize==" + std::to_string(vemo::kDataSize) + "\n"});
  return {lines.begin() + 8, lines.end()};
}

std::vector<void *> Blocks(int n, size_t size, const char *file) {
  std::vector<void *> blocks;
  for (int i = 1; i <= n; ++i) blocks.push_back(mwMalloc(size, file, i));
  return blocks;
}

void FeedStdin(const std::string &text) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(write(fds[1], text.data(), text.size()), (ssize_t)text.size());
  close(fds[1]), dup2(fds[0], 0), close(fds[0]), clearerr(stdin);
}

void FailSystemMallocs(const std::vector<int> &calls) {
  g_failing = std::set<int>(calls.begin(), calls.end()), g_calls = 0;
  vemo::mwSysMalloc = failing_malloc;
}

int RunInChild(const std::function<void()> &body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    // Only the child's own failures count: the parent may have failed before the fork.
    const testing::TestResult *result =
        testing::UnitTest::GetInstance()->current_test_info()->result();
    int before = result->total_part_count();
    body(), fflush(nullptr);
    for (int i = before; i < result->total_part_count(); ++i)
      if (result->GetTestPartResult(i).failed()) _exit(1);
    _exit(0);
  }
  int status = -1;
  return waitpid(pid, &status, 0), status;
}

void RunScenarios(const std::vector<Scenario> &table) {
  for (const Scenario &row : table) {
    SCOPED_TRACE(row.name);
    char dir[] = "/tmp/memguard_test_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    int status = RunInChild([&] {
      if (chdir(dir) != 0) _exit(2);
      Vars vars;
      row.body(vars);
      vemo::mwSysMalloc = malloc;
      mwFlushNow(), ExpectLines(LogLines(), row.lines, vars);
      EXPECT_EQ(vemo::mwAnomalies, row.anomalies);
      EXPECT_EQ(mwTest(nullptr, 0, MW_TEST_ALL), 0) << "the heap is not whole";
    });
    const int kEnded[] = {0, 0, 255, 1000 + SIGABRT};  // exit status, or 1000 + signal
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status), kEnded[row.end])
        << "child failed (see its output above)";
    if (row.end != kReturns) ExpectLines(LogLines(std::string(dir) + "/memguard.log"), row.lines);
    EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
  }
}

}  // namespace mw_test
