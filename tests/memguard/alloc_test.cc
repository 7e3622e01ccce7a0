// Tracked allocation: block layout, fills, the chain, the limit, statistics, start and end,
// and the failure lines of the allocation functions.
#include <stdint.h>
#include <string.h>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

class MwAlloc : public MwTest {};

bool AllBytes(const void *p, size_t n, unsigned char value) {
  const unsigned char *bytes = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; ++i) {
    if (bytes[i] != value) return false;
  }
  return true;
}

TEST_F(MwAlloc, FirstCallWritesStartUpLinesAndRegistersTheExitReport) {
  void *p = mwMalloc(4, "a.c", 1);
  ASSERT_NE(p, nullptr);
  std::string sizes = "mwROUNDALLOC==8 sizeof(mwData)==" + std::to_string(sizeof(mwData)) +
                      " mwDataSize==" + std::to_string(vemo::kDataSize);
  ExpectLines(LogLines(), {"", "============= MEMGUARD 1.00 =============", "", "Started at {TIME}",
                           "", "Modes: __STDC__ 64-bit mwDWORD==(unsigned long)", sizes, ""});
  EXPECT_EQ(vemo::mwExitHookWanted, 1);
  EXPECT_EQ(vemo::mwInitCount, 1);
  EXPECT_EQ(vemo::mwDataSize, vemo::kDataSize);
  EXPECT_EQ(vemo::kDataSize % 8, 0u);
  EXPECT_GE(vemo::kDataSize, sizeof(mwData));
  mwFree(p, "a.c", 2);
}

TEST_F(MwAlloc, NewBlockHasHeaderGuardsAndFill) {
  void *p = mwMalloc(5, "a.c", 12);
  ASSERT_NE(p, nullptr);
  mwData *mw = HeaderOf(p);
  EXPECT_EQ(vemo::mwHead, mw);
  EXPECT_EQ(vemo::mwTail, mw);
  EXPECT_EQ(mw->prev, nullptr);
  EXPECT_EQ(mw->next, nullptr);
  EXPECT_STREQ(mw->file, "a.c");
  EXPECT_EQ(mw->count, 1);
  EXPECT_EQ(mw->size, 5u);
  EXPECT_EQ(mw->line, 12);
  EXPECT_EQ(mw->flags, 0);
  EXPECT_EQ(mw->check, 0x00FE0180UL ^ 1UL ^ 5UL ^ 12UL);
  const char *user = static_cast<const char *>(p);
  EXPECT_EQ(memcmp(user - 8, "mEmGuArD", 8), 0);
  EXPECT_EQ(memcmp(user + 5, "mEmGuArD", 8), 0);
  EXPECT_TRUE(AllBytes(p, 5, 0xFE));
  EXPECT_EQ(vemo::mwLiveBytes, 5);
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  EXPECT_EQ(vemo::mwAllocCount, 1);
  EXPECT_EQ(vemo::mwTotalBytes, 5);
  EXPECT_EQ(vemo::mwPeakBytes, 5);
  mwFree(p, "a.c", 13);
  EXPECT_EQ(vemo::mwLiveBytes, 0);
  EXPECT_EQ(vemo::mwPeakBytes, 5);
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwTail, nullptr);
}

TEST_F(MwAlloc, ZeroSizeBlocksAreDistinctWithAdjacentGuards) {
  char *a = static_cast<char *>(mwMalloc(0, "a.c", 1));
  char *b = static_cast<char *>(mwMalloc(0, "a.c", 2));
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(memcmp(a - 8, "mEmGuArDmEmGuArD", 16), 0);
  EXPECT_EQ(mwTestBuffer("a.c", 3, a), 0);
  mwFree(a, "a.c", 4);
  mwFree(b, "a.c", 5);
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
  EXPECT_TRUE(NewLines().empty());
}

TEST_F(MwAlloc, NewBlocksGoInFrontAndFreesRelinkTheNeighbours) {
  void *p1 = mwMalloc(1, "a.c", 1);
  void *p2 = mwMalloc(2, "a.c", 2);
  void *p3 = mwMalloc(3, "a.c", 3);
  EXPECT_EQ(vemo::mwHead, HeaderOf(p3));
  EXPECT_EQ(vemo::mwTail, HeaderOf(p1));
  EXPECT_EQ(HeaderOf(p3)->next, HeaderOf(p2));
  EXPECT_EQ(HeaderOf(p2)->prev, HeaderOf(p3));
  EXPECT_EQ(HeaderOf(p2)->next, HeaderOf(p1));
  EXPECT_EQ(HeaderOf(p1)->prev, HeaderOf(p2));

  mwFree(p2, "a.c", 4);
  EXPECT_EQ(HeaderOf(p3)->next, HeaderOf(p1));
  EXPECT_EQ(HeaderOf(p1)->prev, HeaderOf(p3));
  EXPECT_EQ(vemo::mwFreedRing[0].p, p2);
  EXPECT_STREQ(vemo::mwFreedRing[0].file, "a.c");
  EXPECT_EQ(vemo::mwFreedRing[0].line, 4);
  EXPECT_EQ(vemo::mwFreedPos, 1);
  EXPECT_EQ(vemo::mwEventCount, 4);
  mwFree(p3, "a.c", 5);
  EXPECT_EQ(vemo::mwHead, HeaderOf(p1));
  EXPECT_EQ(HeaderOf(p1)->prev, nullptr);
  mwFree(p1, "a.c", 6);
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
  EXPECT_EQ(mwTest("a.c", 7, MW_TEST_ALL), 0);
}

