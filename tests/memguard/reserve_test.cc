// The limit, reserve memory, the no-man's-land switch and the statistics switch.
#include "mw_test_support.h"

using namespace mw_test;

namespace {

class MwReserve : public MwTest {};

TEST_F(MwReserve, LimitLinesTellOldAndNew) {
  mwLimit(0);
  mwLimit(1000);
  mwLimit(0);
  ExpectLines(NewLines(), {"limit: old limit = none, new limit = none",
                           "limit: old limit = none, new limit = 1000 bytes",
                           "limit: old limit = 1000 bytes, new limit = none"});
  EXPECT_EQ(vemo::mwLimitOn, 0);
  EXPECT_EQ(vemo::mwLimitBytes, 0);
}

TEST_F(MwReserve, GrabAndDropInKilobytes) {
  EXPECT_EQ(mwGrab(3), 3u);
  EXPECT_EQ(vemo::mwReserveBytes, 3 * 1024);
  EXPECT_EQ(mwDrop(1), 1u);
  EXPECT_EQ(mwDrop(0), 2u);
  EXPECT_EQ(mwDrop(0), 0u);
  ExpectLines(NewLines(), {"grabbed: 3 kilobytes of grabbed memory",
                           "dropped: 1 kilobytes of grabbed memory",
                           "dropped: all grabbed memory (2 kb)"});
  EXPECT_EQ(vemo::mwReserveChunks, nullptr);
  EXPECT_EQ(vemo::mwReserveBytes, 0);
}

TEST_F(MwReserve, ChunkFillerWrittenToIsReportedAtItsFirstChangedByte) {
  EXPECT_EQ(mwGrab(2), 2u);
  vemo::mwGrabChunk *chunk = vemo::mwReserveChunks;
  chunk->filler[100] = 0;
  chunk->filler[200] = 0;
  Mark();
  EXPECT_EQ(mwDrop(0), 2u);
  ExpectLines(NewLines(), {"wild pointer: <0> grabbed memory hit at " + Hex(&chunk->filler[100]),
                           "dropped: all grabbed memory (2 kb)"});
}

TEST_F(MwReserve, DropLeavesOtherReserveAlone) {
  Start();
  {
    vemo::MwGuard guard;
    vemo::mwGrabChunks(2, vemo::kTypeNoMansLand);
  }
  mwGrab(1);
  Mark();
  EXPECT_EQ(mwDrop(0), 1u);
  EXPECT_EQ(vemo::mwReserveBytes, 2 * 1024);
  ExpectLines(NewLines(), {"dropped: all grabbed memory (1 kb)"});
  EXPECT_EQ(mwDrop(5), 0u);
  EXPECT_TRUE(NewLines().size() == 1);
}

TEST_F(MwReserve, GrabStopsAtTheLimit) {
  mwLimit(5000);
  void *p = mwMalloc(100, "t.c", 1);
  Mark();
  // Another chunk is taken while 100 live bytes + the reserve + 1024 stay within 5000.
  EXPECT_EQ(mwGrab(10), 4u);
  ExpectLines(NewLines(), {"grabbed: all allowed memory to grabbed (4 kb)"});
  mwFree(p, "t.c", 2);
}

TEST_F(MwReserve, GrabStopsWhenTheSystemHasNoMore) {
  Start();
  FailSystemMallocs({2});
  EXPECT_EQ(mwGrab(5), 2u);
  ExpectLines(NewLines(), {"grabbed: all available memory to grabbed (2 kb)"});
}

TEST_F(MwReserve, NoMansLandLevelsSwitchRetentionAndReserve) {
  mwNoMansLand(MW_NML_FREE);
  EXPECT_EQ(vemo::mwRetainMode, 1);
  EXPECT_EQ(vemo::mwReserveChunks, nullptr);
  mwNoMansLand(7);
  EXPECT_EQ(vemo::mwRetainMode, 1);
  mwNoMansLand(MW_NML_ALL);
  EXPECT_EQ(vemo::mwRetainMode, 2);
  EXPECT_EQ(vemo::mwReserveBytes, 65000L * 1024);
  mwNoMansLand(MW_NML_NONE);
  EXPECT_EQ(vemo::mwRetainMode, 0);
  EXPECT_EQ(vemo::mwReserveBytes, 0);
  ExpectLines(NewLines(), {"grabbed: 65000 kilobytes of no-mans-land memory",
                           "dropped: 60000 kilobytes of no-mans-land memory",
                           "dropped: all no-mans-land memory (5000 kb)"});
}

TEST_F(MwReserve, StatisticsLevelChangesAreTold) {
  mwStatistics(-5);
  mwStatistics(MW_STAT_MODULE);
  mwStatistics(MW_STAT_MODULE);
  mwStatistics(9);
  mwStatistics(0);
  ExpectLines(NewLines(), {"statistics: now collecting on a module basis",
                           "statistics: now collecting on a line basis",
                           "statistics: now collecting on a global basis"});
  EXPECT_EQ(vemo::mwStatMode, 0);
}

TEST_F(MwReserve, AutoCheckSelectsEveryItem) {
  mwAutoCheck(1);
  EXPECT_EQ(vemo::mwAutoCheckOn, 1);
  EXPECT_EQ(vemo::mwCheckItems, 0xFFFF);
  mwAutoCheck(0);
  EXPECT_EQ(vemo::mwAutoCheckOn, 0);
  EXPECT_EQ(vemo::mwCheckItems, 0xFFFF);
  EXPECT_TRUE(NewLines().empty());
}

}  // namespace
