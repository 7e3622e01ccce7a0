// Tracked release and reallocation: retention, the freed ring that tells double frees from
// wild ones, and reallocation that always moves.
#include <string.h>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

class MwFree : public MwTest {};

bool AllBytes(const void *p, size_t n, unsigned char value) {
  const unsigned char *bytes = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; ++i) {
    if (bytes[i] != value) return false;
  }
  return true;
}

TEST_F(MwFree, RetainedFreeKeepsTheBlockFilledWithFC) {
  mwNoMansLand(MW_NML_FREE);
  void *p = mwMalloc(24, "a.c", 1);
  mwFree(p, "a.c", 2);
  mwData *mw = HeaderOf(p);
  EXPECT_EQ(vemo::mwHead, mw);
  EXPECT_EQ(mw->flags & 1, 1);
  EXPECT_TRUE(AllBytes(p, 24, 0xFC));
  EXPECT_EQ(vemo::mwRetainedBlocks, 1);
  EXPECT_EQ(vemo::mwRetainedBytes, 24);
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
  EXPECT_EQ(vemo::mwLiveBytes, 0);
  EXPECT_EQ(mwTest("a.c", 3, MW_TEST_ALL), 0);
}

TEST_F(MwFree, FreeWithNullFileReleasesUntrackedMemoryWithoutStarting) {
  void *p = mwMalloc_(16);
  ASSERT_NE(p, nullptr);
  mwFree(p, nullptr, 0);
  void *q = mwCalloc_(2, 8);
  q = mwRealloc_(q, 32);
  mwFree_(q);
  EXPECT_EQ(vemo::mwInitCount, 0);
  EXPECT_FALSE(FileExists("memguard.log"));
}

TEST_F(MwFree, NullFreeIsLoggedButNotAnAnomaly) {
  Start();
  mwFree(nullptr, "a.c", 3);
  ExpectLines(NewLines(), {"NULL free: <1> a.c(3), NULL pointer free'd"});
  EXPECT_EQ(vemo::mwAnomalies, 0);
}

