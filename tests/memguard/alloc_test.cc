// Tracked allocation, release and reallocation: block layout, the chain, the limit, the
// failure lines, and how a free is classified (NULL, double, wild, retained).
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

TEST(MwAlloc, Scenarios) {
  RunScenarios({
      {"new block: guards, fill, check value; zero-size blocks; the leak line", [](Vars &v) {
         auto *p = static_cast<unsigned char *>(mwMalloc(5, "a.c", 12));
         EXPECT_EQ(Bytes(p - 8, 21), "mEmGuArD\xFE\xFE\xFE\xFE\xFEmEmGuArD");
         EXPECT_EQ(HeaderOf(p)->check, 0x00FE0180UL ^ 1 ^ 5 ^ 12);
         auto *a = static_cast<char *>(mwMalloc(0, "a.c", 1)), *b = (char *)mwMalloc(0, "a.c", 2);
         EXPECT_EQ(Bytes(a - 8, 16), "mEmGuArDmEmGuArD");
         EXPECT_EQ(mwTestBuffer("a.c", 3, a), 0);
         mwFree(a, "a.c", 4), mwFree(b, "a.c", 5), mwTerm(), v("p", p);
       }, {kStopped, "unfreed: <1> a.c(12), 5 bytes at {p}  \t{FE FE FE FE FE .. .. .. .. .. .. .. "
           ".. .. .. .. .....}", Stats(3, 5, 5, 5), "MEMGUARD detected 1 anomalies"}, 0},
      {"frees from the middle and both ends; a second free names the first", [](Vars &v) {
         void *p[4];
         for (int i = 0; i < 4; ++i) p[i] = mwMalloc(1, "a.c", i);
         for (int i : {1, 3, 0}) mwFree(p[i], "a.c", 10 + i);
         EXPECT_EQ(mwTest("a.c", 20, MW_TEST_CHAIN), 0);
         mwFree(p[2], "a.c", 12), mwFree(p[1], "a.c", 21), v("p", p[1]);
       }, {"check: <7> a.c(20), checking chain ", "check: <7> a.c(20), complete; no errors",
           "double-free: <9> a.c(21), {p} was freed from a.c(11)"}, 1},
      {"the limit refuses allocations and growth beyond it", [](Vars &) {
         mwLimit(0), mwLimit(1000);
         void *big = mwMalloc(800, "a.c", 1), *small = mwMalloc(100, "a.c", 2);
         EXPECT_EQ(mwMalloc(200, "a.c", 3), nullptr);
         EXPECT_EQ(mwRealloc(small, 250, "a.c", 4), nullptr);
         // Exactly at the limit: old and new block coexist while the data moves.
         void *grown = mwRealloc(small, 200, "a.c", 5);
         EXPECT_EQ(mwMalloc(1, "a.c", 6), nullptr);
         mwLimit(0);
         for (void *p : {big, grown, mwMalloc(2000, "a.c", 7)}) mwFree(p, "a.c", 8);
       }, {"limit: old limit = none, new limit = none",
           "limit: old limit = none, new limit = 1000 bytes",
           "limit fail: <3> a.c(3), 200 wanted 100 available",
           "limit fail: <4> a.c(4), 150 wanted 100 available",
           "limit fail: <7> a.c(6), 1 wanted 0 available",
           "limit: old limit = 1000 bytes, new limit = none"}, 3},
      {"sizes that overflow; calloc zeroes; strdup copies and refuses NULL", [](Vars &) {
         EXPECT_EQ(mwMalloc(SIZE_MAX - 10, "a.c", 1), nullptr);  // silently
         auto *p = static_cast<char *>(mwCalloc(3, 5, "a.c", 2));
         EXPECT_EQ(Bytes(p, 15), std::string(15, '\0'));
         EXPECT_EQ(mwCalloc(SIZE_MAX / 2, 3, "a.c", 3), nullptr);
         char *copy = mwStrdup("text", "a.c", 4);
         EXPECT_STREQ(copy, "text");
         EXPECT_EQ(mwStrdup(nullptr, nullptr, 5), nullptr);
         mwFree(p, "a.c", 6), mwFree(copy, "a.c", 7);
       }, {"fail: <3> a.c(3), -1 wanted 15 allocated",
           "strdup: <4> unknown(5), strdup(NULL) called"}, 2},
      {"out of memory: no-man's-land reserve given back silently, or not enough", [](Vars &v) {
         Start();
         vemo::mwLock.lock(), vemo::mwGrabChunks(3, vemo::kTypeNoMansLand), vemo::mwLock.unlock();
         FailSystemMallocs({0});  // the block; the trial after one chunk went back succeeds
         void *p = mwMalloc(10, "a.c", 1);
         EXPECT_EQ(vemo::mwReserveBytes, 2 * 1024);
         FailSystemMallocs({0, 2});  // the block, and its second try after a good trial
         EXPECT_EQ(mwMalloc(10, "a.c", 2), nullptr);
         FailSystemMallocs({});
         EXPECT_EQ(mwMalloc(20, "a.c", 3), nullptr);
         mwFree(p, "a.c", 4), v["len"] = std::to_string(10 + vemo::kDataSize + 16);
       }, {"grabbed: 3 kilobytes of no-mans-land memory",
           "internal: mwFreeUp({len}) reported success, but malloc() fails",
           "fail: <2> a.c(2), 10 wanted 10 allocated", "fail: <3> a.c(3), 20 wanted 10 allocated"}, 3},
      {"out of memory releases retained blocks, telling the written ones", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE);
         auto *kept = static_cast<unsigned char *>(mwMalloc(16, "a.c", 1));
         mwFree(kept, "a.c", 2), kept[3] = 'x', v("k", kept + 8), FailSystemMallocs({0});
         EXPECT_NE(mwMalloc(10, "a.c", 3), nullptr);
         EXPECT_EQ(vemo::mwRetainedBlocks, 0);
       }, {"wild pointer: <1> NoMansLand {k} alloc'd at a.c(1)"}, 1},
      {"statistics without memory are skipped", [](Vars &) {
         mwStatistics(MW_STAT_MODULE);
         FailSystemMallocs({1});  // the block succeeds, its statistics entry does not
         EXPECT_NE(mwMalloc(4, "a.c", 1), nullptr);
       }, {"statistics: now collecting on a module basis",
           "internal: memory low, statistics incomplete for 'a.c'"}, 0},
      {"nested starts write once; the last end reports; a new start appends; an extra end",
       [](Vars &) { mwInit(), mwInit(), mwTerm(), mwTerm(), mwInit(), mwTerm(), mwTerm(); },
       {kStopped, Stats(0, 0, 0, 0), kStopped, Stats(0, 0, 0, 0),
        "internal: mwTerm(): MEMGUARD has not been started!"}, 0},
      {"a retained block: FC fill; later frees and reallocations of it", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE);
         auto *p = static_cast<unsigned char *>(mwMalloc(24, "a.c", 1));
         mwFree(p, "a.c", 2), v("p", p), v("mw", HeaderOf(p));
         EXPECT_EQ(Bytes(p, 24), std::string(24, '\xFC'));
         EXPECT_EQ(vemo::mwRetainedBytes, 24);
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
         alignas(16) static unsigned char foreign[256];
         memset(foreign, 0x33, sizeof foreign), v("f", foreign + 128);
         mwFree(foreign + 128, "a.c", 1), mwFree(nullptr, "a.c", 2);  // before any allocation
         auto *p = static_cast<char *>(mwMalloc(16, "a.c", 3));
         mwFree(foreign + 128, "a.c", 4), mwFree(p + 1, "a.c", 5), v("p", p + 1), v("q", p);
         EXPECT_EQ(mwTestBuffer("a.c", 6, p + 3), 1);
         EXPECT_EQ(mwTestBuffer("a.c", 7, foreign + 128), 1);
         EXPECT_EQ(Bytes(foreign, 256), std::string(256, '\x33'));
         // 64 later frees push p out of the ring; their blocks live until then, so that none
         // of them can take p's address.
         void *others[64];
         for (void *&other : others) other = mwMalloc(1, "a.c", 8);
         mwFree(p, "a.c", 9);
         for (void *other : others) mwFree(other, "a.c", 10);
         mwFree(p, "a.c", 11);
       }, {"WILD free: <1> a.c(1), unknown pointer {f}", "NULL free: <2> a.c(2), NULL pointer free'd",
           "WILD free: <4> a.c(4), unknown pointer {f}",
           "WILD free: <5> a.c(5), unknown pointer {p}",
           "WILD free: <135> a.c(11), unknown pointer {q}"}, 4},
      {"realloc of NULL, moving with the smaller size, to zero, of freed and unknown pointers",
       [](Vars &v) {
         auto *p = static_cast<char *>(mwRealloc(nullptr, 6, "a.c", 1));
         memcpy(p, "hello", 6);
         auto *q = static_cast<char *>(mwRealloc(p, 3, "a.c", 2));
         EXPECT_EQ(Bytes(q, 3), "hel");
         auto *r = static_cast<char *>(mwRealloc(q, 40, "a.c", 3));
         EXPECT_EQ(Bytes(r, 40), "hel" + std::string(37, '\xFE'));
         EXPECT_EQ(mwRealloc(r, 0, "a.c", 4), nullptr);
         alignas(16) static unsigned char foreign[256];
         v("p", p), v("r", r), v("f", foreign + 128);
         EXPECT_EQ(mwRealloc(p, 16, "a.c", 5), nullptr);
         EXPECT_EQ(mwRealloc(foreign + 128, 16, "a.c", 6), nullptr);
         mwFree(r, "a.c", 7);
       }, {"realloc: <6> a.c(5), {p} was freed from a.c(2)",
           "realloc: <6> a.c(6), unknown pointer {f}",
           "double-free: <7> a.c(7), {r} was freed from a.c(4)"}, 3},
  });
}

}  // namespace
