// Scenarios that end their process on purpose: traps answered with Abort or left unanswered
// (exit status 255), repairs that cannot save the heap (abort), and the report at exit. Each
// runs in a child process; the test checks how the child ended and what it left in the log.
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

class MwFault : public MwTest {
 protected:
  std::vector<std::string> ChildLog() { return SplitLines(ReadFile("memguard.log")); }
  // The lines after the start-up lines.
  std::vector<std::string> ChildLines() {
    std::vector<std::string> lines = ChildLog();
    return lines.size() >= 8 ? std::vector<std::string>(lines.begin() + 8, lines.end()) : lines;
  }
};

bool ExitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
bool Aborted(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }

int AbortAnswer(const char *) { return MW_ARI_ABORT; }

void FeedStdin(const char *text) {
  int fds[2];
  if (pipe(fds) != 0) _exit(3);
  if (write(fds[1], text, strlen(text)) != (ssize_t)strlen(text)) _exit(3);
  close(fds[1]);
  dup2(fds[0], 0);
  close(fds[0]);
}

TEST_F(MwFault, UnansweredAssertEndsTheProcessWith255AfterACheck) {
  int status = RunInChild([] {
    mwTest("t.c", 1, MW_TEST_ALLOC);
    char *p = static_cast<char *>(mwMalloc(4, "t.c", 2));
    p[4] = '!';
    mwAssert(0, "p == NULL", "t.c", 3);
    _exit(0);
  });
  EXPECT_TRUE(ExitedWith(status, 255)) << status;
  std::vector<std::string> lines = ChildLines();
  ASSERT_GE(lines.size(), 8u);
  ExpectLines(std::vector<std::string>(lines.begin(), lines.begin() + 8),
              {"check: <0> t.c(1), checking alloc ", "check: <0> t.c(1), complete; no errors",
               "assert trap: <2> t.c(3), p == NULL", "", "MEMGUARD: assert trap: t.c(3), p == NULL",
               "overflow: <2> t.c(3), 4 bytes alloc'd at <1> t.c(2)", "", "Stopped at {TIME}"});
  // The report at exit ran: the exit handlers are not skipped.
  EXPECT_EQ(lines.back(), "MEMGUARD detected 3 anomalies");
}

TEST_F(MwFault, VerifyWithAbortAnswerEndsTheProcess) {
  int status = RunInChild([] {
    mwSetAriFunc(AbortAnswer);
    mwSetAriAction(MW_ARI_ACTION_IGNORE);  // used only without an answer function
    mwVerify(0, "ok", "v.c", 4);
    _exit(0);
  });
  EXPECT_TRUE(ExitedWith(status, 255)) << status;
  std::vector<std::string> lines = ChildLines();
  ASSERT_GE(lines.size(), 1u);
  EXPECT_EQ(lines[0], "verify trap: <1> v.c(4), ok");
  EXPECT_EQ(lines.back(), "MEMGUARD detected 1 anomalies");
}

TEST_F(MwFault, EmptyAnswerOnStandardInputEndsTheProcess) {
  int status = RunInChild([] {
    FeedStdin("\n");
    mwSetAriFunc(mwAriHandler);
    mwAssert(0, "x", "a.c", 5);
    _exit(0);
  });
  EXPECT_TRUE(ExitedWith(status, 255)) << status;
  std::vector<std::string> lines = ChildLines();
  ASSERT_GE(lines.size(), 4u);
  ExpectLines(std::vector<std::string>(lines.begin(), lines.begin() + 4),
              {"assert trap: <1> a.c(5), x", "", "MEMGUARD: assert trap: a.c(5), x",
               "MEMGUARD: Abort, Retry or Ignore? "});
}

TEST_F(MwFault, ExplicitInitWithoutTermWritesNoReportAtExit) {
  int status = RunInChild([] {
    mwInit();
    mwInit();
    mwMalloc(3, "leak.c", 1);
    mwAssert(0, "nested", "leak.c", 2);
  });
  EXPECT_TRUE(ExitedWith(status, 255)) << status;
  std::string log = ReadFile("memguard.log");
  EXPECT_NE(log.find("assert trap: <2> leak.c(2), nested"), std::string::npos);
  EXPECT_EQ(log.find("Stopped at"), std::string::npos);
}

TEST_F(MwFault, ImplicitStartReportsLeaksAtExit) {
  int status = RunInChild([] {
    char *p = static_cast<char *>(mwMalloc(3, "leak.c", 7));
    memcpy(p, "hi", 3);
  });
  EXPECT_TRUE(ExitedWith(status, 0)) << status;
  std::vector<std::string> lines = ChildLines();
  ExpectLines(lines, {"", "Stopped at {TIME}", "",
                      "unfreed: <1> leak.c(7), 3 bytes at {ADDR}  \t{68 69 00 .. .. .. .. .. .. .. "
                      ".. .. .. .. .. .. hi.}",
                      "", "Memory usage statistics (global):", " N)umber of allocations made: 1",
                      " L)argest memory usage      : 3", " T)otal of all alloc() calls: 3",
                      " U)nfreed bytes totals      : 3", "MEMGUARD detected 1 anomalies"});
}

