// Chain repair after deliberate damage to headers and links: the exact report lines, and a
// consistent chain afterwards. (Repairs that must end the process are in fault_test.cc.)
#include <stdlib.h>
#include <string.h>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

class MwRepair : public MwTest {
 protected:
  // The chain holds exactly these blocks, newest first, with every link and check right.
  void ExpectChain(const std::vector<void *> &newest_first) {
    vemo::MwGuard guard;
    EXPECT_EQ(vemo::mwHeapIntact(nullptr), 1);
    mwData *mw = vemo::mwHead;
    for (void *p : newest_first) {
      ASSERT_EQ(mw, HeaderOf(p));
      EXPECT_TRUE(vemo::mwCheckRight(mw));
      mw = mw->next;
    }
    EXPECT_EQ(mw, nullptr);
  }
};

TEST_F(MwRepair, WrongPrevLinkIsRelinkedAndTheFreeProceeds) {
  void *a = mwMalloc(1, "t.c", 1);
  void *b = mwMalloc(1, "t.c", 2);
  void *c = mwMalloc(1, "t.c", 3);
  HeaderOf(b)->prev = HeaderOf(a);
  mwFree(b, "t.c", 10);
  ExpectLines(NewLines(), {"relink: <4> t.c(10) attempting to repair MW-" + Hex(HeaderOf(b)) + "...",
                           "relink: successful, no allocations lost"});
  ExpectChain({c, a});
  EXPECT_EQ(vemo::mwLiveBlocks, 2);
  EXPECT_EQ(mwTest("t.c", 11, MW_TEST_ALL), 0);
}

TEST_F(MwRepair, TrashedHeaderIsCutOutOfTheChainAndReported) {
  std::vector<void *> blocks;
  for (int i = 1; i <= 5; ++i) blocks.push_back(mwMalloc((size_t)i, "t.c", i));
  mwData *b2 = HeaderOf(blocks[1]);
  mwData *b3 = HeaderOf(blocks[2]);
  mwData *b4 = HeaderOf(blocks[3]);
  memset(b3, 0x55, vemo::kDataSize);
  mwFree(blocks[1], "t.c", 20);
  // 0x55 everywhere: the flags say "retained" too.
  std::string damaged = "{N} NoMansLand bytes at <garbage-pointer>({N})";
  ExpectLines(NewLines(),
              {"relink: <6> t.c(20) attempting to repair MW-" + Hex(b2) + "...",
               "relink: failed for MW-" + Hex(b2) + "; forward chain fragmented at MW-" + Hex(b4) +
                   ": 'next' is " + Hex(b3),
               "relink: <6> t.c(20) attempting emergency repairs...",
               "relink: forward chain's last intact MW is MW-" + Hex(b4) + ", 4 bytes at t.c(4)",
               "relink: forward chain's first damaged MW is MW-" + Hex(b3) + ", " + damaged,
               "relink: reverse chain's last intact MW is MW-" + Hex(b2) + ", 2 bytes at t.c(2)",
               "relink: reverse chain's first damaged MW is MW-" + Hex(b3) + ", " + damaged,
               "relink: emergency repairs successful, assessing damage...",
               "relink: partial, 1 MW-blocks of 3 bytes lost",
               "internal: <6> t.c(20), mwIsOwned fails for MW-" + Hex(b2),
               "WILD free: <6> t.c(20), unknown pointer " + Hex(blocks[1])});
  // The partial repair did not own the block: it stays, and the chain is whole without b3.
  ExpectChain({blocks[4], blocks[3], blocks[1], blocks[0]});
  EXPECT_EQ(mwTest("t.c", 21, MW_TEST_ALL), 0);
  free(b3);  // cut out of the chain: nobody else will release it
}

TEST_F(MwRepair, CopiedHeaderFoundInNeitherChainIsRefused) {
  void *b1 = mwMalloc(8, "t.c", 1);
  void *b2 = mwMalloc(8, "t.c", 2);
  alignas(16) static unsigned char fake[256];
  memcpy(fake, HeaderOf(b1), vemo::kDataSize + 8 + 8 + 8);
  void *fake_user = fake + vemo::kDataSize + 8;
  mwFree(fake_user, "t.c", 30);
  std::string mw = "MW-" + Hex(fake);
  ExpectLines(NewLines(), {"relink: <3> t.c(30) attempting to repair " + mw + "...",
                           "relink: " + mw + " not found in forward chain search",
                           "relink: " + mw + " not found in reverse chain search",
                           "relink: heap appears intact, " + mw + " probably garbage pointer",
                           "relink: successful, no allocations lost",
                           "internal: <3> t.c(30), mwIsOwned fails for " + mw,
                           "WILD free: <3> t.c(30), unknown pointer " + Hex(fake_user)});
  ExpectChain({b2, b1});
  EXPECT_EQ(vemo::mwLiveBlocks, 2);
}

