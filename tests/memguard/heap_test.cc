// Tracked blocks: layout, the chain, the limit and the failure lines; how frees and
// reallocations are classified (NULL, double, wild, retained); heap checks and block tests; the
// repair of damaged headers and links, with a whole chain afterwards (fatal ones: fault_test.cc);
// several threads at once, kept whole by the one lock, and the probes.
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

mwData *const kUnreadable = reinterpret_cast<mwData *>(16);
alignas(16) unsigned char g_foreign[256];

constexpr int kRounds = 1500;

// Keeps up to 8 blocks of its own, moving every third, checking that its bytes stay its own.
void Churn(int seed) {
  std::vector<char *> kept;
  for (int i = 0; i < kRounds; ++i) {
    size_t size = 1 + (size_t)(i * seed * 7919) % 200;
    auto *p = static_cast<char *>(memset(mwMalloc(size, "threads.c", seed), seed, size));
    if (i % 3 == 0) p = static_cast<char *>(mwRealloc(p, size + 16, "threads.c", 100 + seed));
    ASSERT_EQ(p[size - 1], static_cast<char>(seed));
    kept.push_back(p);
    if (kept.size() > 8) mwFree(kept.front(), "threads.c", 200 + seed), kept.erase(kept.begin());
  }
  for (char *p : kept) mwFree(p, "threads.c", 300 + seed);
}

void previous_handler(int) {}

