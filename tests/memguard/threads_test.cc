// Several threads using the allocator at once: its one lock keeps the chain, the counters and
// the log whole, an answer function runs without it; the probes, each catching its own fault.
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

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

TEST(MwThreads, Scenarios) {
  RunScenarios({
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