TEST_F(MwAlloc, LimitRefusesAllocationsAndGrowthBeyondIt) {
  mwLimit(1000);
  void *big = mwMalloc(800, "a.c", 1);
  void *small = mwMalloc(100, "a.c", 2);
  ASSERT_NE(big, nullptr);
  ASSERT_NE(small, nullptr);
  Mark();
  EXPECT_EQ(mwMalloc(200, "a.c", 3), nullptr);
  EXPECT_EQ(mwRealloc(small, 250, "a.c", 4), nullptr);
  ExpectLines(NewLines(), {"limit fail: <3> a.c(3), 200 wanted 100 available",
                           "limit fail: <4> a.c(4), 150 wanted 100 available"});
  EXPECT_EQ(vemo::mwAnomalies, 2);
  EXPECT_EQ(HeaderOf(small)->size, 100u);
  // 1000 is not more than the limit, and the limit is suspended while the data moves.
  void *grown = mwRealloc(small, 200, "a.c", 5);
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(vemo::mwLiveBytes, 1000);
  EXPECT_EQ(vemo::mwLimitOn, 1);
  mwFree(grown, "a.c", 6);
  mwFree(big, "a.c", 7);
}

TEST_F(MwAlloc, SizeThatOverflowsWithTheOverheadFailsSilently) {
  Start();
  EXPECT_EQ(mwMalloc(SIZE_MAX - 10, "a.c", 1), nullptr);
  EXPECT_EQ(vemo::mwEventCount, 1);
  EXPECT_EQ(vemo::mwAnomalies, 0);
  EXPECT_TRUE(NewLines().empty());
}