TEST_F(MwFree, SecondFreeNamesTheFirstOne) {
  void *p = mwMalloc(8, "a.c", 10);
  mwFree(p, "a.c", 11);
  mwFree(p, "a.c", 12);
  ExpectLines(NewLines(),
              {"double-free: <3> a.c(12), " + Hex(p) + " was freed from a.c(11)"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
}

TEST_F(MwFree, FreeForgottenByTheRingIsWild) {
  void *p = mwMalloc(8, "a.c", 1);
  // 64 later frees push p out of the ring; their blocks live until then, so that none of
  // them can reuse p's address.
  std::vector<void *> others;
  for (int i = 0; i < 64; ++i) others.push_back(mwMalloc(1, "a.c", 3));
  mwFree(p, "a.c", 2);
  for (void *other : others) mwFree(other, "a.c", 4);
  Mark();
  mwFree(p, "a.c", 5);
  ExpectLines(NewLines(), {"WILD free: <131> a.c(5), unknown pointer " + Hex(p)});
  EXPECT_EQ(vemo::mwAnomalies, 1);
}

TEST_F(MwFree, SecondFreeOfRetainedBlockLeavesItRetained) {
  mwNoMansLand(MW_NML_FREE);
  void *p = mwMalloc(8, "a.c", 1);
  mwFree(p, "a.c", 2);
  Mark();
  mwFree(p, "a.c", 3);
  ExpectLines(NewLines(), {"double-free: <3> a.c(3), " + Hex(p) + " was freed from a.c(2)"});
  EXPECT_EQ(vemo::mwRetainedBlocks, 1);
  EXPECT_EQ(HeaderOf(p)->flags & 1, 1);
}

TEST_F(MwFree, FreeOfWrittenRetainedBlockReportsTheCorruption) {
  mwNoMansLand(MW_NML_FREE);
  void *p = mwMalloc(8, "a.c", 1);
  mwFree(p, "a.c", 2);
  static_cast<unsigned char *>(p)[0] = 0;
  Mark();
  mwFree(p, "a.c", 3);
  ExpectLines(NewLines(),
              {"internal: <3> a.c(3), no-mans-land MW-" + Hex(HeaderOf(p)) + " is corrupted",
               "double-free: <3> a.c(3), " + Hex(p) + " was freed from a.c(2)"});
}

TEST_F(MwFree, FreeOfForeignPointerReleasesNothing) {
  Start();
  alignas(16) static unsigned char foreign[256];
  memset(foreign, 0x33, sizeof foreign);
  void *p = mwMalloc(4, "a.c", 1);
  mwFree(foreign + 128, "a.c", 2);
  ExpectLines(NewLines(), {"WILD free: <2> a.c(2), unknown pointer " + Hex(foreign + 128)});
  EXPECT_TRUE(AllBytes(foreign, sizeof foreign, 0x33));
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  mwFree(p, "a.c", 3);
}

TEST_F(MwFree, MisalignedPointerIsWildAndItsHeaderNeverRead) {
  char *p = static_cast<char *>(mwMalloc(16, "a.c", 1));
  mwFree(p + 1, "a.c", 2);
  EXPECT_EQ(mwTestBuffer("a.c", 3, p + 3), 1);
  ExpectLines(NewLines(), {"WILD free: <2> a.c(2), unknown pointer " + Hex(p + 1)});
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  mwFree(p, "a.c", 4);
}

TEST_F(MwFree, FreeBeforeAnyAllocationIsWild) {
  Start();
  alignas(16) static unsigned char foreign[256];
  mwFree(foreign + 128, "a.c", 2);
  ExpectLines(NewLines(), {"WILD free: <1> a.c(2), unknown pointer " + Hex(foreign + 128)});
}

TEST_F(MwFree, ReallocOfNullAllocatesAndToZeroFrees) {
  void *p = mwRealloc(nullptr, 10, "a.c", 1);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(HeaderOf(p)->size, 10u);
  EXPECT_EQ(mwRealloc(p, 0, "a.c", 2), nullptr);
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
  EXPECT_EQ(vemo::mwFreedRing[0].p, p);
  EXPECT_TRUE(NewLines().empty());
}

TEST_F(MwFree, ReallocMovesAndKeepsTheSmallerSize) {
  char *p = static_cast<char *>(mwMalloc(6, "a.c", 1));
  memcpy(p, "hello", 6);
  char *q = static_cast<char *>(mwRealloc(p, 3, "a.c", 2));
  ASSERT_NE(q, nullptr);
  EXPECT_NE(q, p);
  EXPECT_EQ(memcmp(q, "hel", 3), 0);
  // The old block went through mwFree: using it again is a double free.
  mwFree(p, "a.c", 3);
  ExpectLines(NewLines(), {"double-free: <4> a.c(3), " + Hex(p) + " was freed from a.c(2)"});
  char *r = static_cast<char *>(mwRealloc(q, 40, "a.c", 4));
  EXPECT_EQ(memcmp(r, "hel", 3), 0);
  EXPECT_TRUE(AllBytes(r + 3, 37, 0xFE));
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  EXPECT_EQ(vemo::mwLiveBytes, 40);
  mwFree(r, "a.c", 5);
}

TEST_F(MwFree, ReallocOfFreedOrUnknownPointerFails) {
  void *p = mwMalloc(8, "a.c", 1);
  mwFree(p, "a.c", 2);
  alignas(16) static unsigned char foreign[256];
  EXPECT_EQ(mwRealloc(p, 16, "a.c", 3), nullptr);
  EXPECT_EQ(mwRealloc(foreign + 128, 16, "a.c", 4), nullptr);
  ExpectLines(NewLines(), {"realloc: <2> a.c(3), " + Hex(p) + " was freed from a.c(2)",
                           "realloc: <2> a.c(4), unknown pointer " + Hex(foreign + 128)});
  EXPECT_EQ(vemo::mwAnomalies, 2);
}

TEST_F(MwFree, ReallocOfRetainedBlockCountsTwoAnomalies) {
  mwNoMansLand(MW_NML_FREE);
  void *p = mwMalloc(8, "a.c", 1);
  mwFree(p, "a.c", 2);
  static_cast<unsigned char *>(p)[0] = 1;
  Mark();
  EXPECT_EQ(mwRealloc(p, 16, "a.c", 3), nullptr);
  ExpectLines(NewLines(),
              {"internal: <2> a.c(3), no-mans-land MW-" + Hex(HeaderOf(p)) + " is corrupted",
               "realloc: <2> a.c(3), " + Hex(p) + " was freed from a.c(2)"});
  EXPECT_EQ(vemo::mwAnomalies, 2);
}

}  // namespace