TEST_F(MwFault, ReportRunsOnceWhenTermCameBeforeExit) {
  int status = RunInChild([] {
    mwFree(mwMalloc(3, "a.c", 1), "a.c", 2);
    mwTerm();
  });
  EXPECT_TRUE(ExitedWith(status, 0)) << status;
  std::string log = ReadFile("memguard.log");
  EXPECT_EQ(log.find("Stopped at"), log.rfind("Stopped at"));
  EXPECT_NE(log.find("Stopped at"), std::string::npos);
}

int g_hook_entered[2];
int g_never_written[2];

// An output hook that never returns: its thread keeps the allocator's lock for good.
void stuck_hook(int) {
  static bool told = false;
  if (!told) {
    told = true;
    if (write(g_hook_entered[1], "x", 1) != 1) _exit(4);
  }
  char c;
  while (read(g_never_written[0], &c, 1) != 0) {
  }
}

TEST_F(MwFault, ExitReportGivesUpOnAThreadStuckInsideTheAllocator) {
  int status = RunInChild([] {
    if (pipe(g_hook_entered) != 0 || pipe(g_never_written) != 0) _exit(3);
    Start();
    mwSetOutFunc(stuck_hook);
    std::thread([] { mwTrace("stuck\n"); }).detach();
    char c;
    if (read(g_hook_entered[0], &c, 1) != 1) _exit(5);
    exit(0);  // the report at exit must not wait for the stuck thread for ever
  });
  EXPECT_TRUE(ExitedWith(status, 0)) << status;
  EXPECT_EQ(ReadFile("memguard.log").find("Stopped at"), std::string::npos);
}

// ---- Repairs that cannot save the heap --------------------------------------------------------

TEST_F(MwFault, BothChainEndsDestroyedAborts) {
  int status = RunInChild([] {
    void *b1 = mwMalloc(1, "r.c", 1);
    mwMalloc(1, "r.c", 2);
    vemo::mwHead = reinterpret_cast<mwData *>(16);
    vemo::mwTail = reinterpret_cast<mwData *>(32);
    mwFree(b1, "r.c", 3);
    _exit(0);
  });
  EXPECT_TRUE(Aborted(status)) << status;
  std::vector<std::string> lines = ChildLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_TRUE(LineMatches(lines[0], "relink: <3> r.c(3) attempting to repair MW-{ADDR}..."));
  EXPECT_TRUE(LineMatches(lines[1], "relink: failed for MW-{ADDR}; head pointer destroyed"));
  EXPECT_EQ(lines[2], "relink: <3> r.c(3) attempting emergency repairs...");
  EXPECT_EQ(lines[3], "relink: mwHead (MW-0x10) is damaged, skipping forward scan");
  EXPECT_EQ(lines[4], "relink: mwTail (0x20) is damaged, skipping reverse scan");
  EXPECT_EQ(lines.back(), "relink: both head and tail pointers damaged, aborting program");
}

TEST_F(MwFault, ChainThatFailsVerificationAborts) {
  int status = RunInChild([] {
    void *b1 = mwMalloc(1, "r.c", 1);
    void *b2 = mwMalloc(1, "r.c", 2);
    mwMalloc(1, "r.c", 3);
    vemo::mwTail = HeaderOf(b2);  // the tail pointer names a block in the middle
    mwFree(b1, "r.c", 4);
    _exit(0);
  });
  EXPECT_TRUE(Aborted(status)) << status;
  std::vector<std::string> lines = ChildLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "relink: heap verification FAILS - aborting program");
}

TEST_F(MwFault, ForwardChainBrokenWhileTheReverseChainIsWholeAborts) {
  int status = RunInChild([] {
    std::vector<void *> blocks;
    for (int i = 1; i <= 4; ++i) blocks.push_back(mwMalloc(8, "r.c", i));
    // A copy of the oldest block's header is freed while b3 lost its link to b4: the forward
    // chain ends after b4, the reverse chain runs whole from b1 to b3, and no join fits.
    alignas(16) static unsigned char fake[256];
    memcpy(fake, HeaderOf(blocks[0]), vemo::kDataSize + 24);
    HeaderOf(blocks[2])->prev = nullptr;
    mwFree(fake + vemo::kDataSize + 8, "r.c", 5);
    _exit(0);
  });
  EXPECT_TRUE(Aborted(status)) << status;
  std::vector<std::string> lines = ChildLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_TRUE(LineMatches(lines[1], "relink: failed for MW-{ADDR}; forward chain fragmented at MW-{ADDR}: 'next' is {ADDR}"));
  EXPECT_EQ(lines[2], "relink: <5> r.c(5) attempting emergency repairs...");
  EXPECT_TRUE(LineMatches(lines[3], "relink: forward chain's last intact MW is MW-{ADDR}, 8 bytes at r.c(4)"));
  EXPECT_TRUE(LineMatches(lines[4], "relink: forward chain's first damaged MW is MW-{ADDR}, 8 bytes at r.c(3)"));
  EXPECT_EQ(lines.back(), "relink: heap totally destroyed, aborting program");
}

}  // namespace
