// Heap checks, block tests, the ownership check with its checksum repair, and the probes.
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

class MwChecks : public MwTest {};

TEST_F(MwChecks, TestWithoutItemsOnlyReportsCompletion) {
  Start();
  EXPECT_EQ(mwTest("t.c", 1, 0), 0);
  ExpectLines(NewLines(), {"check: <0> t.c(1), checking ", "check: <0> t.c(1), complete; no errors"});
}

TEST_F(MwChecks, TestOfAHealthyHeapNamesEveryItem) {
  mwNoMansLand(MW_NML_FREE);
  void *a = mwMalloc(3, "t.c", 1);
  mwFree(mwMalloc(5, "t.c", 2), "t.c", 3);
  EXPECT_EQ(mwTest("t.c", 4, MW_TEST_ALL), 0);
  ExpectLines(NewLines(), {"check: <3> t.c(4), checking chain alloc nomansland ",
                           "check: <3> t.c(4), complete; no errors"});
  mwFree(a, "t.c", 5);
}

TEST_F(MwChecks, OverflowByOneByteIsFoundAndTheBlockStillFreed) {
  char *p = static_cast<char *>(mwMalloc(10, "t.c", 1));
  p[10] = 'x';
  EXPECT_EQ(mwTestBuffer("t.c", 2, p), 1);
  mwFree(p, "t.c", 3);
  ExpectLines(NewLines(), {"overflow: <1> t.c(2), 10 bytes alloc'd at <1> t.c(1)",
                           "overflow: <2> t.c(3), 10 bytes alloc'd at <1> t.c(1)"});
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwAnomalies, 2);
}

TEST_F(MwChecks, UnderflowAndBothGuards) {
  char *p = static_cast<char *>(mwMalloc(4, "t.c", 1));
  p[-3] = 0;
  EXPECT_EQ(mwTestBuffer("t.c", 2, p), 1);
  p[4] = 0;
  EXPECT_EQ(mwTestBuffer("t.c", 3, p), 1);
  ExpectLines(NewLines(), {"underflow: <1> t.c(2), 4 bytes alloc'd at <1> t.c(1)",
                           "underflow: <1> t.c(3), 4 bytes alloc'd at <1> t.c(1)",
                           "overflow: <1> t.c(3), 4 bytes alloc'd at <1> t.c(1)"});
  mwFree(p, "t.c", 4);
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
}

TEST_F(MwChecks, TestBufferOfAForeignPointerFails) {
  alignas(16) static unsigned char foreign[256];
  void *p = mwMalloc(4, "t.c", 1);
  EXPECT_EQ(mwTestBuffer("t.c", 2, foreign + 128), 1);
  EXPECT_TRUE(NewLines().empty());
  mwFree(p, "t.c", 3);
}

TEST_F(MwChecks, DamagedCheckValueInAnIntactChainIsRepaired) {
  void *older = mwMalloc(2, "t.c", 1);
  void *p = mwMalloc(7, "t.c", 2);
  mwData *mw = HeaderOf(p);
  mw->check ^= 0x10;
  mwFree(p, "t.c", 3);
  // With its size reset, the block's back guard is looked for at the start of its data.
  ExpectLines(NewLines(),
              {"internal: <3> t.c(3), checksum for MW-" + Hex(mw) + " is incorrect",
               "overflow: <3> t.c(3), 0 bytes alloc'd at <2> <relinked>(2)"});
  EXPECT_EQ(vemo::mwAnomalies, 2);
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  EXPECT_EQ(vemo::mwHead, HeaderOf(older));
  // The size could not be trusted: the free took 0 bytes off the live count.
  EXPECT_EQ(vemo::mwLiveBytes, 9);
  mwFree(older, "t.c", 4);
}

TEST_F(MwChecks, ChecksumRepairRenamesTheFileUnlessStatisticsKnowIt) {
  void *p = mwMalloc(7, "t.c", 2);
  HeaderOf(p)->check ^= 1;
  EXPECT_EQ(mwTestBuffer("t.c", 3, p), 1);
  EXPECT_STREQ(HeaderOf(p)->file, "<relinked>");
  EXPECT_EQ(HeaderOf(p)->size, 0u);
  mwFree(p, "t.c", 4);

  mwStatistics(MW_STAT_MODULE);
  void *q = mwMalloc(7, "s.c", 5);
  HeaderOf(q)->check ^= 1;
  EXPECT_EQ(mwTestBuffer("t.c", 6, q), 1);
  EXPECT_STREQ(HeaderOf(q)->file, "s.c");
  mwFree(q, "t.c", 7);
}

TEST_F(MwChecks, AutomaticCheckPrefixesItsFirstChainFinding) {
  mwAutoCheck(1);
  void *a = mwMalloc(1, "t.c", 1);
  void *b = mwMalloc(1, "t.c", 2);
  void *c = mwMalloc(1, "t.c", 3);
  mwData *mb = HeaderOf(b);
  mb->prev = HeaderOf(a);  // b's newer neighbour is c, not a
  Mark();
  void *d = mwMalloc(1, "t.c", 4);
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "autocheck: <3> t.c(4) check: heap chain broken, next link incorrect");
  EXPECT_EQ(lines[1], "check: heap chain broken, prev link incorrect");
  // The block test of the same check relinks b; the chain is whole again.
  EXPECT_EQ(mb->prev, HeaderOf(c));
  mwAutoCheck(0);
  EXPECT_EQ(mwTest("t.c", 5, MW_TEST_ALL), 0);
  for (void *p : {a, b, c, d}) mwFree(p, "t.c", 6);
}

