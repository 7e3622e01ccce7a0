// Several threads using the allocator at once: its one lock keeps the chain, the counters and
// the log whole, an answer function runs without it, and each probe catches its own fault.
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

void Churn(int seed) {
  std::vector<char *> kept;
  unsigned state = (unsigned)seed * 2654435761u + 1;
  for (int i = 0; i < kRounds; ++i) {
    state = state * 1103515245u + 12345u;
    size_t size = 1 + (state >> 16) % 200;
    auto *p = static_cast<char *>(mwMalloc(size, "threads.c", seed));
    memset(p, seed, size);
    if (i % 3 == 0) {
      p = static_cast<char *>(mwRealloc(p, size + 16, "threads.c", 100 + seed));
      ASSERT_EQ(p[size - 1], static_cast<char>(seed));
    }
    kept.push_back(p);
    if (kept.size() > 8) mwFree(kept.front(), "threads.c", 200 + seed), kept.erase(kept.begin());
  }
  for (char *p : kept) mwFree(p, "threads.c", 300 + seed);
}

TEST(MwThreads, Scenarios) {
  RunScenarios({
      {"allocations, checks and marks at once", [](Vars &) {
         mwStatistics(MW_STAT_LINE);
         std::atomic<bool> done{false};
         std::thread checker([&] {
           for (int host = 0; !done.load();) {
             EXPECT_EQ(mwTest(nullptr, 0, MW_TEST_ALL), 0);
             mwMark(&host, "m", "c.c", 2), mwUnmark(&host, "c.c", 3);
           }
         });
         std::vector<std::thread> threads;
         for (int t = 1; t <= 3; ++t) threads.emplace_back(Churn, t);
         for (auto &thread : threads) thread.join();
         done = true, checker.join();
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
         EXPECT_EQ(mwAssert(0, "x", "t.c", 1), 0);
         EXPECT_EQ(vemo::mwAllocCount, 1);
       }, {"assert trap: <1> t.c(1), x", "assert trap: <1> IGNORED - execution continues"}, 1},
      {"concurrent probes each catch their own fault", [](Vars &) {
         long page = sysconf(_SC_PAGESIZE);
         void *hole = mmap(nullptr, (size_t)page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         auto probe = [hole] {
           for (int i = 0, readable = 1; i < 200; ++i) {
             EXPECT_EQ(mwIsReadAddr(hole, 4), 0);
             EXPECT_EQ(mwIsReadAddr(&readable, sizeof readable), 1);
           }
         };
         std::thread a(probe), b(probe);
         a.join(), b.join();
       }, {}, 0},
  });
}

}  // namespace
