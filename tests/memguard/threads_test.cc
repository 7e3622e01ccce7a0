// Several threads using the allocator at once: its one lock keeps the chain, the counters and
// the log consistent, and an answer function runs without it.
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

class MwThreads : public MwTest {};

constexpr int kThreads = 4;
constexpr int kRounds = 1500;

void Churn(int seed) {
  std::vector<char *> kept;
  unsigned state = (unsigned)seed * 2654435761u + 1;
  for (int i = 0; i < kRounds; ++i) {
    state = state * 1103515245u + 12345u;
    size_t size = 1 + (state >> 16) % 200;
    char *p = static_cast<char *>(mwMalloc(size, "threads.c", seed));
    ASSERT_NE(p, nullptr);
    memset(p, seed, size);
    if (i % 3 == 0) {
      p = static_cast<char *>(mwRealloc(p, size + 16, "threads.c", 100 + seed));
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(static_cast<unsigned char>(p[size - 1]), static_cast<unsigned char>(seed));
    }
    kept.push_back(p);
    if (kept.size() > 8) {
      mwFree(kept.front(), "threads.c", 200 + seed);
      kept.erase(kept.begin());
    }
  }
  for (char *p : kept) mwFree(p, "threads.c", 300 + seed);
}

TEST_F(MwThreads, ConcurrentAllocationsKeepTheChainAndCountersWhole) {
  mwStatistics(MW_STAT_LINE);
  Mark();
  std::vector<std::thread> threads;
  for (int t = 1; t <= kThreads; ++t) threads.emplace_back(Churn, t);
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(vemo::mwLiveBlocks, 0);
  EXPECT_EQ(vemo::mwLiveBytes, 0);
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwAllocCount, (long)kThreads * (kRounds + kRounds / 3));
  EXPECT_EQ(vemo::mwAnomalies, 0);
  EXPECT_TRUE(NewLines().empty());
}

TEST_F(MwThreads, ChecksTracesAndMarksRunAlongsideAllocations) {
  Start();
  std::atomic<bool> done{false};
  std::thread checker([&] {
    int host = 0;
    while (!done.load()) {
      EXPECT_EQ(mwTest("checker.c", 1, MW_TEST_ALL), 0);
      mwTrace("trace\n");
      mwMark(&host, "m", "checker.c", 2);
      mwUnmark(&host, "checker.c", 3);
    }
  });
  std::vector<std::thread> threads;
  for (int t = 1; t <= 2; ++t) threads.emplace_back(Churn, t);
  for (auto &thread : threads) thread.join();
  done = true;
  checker.join();
  EXPECT_EQ(vemo::mwAnomalies, 0);
  EXPECT_EQ(vemo::mwFirstMark, nullptr);
  for (const std::string &line : NewLines()) {
    EXPECT_TRUE(line == "trace" || LineMatches(line, "check: <{N}> checker.c(1), {ANY}")) << line;
  }
}

TEST_F(MwThreads, AnswerFunctionRunsWithoutTheLock) {
  mwSetAriFunc([](const char *) {
    // Another thread must get through the allocator while this trap waits for its answer.
    auto other = std::async(std::launch::async, [] {
      mwFree(mwMalloc(4, "other.c", 1), "other.c", 2);
      return true;
    });
    EXPECT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    return MW_ARI_IGNORE;
  });
  EXPECT_EQ(mwAssert(0, "x", "t.c", 1), 0);
  EXPECT_EQ(vemo::mwAllocCount, 1);
}

TEST_F(MwThreads, ConcurrentProbesEachCatchTheirOwnFault) {
  long page = sysconf(_SC_PAGESIZE);
  void *hole = mmap(nullptr, (size_t)page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(hole, MAP_FAILED);
  auto probe = [hole] {
    int readable = 1;
    for (int i = 0; i < 200; ++i) {
      EXPECT_EQ(mwIsReadAddr(hole, 4), 0);
      EXPECT_EQ(mwIsReadAddr(&readable, sizeof readable), 1);
    }
  };
  std::thread a(probe);
  std::thread b(probe);
  a.join();
  b.join();
  munmap(hole, (size_t)page);
}

}  // namespace
