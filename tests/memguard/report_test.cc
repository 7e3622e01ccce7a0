// The writer (bounded formatting, the output hook, the self-checking log handle and flush
// level, the log file and its fallback names) and the final report (leaks with their dumps,
// retained blocks, marks, reserve, statistics and the closing anomaly count).
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

std::string g_hooked;
void capture_hook(int c) { g_hooked += static_cast<char>(c); }

void Write(const std::string &text) {
  vemo::MwGuard guard;
  vemo::mwWrite("%s", text.c_str());
}

bool Flushed(const char *text) { return ReadFile("memguard.log").find(text) != std::string::npos; }

// A statistics row: a module's, or with a name of digits, a line's.
std::string Row(const std::string &name, long n, long largest, long total, long unfreed) {
  char text[160];
  snprintf(text, sizeof text, " %-42s %-8ld %-8ld %-8ld %-8ld", name.c_str(), n, largest, total,
           unfreed);
  bool line = name.find_first_not_of("0123456789") == std::string::npos;
  return line ? " " + std::string(text).erase(43, 1) : text;
}

TEST(MwWriter, Scenarios) {
  RunScenarios({
      {"2047 characters are written whole, 2048 are cut", [](Vars &) {
         Write(std::string(2046, 'a') + "\n"), Write(std::string(2048, 'c'));
       }, {std::string(2046, 'a'), std::string(2048, 'c'),
           "internal: mwWrite(): WARNING! OUTPUT EXCEEDED 2047 CHARS: SYSTEM UNSTABLE"}, 0},
      {"the output hook takes what is written; direct lines reach the log whatever the hook",
       [](Vars &) {
         mwBreakOut("early");  // no log yet for the direct copy
         mwSetOutFunc(capture_hook), mwStrdup(nullptr, "a.c", 3), mwTrace("traced %d\n", 42);
         mwBreakOut("cause");
         EXPECT_EQ(g_hooked, "strdup: <0> a.c(3), strdup(NULL) called\ntraced 42\nbreakout: cause\n");
         mwSetOutFunc(nullptr), mwTrace("back\n"), mwBreakOut("why");
       }, {"breakout: early", "breakout: cause", "back", "breakout: why", "breakout: why"}, 1},
      {"damaged copies of the log handle and the flush level are outvoted or replaced",
       [](Vars &) {
         Start();
         vemo::MwGuard guard;
         FILE *real = vemo::mwLogStream1;
         vemo::mwLogStream2 = tmpfile();
         EXPECT_EQ(vemo::mwCheckedLog(), real);
         vemo::mwLogStream2 = tmpfile(), vemo::mwLogStream3 = tmpfile();
         EXPECT_EQ(vemo::mwCheckedLog(), real);
         vemo::mwFlushLevel3 = 7;
         EXPECT_EQ(vemo::mwCheckedFlushLevel(), 0);
         vemo::mwFlushLevel1 = 2, vemo::mwFlushLevel2 = 3;
         EXPECT_EQ(vemo::mwCheckedFlushLevel(), 1);
         EXPECT_EQ(vemo::mwFlushLevel2, 1);  // every copy repaired
         EXPECT_EQ(vemo::mwLogStream3, real);
       }, {"internal: log file handle damaged and recovered",
           "\nMEMGUARD: log file handle destroyed, using mwSTDERR",
           "internal: flushing flag damaged and recovered",
           "internal: flushing flag destroyed, so set to true"}, 0},
      {"nothing is flushed before the first anomaly, everything after it, or when asked",
       [](Vars &) {
         mwLimit(0);
         EXPECT_FALSE(Flushed("none"));
         mwStrdup(nullptr, "a.c", 1), mwLimit(5);
         EXPECT_TRUE(Flushed("new limit = none\nstrdup: <0> a.c(1), strdup(NULL) called\nlimit"));
         EXPECT_TRUE(Flushed("new limit = 5 bytes\n"));
         mwDoFlush(-3), mwLimit(9);
         EXPECT_FALSE(Flushed("new limit = 9 bytes"));
         mwFlushNow();
         EXPECT_TRUE(Flushed("new limit = 9 bytes"));
         mwLimit(7), mwDoFlush(1);
         EXPECT_TRUE(Flushed("new limit = 7 bytes"));
       }, {"limit: old limit = none, new limit = none", "strdup: <0> a.c(1), strdup(NULL) called",
           "limit: old limit = none, new limit = 5 bytes",
           "limit: old limit = 5 bytes, new limit = 9 bytes",
           "limit: old limit = 9 bytes, new limit = 7 bytes"}, 1},
      {"the log falls back to numbered names, told to a hook set before the start", [](Vars &) {
         Start(), mwSetOutFunc(capture_hook), mwTerm(), rename("memguard.log", "old.log");
         mkdir("memguard.log", 0755), mkdir("memgrd01.log", 0755), g_hooked.clear(), mwInit();
         EXPECT_EQ(g_hooked, "logfile: failed to open/create file 'memguard.log'\n"
                             "logfile: failed to open/create file 'memgrd01.log'\n");
         EXPECT_EQ(access("memgrd02.log", F_OK), 0);
         EXPECT_NE(access("memgrd03.log", F_OK), 0);
       }, {}, 0},
      {"without any log, direct lines go to standard error", [](Vars &) {
         char name[16] = "memguard.log";
         for (int i = 0; i <= 99; snprintf(name, sizeof name, "memgrd%02d.log", ++i)) mkdir(name, 0755);
         int err = open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
         fflush(stderr), dup2(err, 2), close(err);
         EXPECT_EQ(mwStrdup(nullptr, "a.c", 1), nullptr);  // through the hook: dropped
         mwBreakOut("no log"), mwTerm(), fflush(stderr);
         EXPECT_EQ(ReadFile("stderr.txt"), "breakout: no log\nMEMGUARD detected 1 anomalies\n");
       }, {}, 0},
  });
}

