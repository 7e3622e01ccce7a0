// Runs examples/memguard_demo and compares the memguard.log it leaves with the report format.
#include <fcntl.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

TEST(MwDemo, Scenarios) {
  const std::string src = "examples/memguard_demo/memguard_demo.c";
  char row[160];
  snprintf(row, sizeof row, " %-42s %-8d %-8d %-8d %-8d", src.c_str(), 3, 36, 36, 12);
  RunScenarios({{"the demo's log", [](Vars &) {
    EXPECT_EQ(RunInChild([] {
      int out = open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1), execl(MEMGUARD_DEMO_PATH, MEMGUARD_DEMO_PATH, (char *)nullptr), _exit(127);
    }), 0);
    char cwd[4096];
    EXPECT_EQ(ReadFile("stdout.txt"), "memguard report: " + std::string(getcwd(cwd, 4096)) +
                                          "/memguard.log\n");
  }, {"statistics: now collecting on a module basis",
      "overflow: <4> " + src + "({N}), 8 bytes alloc'd at <2> " + src + "({N})",
      "double-free: <6> " + src + "({N}), {ADDR} was freed from " + src + "({N})", kStopped,
      "unfreed: <1> " + src + "({N}), 12 bytes at {ADDR}  \t{6E 65 76 65 72 20 66 72 65 65 64 00 "
      ".. .. .. .. never freed.}", Stats(3, 36, 36, 12), "\nMemory usage statistics (detailed):",
      " Module/Line                                Number   Largest  Total    Unfreed ", row,
      "MEMGUARD detected 3 anomalies"}, 0}});
}