TEST_F(MwChecks, UntrackedTwinsCheckWithoutALocation) {
  mwAutoCheck(1);
  char *p = static_cast<char *>(mwMalloc(2, "t.c", 1));
  void *q = mwMalloc(2, "t.c", 2);
  HeaderOf(p)->prev = HeaderOf(p);
  Mark();
  free(mwMalloc_(4));
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "autocheck: <2> unknown(0) check: heap chain broken, next link incorrect");
  EXPECT_EQ(lines[1], "check: heap chain broken, prev link incorrect");
  HeaderOf(p)->prev = HeaderOf(q);
  mwAutoCheck(0);
  mwFree(q, "t.c", 3);
  mwFree(p, "t.c", 4);
}

TEST_F(MwChecks, TailInTheMiddleOfTheChain) {
  void *a = mwMalloc(1, "t.c", 1);
  void *b = mwMalloc(1, "t.c", 2);
  void *c = mwMalloc(1, "t.c", 3);
  vemo::mwTail = HeaderOf(b);
  EXPECT_EQ(mwTest("t.c", 4, MW_TEST_CHAIN), 2);
  ExpectLines(NewLines(), {"check: <3> t.c(4), checking chain ",
                           "check: heap chain broken, next link incorrect",
                           "check: heap chain broken, tail incorrect"});
  EXPECT_EQ(vemo::mwAnomalies, 2);
  vemo::mwTail = HeaderOf(a);
  for (void *p : {a, b, c}) mwFree(p, "t.c", 5);
}

TEST_F(MwChecks, UnreadableLinkEndsTheChainCheck) {
  void *a = mwMalloc(1, "t.c", 1);
  void *b = mwMalloc(1, "t.c", 2);
  mwData *saved = HeaderOf(b)->next;
  HeaderOf(b)->next = reinterpret_cast<mwData *>(16);
  EXPECT_EQ(mwTest("t.c", 3, MW_TEST_CHAIN | MW_TEST_NML), 1);
  ExpectLines(NewLines(), {"check: <2> t.c(3), checking chain nomansland ",
                           "check: heap corruption detected"});
  HeaderOf(b)->next = saved;
  mwFree(a, "t.c", 4);
  mwFree(b, "t.c", 5);
}

TEST_F(MwChecks, WrittenRetainedBlockIsAWildPointerButNoError) {
  mwNoMansLand(MW_NML_FREE);
  unsigned char *p = static_cast<unsigned char *>(mwMalloc(6, "t.c", 1));
  mwFree(p, "t.c", 2);
  p[5] = 0;
  EXPECT_EQ(mwTest("t.c", 3, MW_TEST_NML), 0);
  ExpectLines(NewLines(), {"check: <2> t.c(3), checking nomansland ",
                           "wild pointer: <1> NoMansLand " + Hex(p + 8) + " alloc'd at t.c(1)",
                           "check: <2> t.c(3), complete; no errors"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
}

TEST_F(MwChecks, UnreadableBlockIsInvalid) {
  void *p = mwMalloc(1, "t.c", 1);
  vemo::mwHead = reinterpret_cast<mwData *>(16);
  EXPECT_EQ(mwTest("t.c", 2, MW_TEST_ALLOC), 1);
  ExpectLines(NewLines(), {"check: <1> t.c(2), checking alloc ",
                           "internal: <1> t.c(2): pointer MW-0x10 is invalid"});
  vemo::mwHead = HeaderOf(p);
  mwFree(p, "t.c", 3);
}

// ---- Probes ----------------------------------------------------------------------------------

void previous_handler(int) {}

TEST_F(MwChecks, ProbesAnswerWithoutFaulting) {
  struct sigaction mine;
  memset(&mine, 0, sizeof mine);
  mine.sa_handler = previous_handler;
  sigemptyset(&mine.sa_mask);
  struct sigaction before;
  ASSERT_EQ(sigaction(SIGSEGV, &mine, &before), 0);

  long page = sysconf(_SC_PAGESIZE);
  void *hole = mmap(nullptr, (size_t)page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(hole, MAP_FAILED);
  int readable = 42;
  EXPECT_EQ(mwIsReadAddr(nullptr, 4), 0);
  EXPECT_EQ(mwIsReadAddr(&readable, 0), 1);
  EXPECT_EQ(mwIsReadAddr(&readable, sizeof readable), 1);
  EXPECT_EQ(mwIsReadAddr(hole, 1), 0);
  EXPECT_EQ(mwOldSIGSEGV, previous_handler);
  // Later probes keep catching their faults: the signal mask came back with the jump.
  EXPECT_EQ(mwIsSafeAddr(hole, 8), 0);
  EXPECT_EQ(mwIsSafeAddr(static_cast<char *>(hole) + page - 1, 1), 0);
  EXPECT_EQ(mwIsSafeAddr(&readable, 1), 1);
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);

  struct sigaction after;
  ASSERT_EQ(sigaction(SIGSEGV, &before, &after), 0);
  EXPECT_EQ(after.sa_handler, previous_handler);
  munmap(hole, (size_t)page);
  EXPECT_FALSE(FileExists("memguard.log"));
}

}  // namespace
