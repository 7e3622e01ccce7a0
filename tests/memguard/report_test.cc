// What the allocator tells and keeps: the writer (bounded formatting, the output hook, the
// self-checking log handle and flush level, the log file and its fallback names), the final
// report, traps that continue (ignored or retried; those that end the process are in
// fault_test.cc), the answer function on standard input, traces, marks, reserve and settings.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

std::string g_hooked;
void capture_hook(int c) { g_hooked += static_cast<char>(c); }

void Write(const std::string &text) { vemo::MwGuard guard; vemo::mwWrite("%s", text.c_str()); }

bool Flushed(const char *text) { return ReadFile("memguard.log").find(text) != std::string::npos; }

// A statistics row: a module's, or with a name of digits, a line's.
std::string Row(const std::string &name, long n, long largest, long total, long unfreed) {
  char text[160];
  snprintf(text, sizeof text, " %-42s %-8ld %-8ld %-8ld %-8ld", name.c_str(), n, largest, total,
           unfreed);
  bool line = name.find_first_not_of("0123456789") == std::string::npos;
  return line ? " " + std::string(text).erase(43, 1) : text;
}

std::vector<std::string> g_questions;
int g_answer = MW_ARI_IGNORE;
int answer(const char *text) { return g_questions.push_back(text), g_answer; }

