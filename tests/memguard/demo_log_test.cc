// Runs examples/memguard_demo in a temporary directory and compares its memguard.log with the
// report format line by line; addresses, line numbers and dates are matched as patterns.
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

class MwDemo : public MwTest {};

std::string Row(const char *name, long n, long largest, long total, long unfreed) {
  char text[160];
  snprintf(text, sizeof text, " %-42s %-8ld %-8ld %-8ld %-8ld", name, n, largest, total, unfreed);
  return text;
}

TEST_F(MwDemo, LogFollowsTheReportFormat) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    execl(MEMGUARD_DEMO_PATH, MEMGUARD_DEMO_PATH, static_cast<char *>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string printed;
  char buffer[256];
  ssize_t n;
  while ((n = read(out[0], buffer, sizeof buffer)) > 0) printed.append(buffer, (size_t)n);
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(printed, "memguard report: " + dir() + "/memguard.log\n");

  const std::string src = "examples/memguard_demo/memguard_demo.c";
  std::string sizes = "mwROUNDALLOC==8 sizeof(mwData)==" + std::to_string(sizeof(vemo::mwData)) +
                      " mwDataSize==" + std::to_string(vemo::kDataSize);
  ExpectLines(SplitLines(ReadFile("memguard.log")),
              {"",
               "============= MEMGUARD 1.00 =============",
               "",
               "Started at {TIME}",
               "",
               "Modes: __STDC__ 64-bit mwDWORD==(unsigned long)",
               sizes,
               "",
               "statistics: now collecting on a module basis",
               "overflow: <4> " + src + "({N}), 8 bytes alloc'd at <2> " + src + "({N})",
               "double-free: <6> " + src + "({N}), {ADDR} was freed from " + src + "({N})",
               "",
               "Stopped at {TIME}",
               "",
               "unfreed: <1> " + src + "({N}), 12 bytes at {ADDR}  \t{6E 65 76 65 72 20 66 72 65 "
               "65 64 00 .. .. .. .. never freed.}",
               "",
               "Memory usage statistics (global):",
               " N)umber of allocations made: 3",
               " L)argest memory usage      : 36",
               " T)otal of all alloc() calls: 36",
               " U)nfreed bytes totals      : 12",
               "",
               "Memory usage statistics (detailed):",
               " Module/Line                                Number   Largest  Total    Unfreed ",
               Row(src.c_str(), 3, 36, 36, 12),
               "MEMGUARD detected 3 anomalies"});
}

}  // namespace
