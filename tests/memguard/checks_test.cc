// Heap checks and block tests; the repair of damaged headers and links, with the exact report
// lines and a whole chain afterwards. (Repairs that must end the process are in fault_test.cc.)
#include <stdlib.h>
#include <string.h>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

mwData *const kUnreadable = reinterpret_cast<mwData *>(16);

TEST(MwChecks, Scenarios) {
  const std::string kRelinked = "relink: successful, no allocations lost";
  RunScenarios({
      {"guards written: overflow by one byte, underflow, both; the blocks are still freed",
       [](Vars &) {
         auto *p = static_cast<char *>(mwMalloc(10, "t.c", 1)), *q = (char *)mwMalloc(4, "t.c", 2);
         p[10] = 'x', q[-3] = 0;
         EXPECT_EQ(mwTestBuffer("t.c", 3, p), 1);
         EXPECT_EQ(mwTestBuffer("t.c", 4, q), 1);
         q[4] = 0;
         EXPECT_EQ(mwTestBuffer("t.c", 5, q), 1);
         mwFree(p, "t.c", 6), mwFree(q, "t.c", 7);
         EXPECT_EQ(vemo::mwLiveBlocks, 0);
       }, {"overflow: <2> t.c(3), 10 bytes alloc'd at <1> t.c(1)",
           "underflow: <2> t.c(4), 4 bytes alloc'd at <2> t.c(2)",
           "underflow: <2> t.c(5), 4 bytes alloc'd at <2> t.c(2)",
           "overflow: <2> t.c(5), 4 bytes alloc'd at <2> t.c(2)",
           "overflow: <3> t.c(6), 10 bytes alloc'd at <1> t.c(1)",
           "underflow: <4> t.c(7), 4 bytes alloc'd at <2> t.c(2)",
           "overflow: <4> t.c(7), 4 bytes alloc'd at <2> t.c(2)"}, 7},
      {"a wrong check value in a whole chain: size 0, file renamed unless statistics know it",
       [](Vars &v) {
         void *older = mwMalloc(2, "t.c", 1), *p = mwMalloc(7, "t.c", 2);
         HeaderOf(p)->check ^= 0x10, v("p", HeaderOf(p));
         mwFree(p, "t.c", 3);  // its back guard is looked for at the start of its data
         EXPECT_EQ(vemo::mwLiveBytes, 9);  // the size could not be trusted
         mwStatistics(MW_STAT_MODULE);
         void *q = mwMalloc(7, "s.c", 4);
         HeaderOf(q)->check ^= 1, v("q", HeaderOf(q));
         EXPECT_EQ(mwTestBuffer("t.c", 5, q), 1);
         mwFree(q, "t.c", 6), mwFree(older, "t.c", 7);
       }, {"internal: <3> t.c(3), checksum for MW-{p} is incorrect",
           "overflow: <3> t.c(3), 0 bytes alloc'd at <2> <relinked>(2)",
           "statistics: now collecting on a module basis",
           "internal: <4> t.c(5), checksum for MW-{q} is incorrect",
           "overflow: <4> t.c(5), 0 bytes alloc'd at <4> s.c(4)",
           "overflow: <5> t.c(6), 0 bytes alloc'd at <4> s.c(4)"}, 5},
      {"the automatic check prefixes its first finding; the untracked twins give no place",
       [](Vars &) {
         mwAutoCheck(1);
         mwTest(nullptr, 0, MW_TEST_CHAIN);  // what the automatic check covers, found silently
         void *a = mwMalloc(1, "t.c", 1), *b = mwMalloc(1, "t.c", 2), *c = mwMalloc(1, "t.c", 3);
         HeaderOf(b)->prev = HeaderOf(a);  // b's newer neighbour is c, not a
         void *d = mwMalloc(1, "t.c", 4);
         HeaderOf(b)->prev = HeaderOf(c), HeaderOf(d)->prev = HeaderOf(d), free(mwMalloc_(4));
         HeaderOf(d)->prev = nullptr, mwAutoCheck(0);
         for (void *p : {a, b, c, d}) mwFree(p, "t.c", 6);
       }, {"autocheck: <3> t.c(4) check: heap chain broken, next link incorrect",
           "check: heap chain broken, prev link incorrect",
           "autocheck: <4> unknown(0) check: heap chain broken, prev link incorrect"}, 3},
      {"a tail in the middle; an unreadable link ends the chain check", [](Vars &) {
         void *a = mwMalloc(1, "t.c", 1), *b = mwMalloc(1, "t.c", 2), *c = mwMalloc(1, "t.c", 3);
         vemo::mwTail = HeaderOf(b);
         EXPECT_EQ(mwTest("t.c", 4, MW_TEST_CHAIN), 2);
         mwData *next = HeaderOf(b)->next;
         vemo::mwTail = HeaderOf(a), HeaderOf(b)->next = kUnreadable;
         EXPECT_EQ(mwTest("t.c", 5, MW_TEST_CHAIN | MW_TEST_NML), 1);
         HeaderOf(b)->next = next;
         for (void *p : {a, b, c}) mwFree(p, "t.c", 6);
       }, {"check: <3> t.c(4), checking chain ", "check: heap chain broken, next link incorrect",
           "check: heap chain broken, tail incorrect",
           "check: <3> t.c(5), checking chain nomansland ", "check: heap corruption detected"}, 3},
      {"a written retained block is a wild pointer but no error; an unreadable block is invalid",
       [](Vars &v) {
         mwNoMansLand(MW_NML_FREE);
         auto *p = static_cast<unsigned char *>(mwMalloc(6, "t.c", 1));
         mwFree(p, "t.c", 2), p[5] = 0, v("p", p + 8);
         EXPECT_EQ(mwTest("t.c", 3, MW_TEST_ALL), 0);
         mwData *head = vemo::mwHead;
         vemo::mwHead = kUnreadable;
         EXPECT_EQ(mwTest("t.c", 4, MW_TEST_ALLOC), 1);
         vemo::mwHead = head;
       }, {"check: <2> t.c(3), checking chain alloc nomansland ",
           "wild pointer: <1> NoMansLand {p} alloc'd at t.c(1)",
           "check: <2> t.c(3), complete; no errors", "check: <2> t.c(4), checking alloc ",
           "internal: <2> t.c(4): pointer MW-0x10 is invalid"}, 2},
      {"a wrong prev link is relinked and the free proceeds", [](Vars &v) {
         void *a = mwMalloc(1, "t.c", 1), *b = mwMalloc(1, "t.c", 2), *c = mwMalloc(1, "t.c", 3);
         HeaderOf(b)->prev = HeaderOf(a), v("b", HeaderOf(b)), mwFree(b, "t.c", 10);
         EXPECT_EQ(vemo::mwLiveBlocks, 2);
         mwFree(a, "t.c", 11), mwFree(c, "t.c", 12);
       }, {"relink: <4> t.c(10) attempting to repair MW-{b}...", kRelinked}, 0},
      {"a trashed header is cut out of the chain", [](Vars &v) {
         void *b[5];
         for (int i = 0; i < 5; ++i) b[i] = mwMalloc((size_t)i + 1, "t.c", i + 1);
         for (int i : {1, 2, 3}) v("b" + std::to_string(i + 1), HeaderOf(b[i]));
         memset(HeaderOf(b[2]), 0x55, vemo::kDataSize);  // the flags say "retained" too
         mwFree(b[1], "t.c", 20), v("p", b[1]);
         free(HeaderOf(b[2]));  // nobody else will release it
         EXPECT_EQ(vemo::mwLiveBlocks, 5);
       }, {"relink: <6> t.c(20) attempting to repair MW-{b2}...",
           "relink: failed for MW-{b2}; forward chain fragmented at MW-{b4}: 'next' is {b3}",
           "relink: <6> t.c(20) attempting emergency repairs...",
           "relink: forward chain's last intact MW is MW-{b4}, 4 bytes at t.c(4)",
           "relink: forward chain's first damaged MW is MW-{b3}, {N} NoMansLand bytes at "
           "<garbage-pointer>({N})",
           "relink: reverse chain's last intact MW is MW-{b2}, 2 bytes at t.c(2)",
           "relink: reverse chain's first damaged MW is MW-{b3}, {N} NoMansLand bytes at "
           "<garbage-pointer>({N})",
           "relink: emergency repairs successful, assessing damage...",
           "relink: partial, 1 MW-blocks of 3 bytes lost",
           "internal: <6> t.c(20), mwIsOwned fails for MW-{b2}",
           "WILD free: <6> t.c(20), unknown pointer {p}"}, 2},
      {"a copied header found in neither chain is refused", [](Vars &v) {
         void *b1 = mwMalloc(8, "t.c", 1);
         alignas(16) static unsigned char fake[256];
         memcpy(fake, HeaderOf(b1), vemo::kDataSize + 24), mwMalloc(8, "t.c", 2);
         mwFree(fake + vemo::kDataSize + 8, "t.c", 30), v("mw", fake);
         v("p", fake + vemo::kDataSize + 8);
       }, {"relink: <3> t.c(30) attempting to repair MW-{mw}...",
           "relink: MW-{mw} not found in forward chain search",
           "relink: MW-{mw} not found in reverse chain search",
           "relink: heap appears intact, MW-{mw} probably garbage pointer", kRelinked,
           "internal: <3> t.c(30), mwIsOwned fails for MW-{mw}",
           "WILD free: <3> t.c(30), unknown pointer {p}"}, 2},
      {"an unreadable head is replaced by the end of the reverse chain", [](Vars &v) {
         mwMalloc(1, "t.c", 1);
         void *b2 = mwMalloc(1, "t.c", 2);
         vemo::mwHead = kUnreadable, v("mw", HeaderOf(b2)), mwFree(b2, "t.c", 40);
         EXPECT_EQ(vemo::mwLiveBlocks, 1);
       }, {"relink: <3> t.c(40) attempting to repair MW-{mw}...",
           "relink: failed for MW-{mw}; head pointer destroyed",
           "relink: <3> t.c(40) attempting emergency repairs...",
           "relink: mwHead (MW-0x10) is damaged, skipping forward scan",
           "relink: heap truncated, MW-{mw} designated as new mwHead",
           "relink: verifying heap integrity...", kRelinked}, 0},
      {"an unreadable tail is replaced by the end of the forward chain", [](Vars &v) {
         void *b1 = mwMalloc(1, "t.c", 1);
         mwMalloc(1, "t.c", 2);
         vemo::mwTail = kUnreadable, v("mw", HeaderOf(b1)), mwFree(b1, "t.c", 50);
       }, {"relink: <3> t.c(50) attempting to repair MW-{mw}...",
           "relink: failed for MW-{mw}; tail pointer destroyed",
           "relink: <3> t.c(50) attempting emergency repairs...",
           "relink: mwTail (0x10) is damaged, skipping reverse scan",
           "relink: heap truncated, MW-{mw} designated as new mwTail",
           "relink: verifying heap integrity...", kRelinked}, 0},
      {"the block test relinks a trashed head and clears its wild prev", [](Vars &v) {
         void *a = mwMalloc(1, "t.c", 1), *b = mwMalloc(1, "t.c", 2);
         HeaderOf(b)->prev = HeaderOf(a), HeaderOf(b)->check ^= 1, v("mw", HeaderOf(b));
         EXPECT_EQ(mwTest("t.c", 70, MW_TEST_ALLOC), 0);
       }, {"check: <2> t.c(70), checking alloc ", "internal: <2> t.c(70), info trashed; relinking",
           "relink: <2> t.c(70) attempting to repair MW-{mw}...",
           "relink: MW-{mw} is the head (first) allocation",
           "relink: MW-{mw} prev pointer is non-NULL, you have a wild pointer", kRelinked,
           "check: <2> t.c(70), complete; no errors"}, 1},
      {"unlinking tells links that do not fit; an empty heap has nothing to repair",
       [](Vars &v) {
         Start();
         mwData p{}, x{}, n{};
         x.prev = &p, x.next = &n, v("x", &x);  // neighbours that do not point back at x
         vemo::MwGuard guard;
         vemo::mwUnlinkBlock(&x, "t.c", 1);
         x.prev = x.next = nullptr;
         vemo::mwUnlinkBlock(&x, nullptr, 2);
         EXPECT_EQ(vemo::mwRepairChain(nullptr, nullptr, 0), 0);
         vemo::mwLiveBytes = 5;
         EXPECT_EQ(vemo::mwRepairChain(nullptr, "t.c", 80), 0);
         vemo::mwLiveBytes = 0;
       }, {"internal: <0> t.c(1), MW-{x}: link1 failure",
           "internal: <0> t.c(1), MW-{x}: link2 failure",
           "internal: <0> unknown(2), MW-{x}: link1 NULL, but not head",
           "internal: <0> unknown(2), MW-{x}: link2 NULL, but not tail",
           "relink: cannot repair MW at NULL", "relink: <0> unknown(0) heap is empty, nothing to repair",
           "relink: cannot repair MW at NULL", "relink: <0> t.c(80) heap damaged beyond repair"}, 0},
  });
}

}  // namespace