TEST_F(MwAlloc, CallocZeroesAndRefusesAProductThatWraps) {
  unsigned char *p = static_cast<unsigned char *>(mwCalloc(3, 5, "a.c", 1));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(HeaderOf(p)->size, 15u);
  EXPECT_TRUE(AllBytes(p, 15, 0));
  EXPECT_EQ(mwCalloc(SIZE_MAX / 2, 3, "a.c", 2), nullptr);
  ExpectLines(NewLines(), {"fail: <2> a.c(2), -1 wanted 15 allocated"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  mwFree(p, "a.c", 3);
}

TEST_F(MwAlloc, StrdupCopiesAndRefusesNull) {
  char *copy = mwStrdup("text", "a.c", 1);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "text");
  EXPECT_EQ(HeaderOf(copy)->size, 5u);
  EXPECT_EQ(mwStrdup(nullptr, "a.c", 2), nullptr);
  ExpectLines(NewLines(), {"strdup: <1> a.c(2), strdup(NULL) called"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
  mwFree(copy, "a.c", 3);
}

TEST_F(MwAlloc, NullFileNamesArePrintedAsUnknown) {
  Start();
  EXPECT_EQ(mwStrdup(nullptr, nullptr, 9), nullptr);
  void *p = mwMalloc(3, nullptr, 4);
  mwFree(p, "a.c", 5);
  mwFree(p, "a.c", 6);
  ExpectLines(NewLines(), {"strdup: <0> unknown(9), strdup(NULL) called",
                           "double-free: <3> a.c(6), " + Hex(p) + " was freed from a.c(5)"});
}

TEST_F(MwAlloc, SystemOutOfMemoryFailsWithTheFailLine) {
  void *p = mwMalloc(7, "a.c", 1);
  FailAllSystemMallocs();
  EXPECT_EQ(mwMalloc(10, "a.c", 2), nullptr);
  ExpectLines(NewLines(), {"fail: <2> a.c(2), 10 wanted 7 allocated"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  EXPECT_EQ(vemo::mwHead, HeaderOf(p));
}

TEST_F(MwAlloc, OutOfMemoryGivesBackNoMansLandReserveSilently) {
  Start();
  {
    vemo::MwGuard guard;
    ASSERT_EQ(vemo::mwGrabChunks(3, vemo::kTypeNoMansLand), 3u);
  }
  Mark();
  FailSystemMallocs({0});  // the block; the trial after the first chunk went back succeeds
  void *p = mwMalloc(10, "a.c", 2);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(vemo::mwReserveBytes, 2 * 1024);
  EXPECT_TRUE(NewLines().empty());
  mwFree(p, "a.c", 3);
}

TEST_F(MwAlloc, OutOfMemoryReleasesRetainedBlocksAndReportsWrittenOnes) {
  mwNoMansLand(MW_NML_FREE);
  unsigned char *kept = static_cast<unsigned char *>(mwMalloc(16, "a.c", 1));
  mwFree(kept, "a.c", 2);
  kept[3] = 'x';
  Mark();
  FailSystemMallocs({0});
  void *p = mwMalloc(10, "a.c", 3);
  ASSERT_NE(p, nullptr);
  ExpectLines(NewLines(),
              {"wild pointer: <1> NoMansLand " + Hex(kept + 8) + " alloc'd at a.c(1)"});
  EXPECT_EQ(vemo::mwRetainedBlocks, 0);
  EXPECT_EQ(vemo::mwRetainedBytes, 0);
  EXPECT_EQ(vemo::mwHead, HeaderOf(p));
  EXPECT_EQ(vemo::mwTail, HeaderOf(p));
  EXPECT_EQ(vemo::mwAnomalies, 1);
}

TEST_F(MwAlloc, FreeUpThatSucceedsWhileMallocStillFailsIsReported) {
  Start();
  {
    vemo::MwGuard guard;
    vemo::mwGrabChunks(1, vemo::kTypeNoMansLand);
  }
  Mark();
  FailSystemMallocs({0, 2});  // block fails, trial succeeds, second try fails
  EXPECT_EQ(mwMalloc(10, "a.c", 4), nullptr);
  std::string length = std::to_string(10 + vemo::kDataSize + 16);
  ExpectLines(NewLines(), {"internal: mwFreeUp(" + length + ") reported success, but malloc() fails",
                           "fail: <1> a.c(4), 10 wanted 0 allocated"});
  EXPECT_EQ(vemo::mwAnomalies, 2);
}

TEST_F(MwAlloc, NestedInitWritesOnceAndTheLastTermReports) {
  mwInit();
  mwInit();
  EXPECT_EQ(vemo::mwExitHookWanted, 0);
  size_t after_banner = Log().size();
  mwTerm();
  EXPECT_EQ(vemo::mwInitCount, 1);
  EXPECT_EQ(Log().size(), after_banner);
  mwTerm();
  EXPECT_EQ(vemo::mwInitCount, 0);
  std::string log = ReadFile("memguard.log");
  EXPECT_NE(log.find("\nStopped at "), std::string::npos);
  // A new start appends to the log without a second banner.
  mwInit();
  mwTerm();
  log = ReadFile("memguard.log");
  EXPECT_EQ(log.find("MEMGUARD 1.00"), log.rfind("MEMGUARD 1.00"));
  EXPECT_NE(log.find("Stopped at "), log.rfind("Stopped at "));
}

TEST_F(MwAlloc, TermWithoutInitIsReported) {
  mwTerm();
  ExpectLines(NewLines(), {"internal: mwTerm(): MEMGUARD has not been started!"});
}

TEST_F(MwAlloc, StatisticsFollowTheAllocatingSite) {
  mwStatistics(MW_STAT_LINE);
  void *a = mwMalloc(10, "a.c", 1);
  void *b = mwMalloc(30, "a.c", 2);
  mwFree(a, "b.c", 9);
  vemo::MwGuard guard;
  vemo::mwStatEntry *module = vemo::mwStatFind("a.c", -1, 0);
  vemo::mwStatEntry *line1 = vemo::mwStatFind("a.c", 1, 0);
  vemo::mwStatEntry *line2 = vemo::mwStatFind("a.c", 2, 0);
  ASSERT_NE(module, nullptr);
  ASSERT_NE(line1, nullptr);
  ASSERT_NE(line2, nullptr);
  EXPECT_EQ(module->number, 2);
  EXPECT_EQ(module->total, 40);
  EXPECT_EQ(module->largest, 40);
  EXPECT_EQ(module->unfreed, 30);
  EXPECT_EQ(line1->unfreed, 0);
  EXPECT_EQ(line1->largest, 10);
  EXPECT_EQ(line2->unfreed, 30);
  EXPECT_EQ(vemo::mwStatFind("b.c", -1, 0), nullptr);
  (void)b;
}

TEST_F(MwAlloc, StatisticsWithoutMemoryAreSkipped) {
  mwStatistics(MW_STAT_MODULE);
  Mark();
  FailSystemMallocs({1});  // the block succeeds, its statistics entry does not
  void *p = mwMalloc(4, "a.c", 1);
  ASSERT_NE(p, nullptr);
  ExpectLines(NewLines(), {"internal: memory low, statistics incomplete for 'a.c'"});
  vemo::MwGuard guard;
  EXPECT_EQ(vemo::mwStatEntries, nullptr);
}

}  // namespace