TEST(MwReport, Scenarios) {
  RunScenarios({
      {"leaks with their dumps and damaged guards; nothing more after the end", [](Vars &v) {
         auto *p = static_cast<char *>(mwMalloc(5, "main.c", 12));
         auto *q = static_cast<unsigned char *>(mwMalloc(20, "m.c", 3));
         mwFree(mwMalloc(1, "x.c", 1), "x.c", 2), memcpy(p, "abc", 3), v("p", p), v("q", q);
         for (int i = 0; i < 20; ++i) q[i] = static_cast<unsigned char>(0x1E + i);
         q[-1] = q[20] = 0, mwTerm();
         std::string log = ReadFile("memguard.log");
         mwAbort();
         EXPECT_EQ(ReadFile("memguard.log"), log);
       }, {kStopped, "unfreed: <2> m.c(3), 20 bytes at {q} [underflowed] [overflowed]  \t{1E 1F 20 "
           "21 22 23 24 25 26 27 28 29 2A 2B 2C 2D .. !\"#$%&'()*+,-}",
           "unfreed: <1> main.c(12), 5 bytes at {p}  \t{61 62 63 FE FE .. .. .. .. .. .. .. .. .. .. "
           ".. abc..}", Stats(3, 26, 26, 25), "MEMGUARD detected 2 anomalies"}, 0},
      {"retained blocks, marks and reserve are released", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE);
         auto *kept = static_cast<unsigned char *>(mwMalloc(4, "r.c", 1));
         mwFree(mwMalloc(4, "r.c", 2), "r.c", 3), mwFree(kept, "r.c", 4);
         static int host = 0;
         kept[2] = 7, mwMark(&host, "desc", "r.c", 5), mwGrab(2), v("k", kept + 8), v("h", &host);
         mwTerm();
         EXPECT_EQ(vemo::mwRetainedBlocks, 0);
       }, {"grabbed: 2 kilobytes of grabbed memory", kStopped, "dropped: all grabbed memory (2 kb)",
           "mark: {h}: desc called from r.c(5)", "wild pointer: <1> NoMansLand {k} alloc'd at r.c(1)",
           Stats(2, 8, 8, 0), "MEMGUARD detected 2 anomalies"}, 0},
      {"no-man's-land counters that disagree are told", [](Vars &) {
         Start();
         vemo::mwLock.lock(), vemo::mwRetainedBlocks = 2, vemo::mwRetainedBytes = 9;
         vemo::mwLock.unlock(), mwTerm();
       }, {kStopped, "internal: NoMansLand block counter 2, not zero",
           "internal: NoMansLand byte counter 9, not zero", Stats(0, 0, 0, 0)}, 0},
      {"statistics by module and line, for the allocating site", [](Vars &) {
         mwStatistics(MW_STAT_LINE);
         // File names are stored, not copied: they must live as long as the process.
         void *p[] = {mwMalloc(10, "a.c", 7), mwMalloc(20, "A.CPP", 3),
                      mwMalloc(30, "abcd0123456789/directory/with/a/long/path/name50.c", 1),
                      mwMalloc(1, "directory/with/a/long/path/to/the/module44.c", 2),
                      mwMalloc(4, nullptr, 1)};
         for (void *block : p) mwFree(block, "b.c", 8);
         mwTerm();
       }, {"statistics: now collecting on a line basis", kStopped, Stats(5, 65, 65, 0),
           "\nMemory usage statistics (detailed):",
           " Module/Line                                Number   Largest  Total    Unfreed ",
           Row("<unknown>", 1, 4, 4, 0), Row("rectory/with/a/long/path/to/the/module44.c", 1, 1, 1, 0),
           Row("2", 1, 1, 1, 0), Row("456789/directory/with/a/long/path/name50.c", 1, 30, 30, 0),
           Row("1", 1, 30, 30, 0), Row("A.CPP", 1, 20, 20, 0), Row("3", 1, 20, 20, 0),
           // a.c's line entry stands under A.CPP too, whose name begins with it
           Row("7", 1, 10, 10, 0), Row("a.c", 1, 10, 10, 0), Row("7", 1, 10, 10, 0)}, 0},
      {"the automatic check runs before the leak scan", [](Vars &) {
         mwAutoCheck(1);
         static_cast<unsigned char *>(mwMalloc(4, "a.c", 1))[4] = 'X';
         mwTerm();
       }, {kStopped, "overflow: <1> unknown(0), 4 bytes alloc'd at <1> a.c(1)",
           "unfreed: <1> a.c(1), 4 bytes at {ADDR} [overflowed]  \t{FE FE FE FE .. .. .. .. .. .. .. "
           ".. .. .. .. .. ....}", Stats(1, 4, 4, 4), "MEMGUARD detected 2 anomalies"}, 0},
      {"an unowned head abandons the leak scan after three restarts", [](Vars &) {
         void *p = mwMalloc(4, "a.c", 1);
         alignas(16) static vemo::mwData fake;  // all zero: its check value is wrong
         vemo::mwHead = &fake, mwTerm(), free(HeaderOf(p));  // abandoned by the report
       }, {kStopped, "internal: NML/unfreed scan restarting\ninternal: NML/unfreed scan restarting",
           "internal: NML/unfreed scan restarting", Stats(1, 4, 4, 4)}, 0},
      {"the report of an ended allocator says so through the hook", [](Vars &) {
         Start(), mwSetOutFunc(capture_hook), mwTerm(), g_hooked.clear(), mwAbort();
         EXPECT_EQ(g_hooked.find("\nStopped at "), 0u) << g_hooked;
         EXPECT_NE(g_hooked.find("\ninternal: mwAbort(): MEMGUARD not initialized!\n"), std::string::npos);
       }, {}, 0},
  });
}

}  // namespace
