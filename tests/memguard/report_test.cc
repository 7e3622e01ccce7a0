// The final report: leaks with their dumps, retained blocks, marks, reserve, statistics and
// the closing anomaly count.
#include <stdlib.h>
#include <string.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

class MwReport : public MwTest {};

const std::vector<std::string> kGlobalStatistics(long count, long peak, long total, long unfreed) {
  return {"",
          "Memory usage statistics (global):",
          " N)umber of allocations made: " + std::to_string(count),
          " L)argest memory usage      : " + std::to_string(peak),
          " T)otal of all alloc() calls: " + std::to_string(total),
          " U)nfreed bytes totals      : " + std::to_string(unfreed)};
}

std::vector<std::string> Concat(std::vector<std::string> a, const std::vector<std::string> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST_F(MwReport, LeakIsListedWithItsDumpAndCounted) {
  Start();
  for (int i = 0; i < 6; ++i) mwFree(mwMalloc(1, "x.c", 1), "x.c", 2);  // events 1..12
  Mark();
  char *p = static_cast<char *>(mwMalloc(5, "main.c", 12));
  memcpy(p, "abc", 3);
  mwTerm();
  std::string address = Hex(p);
  ExpectLines(NewLines(),
              Concat({"", "Stopped at {TIME}", "",
                      "unfreed: <13> main.c(12), 5 bytes at " + address +
                          "  \t{61 62 63 FE FE .. .. .. .. .. .. .. .. .. .. .. abc..}"},
                     Concat(kGlobalStatistics(7, 5, 11, 5), {"MEMGUARD detected 1 anomalies"})));
  EXPECT_EQ(vemo::mwInitCount, 0);
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwAnomalies, 0);
  // The counters still count the leak.
  EXPECT_EQ(vemo::mwLiveBlocks, 1);
  EXPECT_EQ(vemo::mwLiveBytes, 5);
}

TEST_F(MwReport, LongLeakShowsSixteenBytesAndDamagedGuards) {
  Start();
  unsigned char *p = static_cast<unsigned char *>(mwMalloc(20, "m.c", 3));
  for (int i = 0; i < 20; ++i) p[i] = static_cast<unsigned char>(0x1E + i);
  p[-1] = 0;
  p[20] = 0;
  Mark();
  mwTerm();
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[3], "unfreed: <1> m.c(3), 20 bytes at " + Hex(p) +
                          " [underflowed] [overflowed]  \t{1E 1F 20 21 22 23 24 25 26 27 28 29 "
                          "2A 2B 2C 2D .. !\"#$%&'()*+,-}");
}

TEST_F(MwReport, ReportAfterTermWritesNothingMore) {
  Start();
  mwFree(mwMalloc(3, "a.c", 1), "a.c", 2);
  mwTerm();
  std::string log = ReadFile("memguard.log");
  mwAbort();
  EXPECT_EQ(ReadFile("memguard.log"), log);
  EXPECT_EQ(vemo::mwInitCount, 0);
}

TEST_F(MwReport, RetainedBlocksMarksAndReserveAreReleased) {
  mwNoMansLand(MW_NML_FREE);
  unsigned char *kept = static_cast<unsigned char *>(mwMalloc(4, "r.c", 1));
  unsigned char *clean = static_cast<unsigned char *>(mwMalloc(4, "r.c", 2));
  mwFree(clean, "r.c", 3);
  mwFree(kept, "r.c", 4);
  kept[2] = 7;
  int host = 0;
  mwMark(&host, "desc", "r.c", 5);
  EXPECT_EQ(mwGrab(2), 2u);
  Mark();
  mwTerm();
  ExpectLines(NewLines(),
              Concat({"", "Stopped at {TIME}", "", "dropped: all grabbed memory (2 kb)",
                      "mark: " + Hex(&host) + ": desc called from r.c(5)",
                      "wild pointer: <1> NoMansLand " + Hex(kept + 8) + " alloc'd at r.c(1)"},
                     Concat(kGlobalStatistics(2, 8, 8, 0), {"MEMGUARD detected 2 anomalies"})));
  EXPECT_EQ(vemo::mwRetainedBlocks, 0);
  EXPECT_EQ(vemo::mwRetainedBytes, 0);
  EXPECT_EQ(vemo::mwFirstMark, nullptr);
  EXPECT_EQ(vemo::mwReserveChunks, nullptr);
}

TEST_F(MwReport, NoMansLandCountersThatDisagreeAreReported) {
  Start();
  {
    vemo::MwGuard guard;
    vemo::mwRetainedBlocks = 2;
    vemo::mwRetainedBytes = 9;
  }
  Mark();
  mwTerm();
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[3], "internal: NoMansLand block counter 2, not zero");
  EXPECT_EQ(lines[4], "internal: NoMansLand byte counter 9, not zero");
}

