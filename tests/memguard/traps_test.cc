// Traps that continue (ignored or retried), the answer function on standard input, traces,
// marks, reserve memory and the settings. Traps that end the process are in fault_test.cc.
#include "mw_test_support.h"

using namespace mw_test;

namespace {

std::vector<std::string> g_questions;
int g_answer = MW_ARI_IGNORE;
int answer(const char *text) { return g_questions.push_back(text), g_answer; }

TEST(MwTraps, Scenarios) {
  const std::string ask = "\nq\nMEMGUARD: Abort, Retry or Ignore? ";
  const std::string retry = ask + "breakout: q\nbreakout: q\n";
  const std::string trap = "MEMGUARD: assert trap: t.c(9), p";
  const std::string kWarning = " [WARNING: OUTPUT BUFFER OVERFLOW - SYSTEM UNSTABLE]";
  RunScenarios({
      {"action bit 1 ignores every trap and counts it", [](Vars &) {
         mwSetAriAction(MW_ARI_ACTION_IGNORE);
         EXPECT_EQ(mwAssert(1, "x", "t.c", 1) + mwVerify(7, "x", "t.c", 2), 0);  // passing: silent
         EXPECT_EQ(mwAssert(0, "x > 0", "t.c", 5), 0);
         EXPECT_EQ(mwVerify(0, "y", "t.c", 6), 0);
       }, {"assert trap: <1> t.c(5), x > 0", "assert trap: <1> AUTO IGNORED - execution continues",
           "verify trap: <2> t.c(6), y", "verify trap: <2> AUTO IGNORED - execution continues"}, 2},
      {"an answer function ignores or retries and is asked at most 2048 characters", [](Vars &) {
         mwSetAriFunc(answer);
         EXPECT_EQ(mwAssert(0, "a", "t.c", 1), 0);
         g_answer = MW_ARI_RETRY;
         EXPECT_EQ(mwVerify(0, "b", nullptr, 2), 1);
         int tries = 0;
         MW_ASSERT(++tries >= 3);  // asked again until it holds
         EXPECT_EQ(tries, 3);
         g_answer = MW_ARI_IGNORE;
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
         static int host = 0;
         EXPECT_EQ(mwMark(&host, "a", "t.c", 1), &host);
         EXPECT_EQ(mwUnmark(mwMark(&host, "b", "t.c", 2), "t.c", 3), &host);
         EXPECT_STREQ(vemo::mwFirstMark->text, "a called from t.c(1), b called from t.c(2)");
         mwUnmark(&host, "t.c", 4), mwUnmark(&host, "t.c", 5), v("h", &host);
         EXPECT_EQ(mwMark(nullptr, "desc", "t.c", 6), nullptr);
         std::string file(100, 'f');
         mwMark(&host, std::string(60, 'd').c_str(), file.c_str(), 12345);
         EXPECT_EQ(vemo::mwFirstMark->text, std::string(48, 'd') + " called from " + file.substr(0, 66));
         mwUnmark(&host, "t.c", 7);
         auto *trash = reinterpret_cast<vemo::mwMarkEntry *>(16);
         vemo::mwMarkEntry entry{nullptr, nullptr, trash, 1};
         vemo::mwFirstMark = trash, mwMark(&host, "d", "t.c", 8);
         vemo::mwFirstMark = &entry, mwMark(&host, "e", "t.c", 9), v("e", &entry);
         vemo::mwFirstMark = nullptr, FailSystemMallocs({});
         EXPECT_EQ(mwMark(&host, "d", "t.c", 10), &host);
         EXPECT_EQ(vemo::mwFirstMark, nullptr);
       }, {"mark: t.c(5), no mark found for {h}", "mark: t.c(6), no mark for NULL:'desc' may be set",
           kWarning, "mark: t.c(8), mwFirstMark (0x10) is trashed, can't mark for d",
           "mark: t.c(9), mark({e})->next(0x10) is trashed, can't mark for e",
           "mark: t.c(10), no mark for {h}:'d', out of memory"}, 1},
      {"reserve: grab and drop in kilobytes, filler written to, other reserve left alone",
       [](Vars &v) {
         Start();
         vemo::mwLock.lock(), vemo::mwGrabChunks(2, vemo::kTypeNoMansLand), vemo::mwLock.unlock();
         EXPECT_EQ(mwGrab(3), 3u);
         vemo::mwGrabChunk *newest = vemo::mwReserveChunks;
         newest->filler[100] = newest->filler[200] = 0, v("hit", &newest->filler[100]);
         std::pair<unsigned, unsigned> drops[] = {{1, 1}, {0, 2}, {5, 0}};  // asked, given back
         for (auto drop : drops) EXPECT_EQ(mwDrop(drop.first), drop.second);
         EXPECT_EQ(vemo::mwReserveBytes, 2 * 1024);
       }, {"grabbed: 2 kilobytes of no-mans-land memory", "grabbed: 3 kilobytes of grabbed memory",
           "wild pointer: <0> grabbed memory hit at {hit}", "dropped: 1 kilobytes of grabbed memory",
           "dropped: all grabbed memory (2 kb)"}, 0},
      {"grabbing stops at the limit, or when the system has no more", [](Vars &) {
         mwLimit(5000);
         void *p = mwMalloc(100, "t.c", 1);
         EXPECT_EQ(mwGrab(10), 4u);  // while 100 live bytes + the reserve + 1024 fit in 5000
         mwLimit(0), mwDrop(0), FailSystemMallocs({2});
         EXPECT_EQ(mwGrab(5), 2u);
         mwFree(p, "t.c", 2);
       }, {"limit: old limit = none, new limit = 5000 bytes",
           "grabbed: all allowed memory to grabbed (4 kb)",
           "limit: old limit = 5000 bytes, new limit = none", "dropped: all grabbed memory (4 kb)",
           "grabbed: all available memory to grabbed (2 kb)"}, 0},
      {"no-man's-land levels switch retention and reserve; statistics levels are told",
       [](Vars &) {
         for (int level : {MW_NML_FREE, 7, MW_NML_ALL, MW_NML_NONE, MW_NML_FREE}) {
           mwNoMansLand(level);
           EXPECT_EQ(vemo::mwRetainMode, level == 7 ? 1 : level);
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