TEST_F(MwRepair, UnreadableHeadIsReplacedByTheEndOfTheReverseChain) {
  void *b1 = mwMalloc(1, "t.c", 1);
  void *b2 = mwMalloc(1, "t.c", 2);
  vemo::mwHead = reinterpret_cast<mwData *>(16);
  mwFree(b2, "t.c", 40);
  std::string mw = "MW-" + Hex(HeaderOf(b2));
  ExpectLines(NewLines(), {"relink: <3> t.c(40) attempting to repair " + mw + "...",
                           "relink: failed for " + mw + "; head pointer destroyed",
                           "relink: <3> t.c(40) attempting emergency repairs...",
                           "relink: mwHead (MW-0x10) is damaged, skipping forward scan",
                           "relink: heap truncated, " + mw + " designated as new mwHead",
                           "relink: verifying heap integrity...",
                           "relink: successful, no allocations lost"});
  ExpectChain({b1});
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
}

TEST_F(MwRepair, UnreadableTailIsReplacedByTheEndOfTheForwardChain) {
  void *b1 = mwMalloc(1, "t.c", 1);
  void *b2 = mwMalloc(1, "t.c", 2);
  vemo::mwTail = reinterpret_cast<mwData *>(16);
  mwFree(b1, "t.c", 50);
  std::string mw = "MW-" + Hex(HeaderOf(b1));
  ExpectLines(NewLines(), {"relink: <3> t.c(50) attempting to repair " + mw + "...",
                           "relink: failed for " + mw + "; tail pointer destroyed",
                           "relink: <3> t.c(50) attempting emergency repairs...",
                           "relink: mwTail (0x10) is damaged, skipping reverse scan",
                           "relink: heap truncated, " + mw + " designated as new mwTail",
                           "relink: verifying heap integrity...",
                           "relink: successful, no allocations lost"});
  ExpectChain({b2});
}

TEST_F(MwRepair, TrashedCheckFoundByTheBlockTestIsRelinked) {
  void *a = mwMalloc(1, "t.c", 1);
  void *b = mwMalloc(1, "t.c", 2);
  HeaderOf(b)->check ^= 4;
  EXPECT_EQ(mwTest("t.c", 60, MW_TEST_ALLOC), 0);
  std::string mw = "MW-" + Hex(HeaderOf(b));
  ExpectLines(NewLines(), {"check: <2> t.c(60), checking alloc ",
                           "internal: <2> t.c(60), info trashed; relinking",
                           "relink: <2> t.c(60) attempting to repair " + mw + "...",
                           "relink: " + mw + " is the head (first) allocation",
                           "relink: successful, no allocations lost",
                           "check: <2> t.c(60), complete; no errors"});
  EXPECT_STREQ(HeaderOf(b)->file, "<relinked>");
  ExpectChain({b, a});
}

TEST_F(MwRepair, WildPrevOfTheHeadIsCleared) {
  void *a = mwMalloc(1, "t.c", 1);
  void *b = mwMalloc(1, "t.c", 2);
  HeaderOf(b)->prev = HeaderOf(a);
  HeaderOf(b)->check ^= 1;
  EXPECT_EQ(mwTest("t.c", 70, MW_TEST_ALLOC), 0);
  std::string mw = "MW-" + Hex(HeaderOf(b));
  ExpectLines(NewLines(), {"check: <2> t.c(70), checking alloc ",
                           "internal: <2> t.c(70), info trashed; relinking",
                           "relink: <2> t.c(70) attempting to repair " + mw + "...",
                           "relink: " + mw + " is the head (first) allocation",
                           "relink: " + mw + " prev pointer is non-NULL, you have a wild pointer",
                           "relink: successful, no allocations lost",
                           "check: <2> t.c(70), complete; no errors"});
  ExpectChain({b, a});
}

TEST_F(MwRepair, UnlinkingReportsLinksThatDoNotFit) {
  Start();
  mwData p{}, x{}, n{};
  mwData *head = vemo::mwHead;
  mwData *tail = vemo::mwTail;
  vemo::MwGuard guard;
  // x's neighbours do not point back at it, and x is neither head nor tail.
  x.prev = &p;
  x.next = &n;
  vemo::mwUnlinkBlock(&x, "t.c", 1);
  EXPECT_EQ(p.next, nullptr);
  EXPECT_EQ(n.prev, nullptr);
  x.prev = nullptr;
  x.next = nullptr;
  vemo::mwUnlinkBlock(&x, nullptr, 2);
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwTail, nullptr);
  vemo::mwHead = head;
  vemo::mwTail = tail;
  std::string mw = "MW-" + Hex(&x);
  ExpectLines(NewLines(), {"internal: <0> t.c(1), " + mw + ": link1 failure",
                           "internal: <0> t.c(1), " + mw + ": link2 failure",
                           "internal: <0> unknown(2), " + mw + ": link1 NULL, but not head",
                           "internal: <0> unknown(2), " + mw + ": link2 NULL, but not tail"});
}

TEST_F(MwRepair, EmptyHeapHasNothingToRepair) {
  Start();
  vemo::MwGuard guard;
  EXPECT_EQ(vemo::mwRepairChain(nullptr, nullptr, 0), 0);
  vemo::mwLiveBytes = 5;
  EXPECT_EQ(vemo::mwRepairChain(nullptr, "t.c", 80), 0);
  vemo::mwLiveBytes = 0;
  ExpectLines(NewLines(), {"relink: cannot repair MW at NULL",
                           "relink: <0> unknown(0) heap is empty, nothing to repair",
                           "relink: cannot repair MW at NULL",
                           "relink: <0> t.c(80) heap damaged beyond repair"});
}

}  // namespace