TEST_F(MwReport, DetailedStatisticsByModuleAndLine) {
  mwStatistics(MW_STAT_LINE);
  // File names are stored, not copied: they live as long as the process, as __FILE__ does.
  static const char kLong[] = "directory/with/a/long/path/to/the/module44.c";
  static const char kFifty[] = "abcd0123456789/directory/with/a/long/path/name50.c";
  const std::string fifty = kFifty;
  ASSERT_EQ(strlen(kLong), 44u);
  ASSERT_EQ(fifty.size(), 50u);
  void *a = mwMalloc(10, "a.c", 7);
  void *b = mwMalloc(20, "A.CPP", 3);
  void *c = mwMalloc(30, kFifty, 1);
  void *d = mwMalloc(1, kLong, 2);
  mwFree(a, "a.c", 8);
  mwFree(b, "a.c", 9);
  mwFree(c, "a.c", 10);
  mwFree(d, "a.c", 11);
  Mark();
  mwTerm();
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 9u);
  std::vector<std::string> table(lines.begin() + 9, lines.end());
  auto row = [](const std::string &name, long n, long largest, long total, long unfreed) {
    char text[160];
    snprintf(text, sizeof text, " %-42s %-8ld %-8ld %-8ld %-8ld", name.c_str(), n, largest, total,
             unfreed);
    return std::string(text);
  };
  auto line_row = [](int line, long n, long largest, long total, long unfreed) {
    char text[160];
    snprintf(text, sizeof text, "  %-8d                                  %-8ld %-8ld %-8ld %-8ld",
             line, n, largest, total, unfreed);
    return std::string(text);
  };
  // Newest first; a.c's line entry also stands under A.CPP, whose name begins with it.
  ExpectLines(table, {"", "Memory usage statistics (detailed):",
                      " Module/Line                                Number   Largest  Total    Unfreed ",
                      row(std::string(kLong).substr(2), 1, 1, 1, 0), line_row(2, 1, 1, 1, 0),
                      row(fifty.substr(8), 1, 30, 30, 0), line_row(1, 1, 30, 30, 0),
                      row("A.CPP", 1, 20, 20, 0), line_row(3, 1, 20, 20, 0),
                      line_row(7, 1, 10, 10, 0), row("a.c", 1, 10, 10, 0),
                      line_row(7, 1, 10, 10, 0)});
}

TEST_F(MwReport, ModuleWithoutReadableNameIsUnknown) {
  mwStatistics(MW_STAT_MODULE);
  void *p = mwMalloc(4, nullptr, 1);
  mwFree(p, "a.c", 2);
  Mark();
  mwTerm();
  std::string log = ReadFile("memguard.log");
  char row[160];
  snprintf(row, sizeof row, " %-42s %-8ld %-8ld %-8ld %-8ld\n", "<unknown>", 1L, 4L, 4L, 0L);
  EXPECT_NE(log.find(row), std::string::npos) << log;
}

TEST_F(MwReport, AutomaticCheckRunsBeforeTheLeakScan) {
  mwAutoCheck(1);
  unsigned char *p = static_cast<unsigned char *>(mwMalloc(4, "a.c", 1));
  p[4] = 'X';
  Mark();
  mwTerm();
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[3], "overflow: <1> unknown(0), 4 bytes alloc'd at <1> a.c(1)");
  EXPECT_TRUE(LineMatches(lines[4], "unfreed: <1> a.c(1), 4 bytes at {ADDR} [overflowed]  \t{FE FE FE FE .. .. .. .. .. .. .. .. .. .. .. .. ....}"))
      << lines[4];
}

TEST_F(MwReport, UnownedHeadAbandonsTheLeakScanAfterThreeRestarts) {
  void *p = mwMalloc(4, "a.c", 1);
  alignas(16) static vemo::mwData fake;  // all zero: its check value is wrong
  vemo::mwHead = &fake;
  Mark();
  mwTerm();
  std::vector<std::string> lines = NewLines();
  ASSERT_GE(lines.size(), 6u);
  ExpectLines(std::vector<std::string>(lines.begin(), lines.begin() + 6),
              {"", "Stopped at {TIME}", "", "internal: NML/unfreed scan restarting",
               "internal: NML/unfreed scan restarting", "internal: NML/unfreed scan restarting"});
  EXPECT_EQ(vemo::mwHead, nullptr);
  EXPECT_EQ(vemo::mwTail, nullptr);
  free(HeaderOf(p));  // abandoned by the report
}

std::string g_hooked;
void capture_hook(int c) { g_hooked += static_cast<char>(c); }

TEST_F(MwReport, ReportOfATerminatedAllocatorSaysSoThroughTheHook) {
  Start();
  mwSetOutFunc(capture_hook);
  mwTerm();
  g_hooked.clear();
  mwAbort();
  EXPECT_EQ(g_hooked.find("\nStopped at "), 0u) << g_hooked;
  EXPECT_NE(g_hooked.find("\ninternal: mwAbort(): MEMGUARD not initialized!\n"), std::string::npos);
  EXPECT_EQ(vemo::mwInitCount, 0);
  EXPECT_EQ(vemo::mwLogStream1, nullptr);
}

}  // namespace