TEST(MwReport, Scenarios) {
  const std::string ask = "\nq\nMEMGUARD: Abort, Retry or Ignore? ";
  const std::string retry = ask + "breakout: q\nbreakout: q\n";
  const std::string trap = "MEMGUARD: assert trap: t.c(9), p";
  const std::string kWarning = " [WARNING: OUTPUT BUFFER OVERFLOW - SYSTEM UNSTABLE]";
  RunScenarios({
      {"2047 characters are written whole, 2048 are cut", [](Vars &) {
         Write(std::string(2046, 'a') + "\n"), Write(std::string(2048, 'c'));
       }, {std::string(2046, 'a'), std::string(2048, 'c'),
           "internal: mwWrite(): WARNING! OUTPUT EXCEEDED 2047 CHARS: SYSTEM UNSTABLE"}, 0},
      {"the output hook takes what is written; direct lines reach the log anyway", [](Vars &) {
         mwBreakOut("early");  // no log yet for the direct copy
         mwSetOutFunc(capture_hook), mwStrdup(nullptr, "a.c", 3), mwTrace("traced %d\n", 42);
         mwBreakOut("cause");
         EXPECT_EQ(g_hooked, "strdup: <0> a.c(3), strdup(NULL) called\ntraced 42\nbreakout: cause\n");
         mwSetOutFunc(nullptr), mwTrace("back\n"), mwBreakOut("why");
       }, {"breakout: early", "breakout: cause", "back", "breakout: why", "breakout: why"}, 1},
      {"damaged copies of the log handle and the flush level are outvoted or replaced", [](Vars &) {
         Start(); vemo::MwGuard guard; FILE *real = vemo::mwLogStream1;
         vemo::mwLogStream2 = tmpfile(); EXPECT_EQ(vemo::mwCheckedLog(), real);
         vemo::mwLogStream2 = tmpfile(), vemo::mwLogStream3 = tmpfile();
         EXPECT_EQ(vemo::mwCheckedLog(), real); vemo::mwFlushLevel3 = 7;
         EXPECT_EQ(vemo::mwCheckedFlushLevel(), 0);
         vemo::mwFlushLevel1 = 2, vemo::mwFlushLevel2 = 3;
         EXPECT_EQ(vemo::mwCheckedFlushLevel(), 1);
         EXPECT_EQ(vemo::mwFlushLevel2, 1);  // every copy repaired
         EXPECT_EQ(vemo::mwLogStream3, real);
       }, {"internal: log file handle damaged and recovered",
           "\nMEMGUARD: log file handle destroyed, using mwSTDERR",
           "internal: flushing flag damaged and recovered",
           "internal: flushing flag destroyed, so set to true"}, 0},
      {"nothing flushed before the first anomaly, everything after it, or when asked", [](Vars &) {
         mwLimit(0); EXPECT_FALSE(Flushed("none")); mwStrdup(nullptr, "a.c", 1), mwLimit(5);
         EXPECT_TRUE(Flushed("new limit = none\nstrdup: <0> a.c(1), strdup(NULL) called\nlimit"));
         EXPECT_TRUE(Flushed("new limit = 5 bytes\n")); mwDoFlush(-3), mwLimit(9);
         EXPECT_FALSE(Flushed("new limit = 9 bytes")); mwFlushNow();
         EXPECT_TRUE(Flushed("new limit = 9 bytes")); mwLimit(7), mwDoFlush(1);
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
         EXPECT_EQ(access("memgrd02.log", F_OK), 0); EXPECT_NE(access("memgrd03.log", F_OK), 0);
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
      {"leaks with their dumps and damaged guards; nothing more after the end", [](Vars &v) {
         auto *p = static_cast<char *>(mwMalloc(5, "main.c", 12));
         auto *q = static_cast<unsigned char *>(mwMalloc(20, "m.c", 3));
         mwFree(mwMalloc(1, "x.c", 1), "x.c", 2), memcpy(p, "abc", 3), v("p", p), v("q", q);
         for (int i = 0; i < 20; ++i) q[i] = static_cast<unsigned char>(0x1E + i);
         q[-1] = q[20] = 0, mwTerm(); std::string log = ReadFile("memguard.log"); mwAbort();
         EXPECT_EQ(ReadFile("memguard.log"), log);
       }, {kStopped, "unfreed: <2> m.c(3), 20 bytes at {q} [underflowed] [overflowed]  \t{1E 1F 20 "
           "21 22 23 24 25 26 27 28 29 2A 2B 2C 2D .. !\"#$%&'()*+,-}",
           "unfreed: <1> main.c(12), 5 bytes at {p}  \t{61 62 63 FE FE .. .. .. .. .. .. .. .. .. .. "
           ".. abc..}", Stats(3, 26, 26, 25, 2)}, 0},
      {"retained blocks, marks and reserve are released", [](Vars &v) {
         mwNoMansLand(MW_NML_FREE);
         auto *kept = static_cast<unsigned char *>(mwMalloc(4, "r.c", 1));
         mwFree(mwMalloc(4, "r.c", 2), "r.c", 3), mwFree(kept, "r.c", 4); static int host = 0;
         kept[2] = 7, mwMark(&host, "desc", "r.c", 5), mwGrab(2), v("k", kept + 8), v("h", &host);
         mwTerm(); EXPECT_EQ(vemo::mwRetainedBlocks, 0);
       }, {"grabbed: 2 kilobytes of grabbed memory", kStopped, "dropped: all grabbed memory (2 kb)",
           "mark: {h}: desc called from r.c(5)", "wild pointer: <1> NoMansLand {k} alloc'd at r.c(1)",
           Stats(2, 8, 8, 0, 2)}, 0},
      {"no-man's-land counters that disagree are told", [](Vars &) {
         Start(); vemo::mwLock.lock(), vemo::mwRetainedBlocks = 2, vemo::mwRetainedBytes = 9;
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
         mwAutoCheck(1); static_cast<unsigned char *>(mwMalloc(4, "a.c", 1))[4] = 'X'; mwTerm();
       }, {kStopped, "overflow: <1> unknown(0), 4 bytes alloc'd at <1> a.c(1)",
           "unfreed: <1> a.c(1), 4 bytes at {ADDR} [overflowed]  \t{FE FE FE FE .. .. .. .. .. .. .. "
           ".. .. .. .. .. ....}", Stats(1, 4, 4, 4, 2)}, 0},
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
      {"action bit 1 ignores every trap and counts it", [](Vars &) {
         mwSetAriAction(MW_ARI_ACTION_IGNORE);
         EXPECT_EQ(mwAssert(1, "x", "t.c", 1) + mwVerify(7, "x", "t.c", 2), 0);  // passing: silent
         EXPECT_EQ(mwAssert(0, "x > 0", "t.c", 5), 0); EXPECT_EQ(mwVerify(0, "y", "t.c", 6), 0);
       }, {"assert trap: <1> t.c(5), x > 0", "assert trap: <1> AUTO IGNORED - execution continues",
           "verify trap: <2> t.c(6), y", "verify trap: <2> AUTO IGNORED - execution continues"}, 2},
      {"an answer function ignores or retries and is asked at most 2048 characters", [](Vars &) {
         mwSetAriFunc(answer); EXPECT_EQ(mwAssert(0, "a", "t.c", 1), 0); g_answer = MW_ARI_RETRY;
         EXPECT_EQ(mwVerify(0, "b", nullptr, 2), 1); int tries = 0;
         MW_ASSERT(++tries >= 3);  // asked again until it holds
         EXPECT_EQ(tries, 3); g_answer = MW_ARI_IGNORE;
         EXPECT_EQ(mwAssert(0, std::string(3000, 't').c_str(), "t.c", 3), 0);
         ASSERT_EQ(g_questions.size(), 5u);
         EXPECT_EQ(g_questions[0], "MEMGUARD: assert trap: t.c(1), a");
         EXPECT_EQ(g_questions[1], "MEMGUARD: verify trap: unknown(2), b");
         EXPECT_EQ(g_questions[4], "MEMGUARD: assert trap: t.c(3), " + std::string(2017, 't'));
       }, {"assert trap: <1> t.c(1), a", "assert trap: <1> IGNORED - execution continues",
           "verify trap: <2> unknown(2), b", "verify trap: <2> RETRY - executing again",
           "assert trap: <3> {ANY}, ++tries >= 3", "assert trap: <3> RETRY - executing again",
           "assert trap: <4> {ANY}, ++tries >= 3", "assert trap: <4> RETRY - executing again",
           "assert trap: <5> t.c(3), {ANY}",
           "internal: mwWrite(): WARNING! OUTPUT EXCEEDED 2047 CHARS: SYSTEM UNSTABLE",
           "assert trap: <5> IGNORED - execution continues"}, 5},
      {"the ready-made answer function reads standard input", [](Vars &) {
         mwSetAriFunc(mwAriHandler);
         FeedStdin(" r\ni\nI\nR\n\nx\n\t\n" + std::string(100, 'x') + "i\nr\n");
         EXPECT_EQ(mwAssert(0, "p", "t.c", 9), 1);
         for (int expected : {MW_ARI_IGNORE, MW_ARI_IGNORE, MW_ARI_RETRY, MW_ARI_ABORT, MW_ARI_ABORT,
                              MW_ARI_ABORT, MW_ARI_ABORT, MW_ARI_RETRY, MW_ARI_ABORT}) {
           EXPECT_EQ(mwAriHandler("q"), expected);  // the overlong line answers once
         }
       }, {"assert trap: <1> t.c(9), p\n\n" + trap + "\nMEMGUARD: Abort, Retry or Ignore? breakout: " +
           trap + "\nbreakout: " + trap, "assert trap: <1> RETRY - executing again\n" + ask + ask +
           retry + ask + ask + ask + ask + retry + ask}, 1},
      {"a trace goes through the hook and is cut with a warning", [](Vars &) {
         mwTrace("value=%d %s\n", 7, "ok"), mwTrace("%s\n", std::string(2100, 'z').c_str());
       }, {"value=7 ok", std::string(2048, 'z') + kWarning}, 1},
      {"marks nest and come off one at a time; refused marks", [](Vars &v) {
         static int host = 0; EXPECT_EQ(mwMark(&host, "a", "t.c", 1), &host);
         EXPECT_EQ(mwUnmark(mwMark(&host, "b", "t.c", 2), "t.c", 3), &host);
         EXPECT_STREQ(vemo::mwFirstMark->text, "a called from t.c(1), b called from t.c(2)");
         mwUnmark(&host, "t.c", 4), mwUnmark(&host, "t.c", 5), v("h", &host);
         EXPECT_EQ(mwMark(nullptr, "desc", "t.c", 6), nullptr); std::string file(100, 'f');
         mwMark(&host, std::string(60, 'd').c_str(), file.c_str(), 12345);
         EXPECT_EQ(vemo::mwFirstMark->text, std::string(48, 'd') + " called from " + file.substr(0, 66));
         mwUnmark(&host, "t.c", 7); auto *trash = reinterpret_cast<vemo::mwMarkEntry *>(16);
         vemo::mwMarkEntry entry{nullptr, nullptr, trash, 1};
         vemo::mwFirstMark = trash, mwMark(&host, "d", "t.c", 8);
         vemo::mwFirstMark = &entry, mwMark(&host, "e", "t.c", 9), v("e", &entry);
         vemo::mwFirstMark = nullptr, FailSystemMallocs({});
         EXPECT_EQ(mwMark(&host, "d", "t.c", 10), &host); EXPECT_EQ(vemo::mwFirstMark, nullptr);
       }, {"mark: t.c(5), no mark found for {h}", "mark: t.c(6), no mark for NULL:'desc' may be set",
           kWarning, "mark: t.c(8), mwFirstMark (0x10) is trashed, can't mark for d",
           "mark: t.c(9), mark({e})->next(0x10) is trashed, can't mark for e",
           "mark: t.c(10), no mark for {h}:'d', out of memory"}, 1},
      {"reserve: grab and drop in kilobytes, filler written to, others left alone", [](Vars &v) {
         Start();
         vemo::mwLock.lock(), vemo::mwGrabChunks(2, vemo::kTypeNoMansLand), vemo::mwLock.unlock();
         EXPECT_EQ(mwGrab(3), 3u); vemo::mwGrabChunk *newest = vemo::mwReserveChunks;
         newest->filler[100] = newest->filler[200] = 0, v("hit", &newest->filler[100]);
         std::pair<unsigned, unsigned> drops[] = {{1, 1}, {0, 2}, {5, 0}};  // asked, given back
         for (auto drop : drops) EXPECT_EQ(mwDrop(drop.first), drop.second);
         EXPECT_EQ(vemo::mwReserveBytes, 2 * 1024);
       }, {"grabbed: 2 kilobytes of no-mans-land memory", "grabbed: 3 kilobytes of grabbed memory",
           "wild pointer: <0> grabbed memory hit at {hit}", "dropped: 1 kilobytes of grabbed memory",
           "dropped: all grabbed memory (2 kb)"}, 0},
      {"grabbing stops at the limit, or when the system has no more", [](Vars &) {
         mwLimit(5000); void *p = mwMalloc(100, "t.c", 1);
         EXPECT_EQ(mwGrab(10), 4u);  // while 100 live bytes + the reserve + 1024 fit in 5000
         mwLimit(0), mwDrop(0), FailSystemMallocs({2}); EXPECT_EQ(mwGrab(5), 2u);
         mwFree(p, "t.c", 2);
       }, {"limit: old limit = none, new limit = 5000 bytes",
           "grabbed: all allowed memory to grabbed (4 kb)",
           "limit: old limit = 5000 bytes, new limit = none", "dropped: all grabbed memory (4 kb)",
           "grabbed: all available memory to grabbed (2 kb)"}, 0},
      {"no-man's-land levels switch retention and reserve; statistics levels are told", [](Vars &) {
         for (int level : {MW_NML_FREE, 7, MW_NML_ALL, MW_NML_NONE, MW_NML_FREE}) {
           mwNoMansLand(level); EXPECT_EQ(vemo::mwRetainMode, level == 7 ? 1 : level);
         }
         for (int level : {-5, MW_STAT_MODULE, MW_STAT_MODULE, 9, 0}) mwStatistics(level);
         mwAutoCheck(1), mwAutoCheck(0);
         EXPECT_EQ(vemo::mwCheckItems, 0xFFFF);  // what the automatic check covered
       }, {"grabbed: 65000 kilobytes of no-mans-land memory",
           "dropped: 60000 kilobytes of no-mans-land memory",
           "dropped: all no-mans-land memory (5000 kb)",
           "statistics: now collecting on a module basis",
           "statistics: now collecting on a line basis",
           "statistics: now collecting on a global basis"}, 0},
  });
}

}  // namespace