TEST(MwHeap, Scenarios) {
  const std::string kRelinked = "relink: successful, no allocations lost";
  RunScenarios({
      {"new block: guards, fill, check value; zero-size blocks; the leak line", [](Vars &v) {
         auto *p = static_cast<unsigned char *>(mwMalloc(5, "a.c", 12));
         EXPECT_EQ(Bytes(p - 8, 21), "mEmGuArD\xFE\xFE\xFE\xFE\xFEmEmGuArD");
         EXPECT_EQ(HeaderOf(p)->check, 0x00FE0180UL ^ 1 ^ 5 ^ 12);
         std::vector<void *> empty = Blocks(2, 0);
         EXPECT_EQ(Bytes((char *)empty[0] - 8, 16), "mEmGuArDmEmGuArD");
         EXPECT_EQ(mwTestBuffer("a.c", 3, empty[0]), 0);
         for (void *e : empty) mwFree(e, "a.c", 4);
         mwTerm(), v("p", p);
       }, {kStopped, "unfreed: <1> a.c(12), 5 bytes at {p}  \t{FE FE FE FE FE .. .. .. .. .. .. .. "
           ".. .. .. .. .....}", Stats(3, 5, 5, 5, 1)}, 0},
      {"frees from the middle and both ends; a second free names the first", [](Vars &v) {
         std::vector<void *> p = Blocks(4);
         for (int i : {1, 3, 0}) mwFree(p[i], "a.c", 10 + i);
         EXPECT_EQ(mwTest("a.c", 20, MW_TEST_CHAIN), 0);
         mwFree(p[2], "a.c", 12), mwFree(p[1], "a.c", 21), v("p", p[1]);
       }, {"check: <7> a.c(20), checking chain \ncheck: <7> a.c(20), complete; no errors",
           "double-free: <9> a.c(21), {p} was freed from a.c(11)"}, 1},
      {"the limit refuses allocations and growth beyond it", [](Vars &) {
         mwLimit(0), mwLimit(1000);
         void *big = mwMalloc(800, "a.c", 1), *small = mwMalloc(100, "a.c", 2);
         EXPECT_EQ(mwMalloc(200, "a.c", 3), nullptr);
         EXPECT_EQ(mwRealloc(small, 250, "a.c", 4), nullptr);
         void *grown = mwRealloc(small, 200, "a.c", 5);  // the limit, with both blocks at once
         EXPECT_EQ(mwMalloc(1, "a.c", 6), nullptr); mwLimit(0);
         for (void *p : {big, grown, mwMalloc(2000, "a.c", 7)}) mwFree(p, "a.c", 8);
       }, {"limit: old limit = none, new limit = none\nlimit: old limit = none, new limit = 1000 bytes",
           "limit fail: <3> a.c(3), 200 wanted 100 available\n"
           "limit fail: <4> a.c(4), 150 wanted 100 available\n"
           "limit fail: <7> a.c(6), 1 wanted 0 available",
           "limit: old limit = 1000 bytes, new limit = none"}, 3},
      {"sizes that overflow; calloc zeroes; strdup copies and refuses NULL", [](Vars &) {
         EXPECT_EQ(mwMalloc(SIZE_MAX - 10, "a.c", 1), nullptr);  // silently
         auto *p = static_cast<char *>(mwCalloc(3, 5, "a.c", 2));
         EXPECT_EQ(Bytes(p, 15), std::string(15, '\0'));
         EXPECT_EQ(mwCalloc(SIZE_MAX / 2, 3, "a.c", 3), nullptr);
         char *copy = mwStrdup("text", "a.c", 4);
         EXPECT_STREQ(copy, "text"); EXPECT_EQ(mwStrdup(nullptr, nullptr, 5), nullptr);
         mwFree(p, "a.c", 6), mwFree(copy, "a.c", 7);
       }, {"fail: <3> a.c(3), -1 wanted 15 allocated\nstrdup: <4> unknown(5), strdup(NULL) called"}, 2},
      {"out of memory: no-man's-land reserve given back silently, or not enough", [](Vars &v) {
         Start();
         vemo::mwLock.lock(), vemo::mwGrabChunks(3, vemo::kTypeNoMansLand), vemo::mwLock.unlock();
         FailSystemMallocs({0});  // the block; the trial after one chunk went back succeeds
         void *p = mwMalloc(10, "a.c", 1); EXPECT_EQ(vemo::mwReserveBytes, 2 * 1024);
         FailSystemMallocs({0, 2});  // the block, and its second try after a good trial
         EXPECT_EQ(mwMalloc(10, "a.c", 2), nullptr); FailSystemMallocs({});
         EXPECT_EQ(mwMalloc(20, "a.c", 3), nullptr);
         mwFree(p, "a.c", 4), v["len"] = std::to_string(10 + vemo::kDataSize + 16);
       }, {"grabbed: 3 kilobytes of no-mans-land memory",
           "internal: mwFreeUp({len}) reported success, but malloc() fails",
           "fail: <2> a.c(2), 10 wanted 10 allocated\nfail: <3> a.c(3), 20 wanted 10 allocated"}, 3},
      {"out of memory releases retained blocks, telling the written ones", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE);
         auto *kept = static_cast<unsigned char *>(mwMalloc(16, "a.c", 1));
         mwFree(kept, "a.c", 2), kept[3] = 'x', v("k", kept + 8), FailSystemMallocs({0});
         EXPECT_NE(mwMalloc(10, "a.c", 3), nullptr); EXPECT_EQ(vemo::mwRetainedBlocks, 0);
       }, {"wild pointer: <1> NoMansLand {k} alloc'd at a.c(1)"}, 1},
      {"statistics without memory are skipped", [](Vars &) {
         mwStatistics(MW_STAT_MODULE), FailSystemMallocs({1});  // the block's entry fails
         EXPECT_NE(mwMalloc(4, "a.c", 1), nullptr);
       }, {"statistics: now collecting on a module basis",
           "internal: memory low, statistics incomplete for 'a.c'"}, 0},
      {"nested starts write once; the last end reports; a new start appends; an extra end",
       [](Vars &) { mwInit(), mwInit(), mwTerm(), mwTerm(), mwInit(), mwTerm(), mwTerm(); },
       {kStopped, Stats(0, 0, 0, 0), kStopped, Stats(0, 0, 0, 0),
        "internal: mwTerm(): MEMGUARD has not been started!"}, 0},
      {"a retained block: FC fill; later frees and reallocations of it", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE); auto *p = static_cast<unsigned char *>(mwMalloc(24, "a.c", 1));
         mwFree(p, "a.c", 2), v("p", p), v("mw", HeaderOf(p));
         EXPECT_EQ(Bytes(p, 24), std::string(24, '\xFC')); EXPECT_EQ(vemo::mwRetainedBytes, 24);
         mwFree(p, "a.c", 3), p[0] = 0, mwFree(p, "a.c", 4);
         EXPECT_EQ(mwRealloc(p, 16, "a.c", 5), nullptr);
       }, {"double-free: <3> a.c(3), {p} was freed from a.c(2)",
           "internal: <4> a.c(4), no-mans-land MW-{mw} is corrupted",
           "double-free: <4> a.c(4), {p} was freed from a.c(2)",
           "internal: <4> a.c(5), no-mans-land MW-{mw} is corrupted",
           "realloc: <4> a.c(5), {p} was freed from a.c(2)"}, 4},
      {"the untracked twins and a free without a file never start the allocator", [](Vars &) {
         mwFree(mwMalloc_(16), nullptr, 0), mwFree_(mwRealloc_(mwCalloc_(2, 8), 32));
         EXPECT_NE(access("memguard.log", F_OK), 0);
       }, {}, 0},
      {"NULL, foreign, misaligned and forgotten pointers", [](Vars &v) {
         memset(g_foreign, 0x33, sizeof g_foreign), v("f", g_foreign + 128);
         mwFree(g_foreign + 128, "a.c", 1), mwFree(nullptr, "a.c", 2);  // before any allocation
         auto *p = static_cast<char *>(mwMalloc(16, "a.c", 3));
         mwFree(g_foreign + 128, "a.c", 4), mwFree(p + 1, "a.c", 5), v("p", p + 1), v("q", p);
         EXPECT_EQ(mwTestBuffer("a.c", 6, p + 3), 1);
         EXPECT_EQ(mwTestBuffer("a.c", 7, g_foreign + 128), 1);
         EXPECT_EQ(Bytes(g_foreign, 256), std::string(256, '\x33'));
         // The ring remembers p through 63 later frees, not through 64; their blocks live until
         // then, so that none of them can take p's address.
         std::vector<void *> others = Blocks(64); mwFree(p, "a.c", 9);
         for (int i = 0; i < 63; ++i) mwFree(others[i], "a.c", 10);
         mwFree(p, "a.c", 11), mwFree(others[63], "a.c", 10), mwFree(p, "a.c", 12);
       }, {"WILD free: <1> a.c(1), unknown pointer {f}\nNULL free: <2> a.c(2), NULL pointer free'd",
           "WILD free: <4> a.c(4), unknown pointer {f}\nWILD free: <5> a.c(5), unknown pointer {p}",
           "double-free: <134> a.c(11), {q} was freed from a.c(9)",
           "WILD free: <136> a.c(12), unknown pointer {q}"}, 5},
      {"realloc of NULL, moving the smaller size, to zero, of freed or unknown blocks",
       [](Vars &v) {
         auto *p = static_cast<char *>(mwRealloc(nullptr, 6, "a.c", 1)); memcpy(p, "hello", 6);
         auto *q = static_cast<char *>(mwRealloc(p, 3, "a.c", 2)); EXPECT_EQ(Bytes(q, 3), "hel");
         auto *r = static_cast<char *>(mwRealloc(q, 40, "a.c", 3));
         EXPECT_EQ(Bytes(r, 40), "hel" + std::string(37, '\xFE'));
         EXPECT_EQ(mwRealloc(r, 0, "a.c", 4), nullptr);
         EXPECT_EQ(mwRealloc(p, 16, "a.c", 5), nullptr);
         EXPECT_EQ(mwRealloc(g_foreign + 128, 16, "a.c", 6), nullptr);
         mwFree(r, "a.c", 7), v("p", p), v("r", r), v("f", g_foreign + 128);
       }, {"realloc: <6> a.c(5), {p} was freed from a.c(2)\nrealloc: <6> a.c(6), unknown pointer {f}",
           "double-free: <7> a.c(7), {r} was freed from a.c(4)"}, 3},
      {"guards written before and after by one byte; the block is still freed", [](Vars &) {
         auto *p = static_cast<char *>(mwMalloc(4, "t.c", 1)); p[-3] = 0;
         EXPECT_EQ(mwTestBuffer("t.c", 2, p), 1); p[4] = 0; EXPECT_EQ(mwTestBuffer("t.c", 3, p), 1);
         mwFree(p, "t.c", 4); EXPECT_EQ(vemo::mwLiveBlocks, 0);
       }, {"underflow: <1> t.c(2), 4 bytes alloc'd at <1> t.c(1)",
           "underflow: <1> t.c(3), 4 bytes alloc'd at <1> t.c(1)",
           "overflow: <1> t.c(3), 4 bytes alloc'd at <1> t.c(1)",
           "underflow: <2> t.c(4), 4 bytes alloc'd at <1> t.c(1)",
           "overflow: <2> t.c(4), 4 bytes alloc'd at <1> t.c(1)"}, 5},
      {"a wrong check value: size 0, file renamed unless statistics know it", [](Vars &v) {
         void *older = mwMalloc(2, "t.c", 1), *p = mwMalloc(7, "t.c", 2);
         HeaderOf(p)->check ^= 0x10, v("p", HeaderOf(p));
         mwFree(p, "t.c", 3);  // its back guard is looked for at the start of its data
         EXPECT_EQ(vemo::mwLiveBytes, 9);  // the size could not be trusted
         mwStatistics(MW_STAT_MODULE); void *q = mwMalloc(7, "s.c", 4);
         HeaderOf(q)->check ^= 1, v("q", HeaderOf(q)); EXPECT_EQ(mwTestBuffer("t.c", 5, q), 1);
         mwFree(q, "t.c", 6), mwFree(older, "t.c", 7);
       }, {"internal: <3> t.c(3), checksum for MW-{p} is incorrect",
           "overflow: <3> t.c(3), 0 bytes alloc'd at <2> <relinked>(2)",
           "statistics: now collecting on a module basis",
           "internal: <4> t.c(5), checksum for MW-{q} is incorrect",
           "overflow: <4> t.c(5), 0 bytes alloc'd at <4> s.c(4)",
           "overflow: <5> t.c(6), 0 bytes alloc'd at <4> s.c(4)"}, 5},
      {"the automatic check prefixes its first finding; twins give no place", [](Vars &) {
         mwAutoCheck(1);
         mwTest(nullptr, 0, MW_TEST_CHAIN);  // what the automatic check covers, found silently
         std::vector<void *> b = Blocks(3);
         HeaderOf(b[1])->prev = HeaderOf(b[0]);  // its newer neighbour is b[2]
         b.push_back(mwMalloc(1, "t.c", 4));
         HeaderOf(b[1])->prev = HeaderOf(b[2]), HeaderOf(b[3])->prev = HeaderOf(b[3]);
         free(mwMalloc_(4)), HeaderOf(b[3])->prev = nullptr, mwAutoCheck(0);
         for (void *p : b) mwFree(p, "t.c", 6);
       }, {"autocheck: <3> t.c(4) check: heap chain broken, next link incorrect",
           "check: heap chain broken, prev link incorrect",
           "autocheck: <4> unknown(0) check: heap chain broken, prev link incorrect"}, 3},
      {"a tail in the middle; an unreadable link ends the chain check", [](Vars &) {
         std::vector<void *> b = Blocks(3); vemo::mwTail = HeaderOf(b[1]);
         EXPECT_EQ(mwTest("t.c", 4, MW_TEST_CHAIN), 2); mwData *next = HeaderOf(b[1])->next;
         vemo::mwTail = HeaderOf(b[0]), HeaderOf(b[1])->next = kUnreadable;
         EXPECT_EQ(mwTest("t.c", 5, MW_TEST_CHAIN | MW_TEST_NML), 1); HeaderOf(b[1])->next = next;
         for (void *p : b) mwFree(p, "t.c", 6);
       }, {"check: <3> t.c(4), checking chain \ncheck: heap chain broken, next link incorrect",
           "check: heap chain broken, tail incorrect",
           "check: <3> t.c(5), checking chain nomansland \ncheck: heap corruption detected"}, 3},
      {"a written retained block is a wild pointer, no error; unreadable: invalid", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE); auto *p = static_cast<unsigned char *>(mwMalloc(6, "t.c", 1));
         mwFree(p, "t.c", 2), p[5] = 0, v("p", p + 8); EXPECT_EQ(mwTest("t.c", 3, MW_TEST_ALL), 0);
         mwData *head = vemo::mwHead; vemo::mwHead = kUnreadable;
         EXPECT_EQ(mwTest("t.c", 4, MW_TEST_ALLOC), 1); vemo::mwHead = head;
       }, {"check: <2> t.c(3), checking chain alloc nomansland ",
           "wild pointer: <1> NoMansLand {p} alloc'd at t.c(1)",
           "check: <2> t.c(3), complete; no errors\ncheck: <2> t.c(4), checking alloc ",
           "internal: <2> t.c(4): pointer MW-0x10 is invalid"}, 2},
      {"a wrong prev link is relinked and the free proceeds", [](Vars &v) {
         std::vector<void *> b = Blocks(3);
         HeaderOf(b[1])->prev = HeaderOf(b[0]), v("b", HeaderOf(b[1])), mwFree(b[1], "t.c", 10);
         EXPECT_EQ(vemo::mwLiveBlocks, 2); mwFree(b[0], "t.c", 11), mwFree(b[2], "t.c", 12);
       }, {"relink: <4> t.c(10) attempting to repair MW-{b}...", kRelinked}, 0},
      {"a trashed header is cut out of the chain", [](Vars &v) {
         std::vector<void *> b = Blocks(5);
         for (int i : {1, 2, 3}) v("b" + std::to_string(i + 1), HeaderOf(b[i]));
         memset(HeaderOf(b[2]), 0x55, vemo::kDataSize);  // the flags say "retained" too
         mwFree(b[1], "t.c", 20), v("p", b[1]);
         free(HeaderOf(b[2]));  // nobody else will release it
         EXPECT_EQ(vemo::mwLiveBlocks, 5);
       }, {FailedRepair("<6> t.c(20)", "{b2}", "forward chain fragmented at MW-{b4}: 'next' is {b3}"),
           "relink: forward chain's last intact MW is MW-{b4}, 1 bytes at t.c(4)",
           "relink: forward chain's first damaged MW is MW-{b3}, {N} NoMansLand bytes at "
           "<garbage-pointer>({N})",
           "relink: reverse chain's last intact MW is MW-{b2}, 1 bytes at t.c(2)",
           "relink: reverse chain's first damaged MW is MW-{b3}, {N} NoMansLand bytes at "
           "<garbage-pointer>({N})\nrelink: emergency repairs successful, assessing damage...",
           "relink: partial, 1 MW-blocks of 1 bytes lost",
           "internal: <6> t.c(20), mwIsOwned fails for MW-{b2}",
           "WILD free: <6> t.c(20), unknown pointer {p}"}, 2},
      {"a copied header found in neither chain is refused", [](Vars &v) {
         std::vector<void *> b = Blocks(2, 8);
         memcpy(g_foreign, HeaderOf(b[0]), vemo::kDataSize + 24);
         mwFree(g_foreign + vemo::kDataSize + 8, "t.c", 30), v("mw", g_foreign);
         v("p", g_foreign + vemo::kDataSize + 8);
       }, {"relink: <3> t.c(30) attempting to repair MW-{mw}...",
           "relink: MW-{mw} not found in forward chain search",
           "relink: MW-{mw} not found in reverse chain search",
           "relink: heap appears intact, MW-{mw} probably garbage pointer", kRelinked,
           "internal: <3> t.c(30), mwIsOwned fails for MW-{mw}",
           "WILD free: <3> t.c(30), unknown pointer {p}"}, 2},
      {"an unreadable head or tail is replaced by the end of the other chain", [](Vars &v) {
         std::vector<void *> b = Blocks(3);
         vemo::mwHead = kUnreadable, v("head", HeaderOf(b[2])), mwFree(b[2], "t.c", 40);
         vemo::mwTail = kUnreadable, v("tail", HeaderOf(b[0])), mwFree(b[0], "t.c", 50);
         EXPECT_EQ(vemo::mwLiveBlocks, 1);
       }, {FailedRepair("<4> t.c(40)", "{head}", "head pointer destroyed"),
           "relink: mwHead (MW-0x10) is damaged, skipping forward scan",
           "relink: heap truncated, MW-{head} designated as new mwHead",
           "relink: verifying heap integrity...", kRelinked,
           FailedRepair("<5> t.c(50)", "{tail}", "tail pointer destroyed"),
           "relink: mwTail (0x10) is damaged, skipping reverse scan",
           "relink: heap truncated, MW-{tail} designated as new mwTail",
           "relink: verifying heap integrity...", kRelinked}, 0},
      {"the block test relinks a trashed head and clears its wild prev", [](Vars &v) {
         std::vector<void *> b = Blocks(2);
         HeaderOf(b[1])->prev = HeaderOf(b[0]), HeaderOf(b[1])->check ^= 1, v("mw", HeaderOf(b[1]));
         EXPECT_EQ(mwTest("t.c", 70, MW_TEST_ALLOC), 0);
       }, {"check: <2> t.c(70), checking alloc \ninternal: <2> t.c(70), info trashed; relinking",
           "relink: <2> t.c(70) attempting to repair MW-{mw}...",
           "relink: MW-{mw} is the head (first) allocation",
           "relink: MW-{mw} prev pointer is non-NULL, you have a wild pointer", kRelinked,
           "check: <2> t.c(70), complete; no errors"}, 1},
      {"unlinking tells links that do not fit; an empty heap has nothing to repair", [](Vars &v) {
         Start(); mwData p{}, x{}, n{};
         x.prev = &p, x.next = &n, v("x", &x);  // neighbours that do not point back at x
         vemo::MwGuard guard; vemo::mwUnlinkBlock(&x, "t.c", 1); x.prev = x.next = nullptr;
         vemo::mwUnlinkBlock(&x, nullptr, 2);
         EXPECT_EQ(vemo::mwRepairChain(nullptr, nullptr, 0), 0); vemo::mwLiveBytes = 5;
         EXPECT_EQ(vemo::mwRepairChain(nullptr, "t.c", 80), 0); vemo::mwLiveBytes = 0;
       }, {"internal: <0> t.c(1), MW-{x}: link1 failure\ninternal: <0> t.c(1), MW-{x}: link2 failure",
           "internal: <0> unknown(2), MW-{x}: link1 NULL, but not head",
           "internal: <0> unknown(2), MW-{x}: link2 NULL, but not tail",
           "relink: cannot repair MW at NULL\nrelink: <0> unknown(0) heap is empty, nothing to repair",
           "relink: cannot repair MW at NULL\nrelink: <0> t.c(80) heap damaged beyond repair"}, 0},
      {"allocations, checks and marks at once", [](Vars &) {
         mwStatistics(MW_STAT_LINE); std::atomic<bool> done{false};
         std::thread checker([&] {
           for (int host = 0; !done.load();) {
             EXPECT_EQ(mwTest(nullptr, 0, MW_TEST_ALL), 0);
             mwMark(&host, "m", "c.c", 2), mwUnmark(&host, "c.c", 3);
           }
         });
         std::thread a(Churn, 1), b(Churn, 2), c(Churn, 3);
         a.join(), b.join(), c.join(), done = true, checker.join();
         EXPECT_EQ(vemo::mwLiveBlocks, 0);
         EXPECT_EQ(vemo::mwAllocCount, 3L * (kRounds + kRounds / 3));
         EXPECT_EQ(vemo::mwFirstMark, nullptr);
       }, {"statistics: now collecting on a line basis"}, 0},
      {"an answer function runs without the allocator's lock", [](Vars &) {
         mwSetAriFunc([](const char *) {
           auto other = std::async(std::launch::async, [] { mwFree(mwMalloc(4, "o.c", 1), "o.c", 2); });
           EXPECT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready);
           return MW_ARI_IGNORE;
         });
         EXPECT_EQ(mwAssert(0, "x", "t.c", 1), 0); EXPECT_EQ(vemo::mwAllocCount, 1);
       }, {"assert trap: <1> t.c(1), x", "assert trap: <1> IGNORED - execution continues"}, 1},
      {"probes answer without faulting, at once too, restoring the old handler", [](Vars &) {
         struct sigaction mine = {}, before, after; mine.sa_handler = previous_handler;
         ASSERT_EQ(sigaction(SIGSEGV, &mine, &before), 0); long page = sysconf(_SC_PAGESIZE);
         char *hole = (char *)mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         auto probe = [hole, page] {
           for (int i = 0, readable = 1; i < 200; ++i) {
             EXPECT_EQ(mwIsReadAddr(hole + page - 1, 1), 0);
             EXPECT_EQ(mwIsSafeAddr(&readable, sizeof readable), 1);
           }
         };
         std::thread a(probe), b(probe); a.join(), b.join(); EXPECT_EQ(mwIsReadAddr(nullptr, 4), 0);
         EXPECT_EQ(mwIsReadAddr(hole, 0), 1); EXPECT_EQ(mwOldSIGSEGV, previous_handler);
         ASSERT_EQ(sigaction(SIGSEGV, &before, &after), 0);
         EXPECT_EQ(after.sa_handler, previous_handler); EXPECT_NE(access("memguard.log", F_OK), 0);
       }, {}, 0},
  });
}

}  // namespace
