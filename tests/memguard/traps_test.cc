// Traps that continue (ignored or retried), the answer function on standard input, traces and
// marks. Traps that end the process are in fault_test.cc.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

class MwTraps : public MwTest {
 protected:
  // Makes the text the next lines of standard input.
  void FeedStdin(const std::string &text) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], text.data(), text.size()), (ssize_t)text.size());
    close(fds[1]);
    dup2(fds[0], 0);
    close(fds[0]);
    clearerr(stdin);
  }
};

std::vector<std::string> g_questions;
int g_answer = MW_ARI_IGNORE;
int answer(const char *text) {
  g_questions.push_back(text);
  return g_answer;
}

TEST_F(MwTraps, PassingTrapsDoNothing) {
  EXPECT_EQ(mwAssert(1, "x", "t.c", 1), 0);
  EXPECT_EQ(mwVerify(7, "x", "t.c", 2), 0);
  EXPECT_EQ(vemo::mwInitCount, 0);
  EXPECT_FALSE(FileExists("memguard.log"));
}

TEST_F(MwTraps, ActionBitOneIgnoresEveryTrapAndCountsIt) {
  mwSetAriAction(MW_ARI_ACTION_IGNORE);
  EXPECT_EQ(mwAssert(0, "x > 0", "t.c", 5), 0);
  EXPECT_EQ(mwVerify(0, "y", "t.c", 6), 0);
  ExpectLines(NewLines(), {"assert trap: <1> t.c(5), x > 0",
                           "assert trap: <1> AUTO IGNORED - execution continues",
                           "verify trap: <2> t.c(6), y",
                           "verify trap: <2> AUTO IGNORED - execution continues"});
  EXPECT_EQ(vemo::mwAnomalies, 2);
}

TEST_F(MwTraps, AnswerFunctionIgnoresOrRetries) {
  mwSetAriFunc(answer);
  g_questions.clear();
  g_answer = MW_ARI_IGNORE;
  EXPECT_EQ(mwAssert(0, "a", "t.c", 1), 0);
  g_answer = MW_ARI_RETRY;
  EXPECT_EQ(mwVerify(0, "b", nullptr, 2), 1);
  ExpectLines(NewLines(), {"assert trap: <1> t.c(1), a",
                           "assert trap: <1> IGNORED - execution continues",
                           "verify trap: <2> unknown(2), b",
                           "verify trap: <2> RETRY - executing again"});
  EXPECT_EQ(g_questions, (std::vector<std::string>{"MEMGUARD: assert trap: t.c(1), a",
                                                   "MEMGUARD: verify trap: unknown(2), b"}));
}

TEST_F(MwTraps, AnswerFunctionGetsAtMost2048Characters) {
  mwSetAriFunc(answer);
  mwSetAriAction(0);
  g_questions.clear();
  g_answer = MW_ARI_IGNORE;
  std::string text(3000, 't');
  EXPECT_EQ(mwAssert(0, text.c_str(), "t.c", 1), 0);
  ASSERT_EQ(g_questions.size(), 1u);
  EXPECT_EQ(g_questions[0].size(), 2048u);
  EXPECT_EQ(g_questions[0].compare(0, 29, "MEMGUARD: assert trap: t.c(1)"), 0);
}

TEST_F(MwTraps, RetryMacroEvaluatesAgain) {
  mwSetAriFunc(answer);
  g_answer = MW_ARI_RETRY;
  int tries = 0;
  MW_ASSERT(++tries >= 3);
  EXPECT_EQ(tries, 3);
  EXPECT_EQ(vemo::mwAnomalies, 2);
}

TEST_F(MwTraps, AriHandlerRetriesOnR) {
  Start();
  FeedStdin("  r\n");
  EXPECT_EQ(mwAriHandler("question"), MW_ARI_RETRY);
  ExpectLines(NewLines(), {"", "question", "MEMGUARD: Abort, Retry or Ignore? breakout: question",
                           "breakout: question"});
}

TEST_F(MwTraps, AriHandlerAnswers) {
  Start();
  FeedStdin("i\nI\nR\n\nx\n\t\n");
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_IGNORE);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_IGNORE);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_RETRY);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_ABORT);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_ABORT);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_ABORT);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_ABORT);  // end of input
}

TEST_F(MwTraps, OverlongAnswerLineDoesNotAnswerTheNextTrap) {
  Start();
  FeedStdin(std::string(100, 'x') + "i\nr\n");
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_ABORT);
  EXPECT_EQ(mwAriHandler("q"), MW_ARI_RETRY);
}

TEST_F(MwTraps, TrapsAskTheHandlerOnStandardInput) {
  mwSetAriFunc(mwAriHandler);
  FeedStdin(" r\ni\n");
  EXPECT_EQ(mwAssert(0, "p != NULL", "t.c", 9), 1);
  EXPECT_EQ(mwAssert(0, "p != NULL", "t.c", 9), 0);
  std::string question = "MEMGUARD: assert trap: t.c(9), p != NULL";
  ExpectLines(NewLines(), {"assert trap: <1> t.c(9), p != NULL", "", question,
                           "MEMGUARD: Abort, Retry or Ignore? breakout: " + question,
                           "breakout: " + question, "assert trap: <1> RETRY - executing again",
                           "assert trap: <2> t.c(9), p != NULL", "", question,
                           "MEMGUARD: Abort, Retry or Ignore? assert trap: <2> IGNORED - execution "
                           "continues"});
}

TEST_F(MwTraps, TraceWritesThroughTheHookAndWarnsWhenCut) {
  Start();
  mwTrace("value=%d %s\n", 7, "ok");
  mwTrace("%s\n", std::string(2100, 'z').c_str());
  ExpectLines(NewLines(), {"value=7 ok", std::string(2048, 'z') +
                                             " [WARNING: OUTPUT BUFFER OVERFLOW - SYSTEM UNSTABLE]"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
}

TEST_F(MwTraps, MarksNestAndUnmarkOneAtATime) {
  int host = 0;
  EXPECT_EQ(mwMark(&host, "a", "t.c", 1), &host);
  EXPECT_EQ(mwMark(&host, "b", "t.c", 2), &host);
  EXPECT_EQ(mwUnmark(&host, "t.c", 3), &host);
  ASSERT_NE(vemo::mwFirstMark, nullptr);
  EXPECT_EQ(vemo::mwFirstMark->depth, 1);
  EXPECT_STREQ(vemo::mwFirstMark->text, "a called from t.c(1), b called from t.c(2)");
  mwUnmark(&host, "t.c", 4);
  EXPECT_EQ(vemo::mwFirstMark, nullptr);
  mwUnmark(&host, "t.c", 5);
  ExpectLines(NewLines(), {"mark: t.c(5), no mark found for " + Hex(&host)});
}

TEST_F(MwTraps, MarkOnNullIsRefused) {
  EXPECT_EQ(mwMark(nullptr, "desc", "t.c", 1), nullptr);
  ExpectLines(NewLines(), {"mark: t.c(1), no mark for NULL:'desc' may be set"});
  EXPECT_EQ(vemo::mwFirstMark, nullptr);
}

TEST_F(MwTraps, LongPlaceTextIsCutAndWarnedAbout) {
  int host = 0;
  std::string description(60, 'd');
  std::string file(100, 'f');
  mwMark(&host, description.c_str(), file.c_str(), 12345);
  ASSERT_NE(vemo::mwFirstMark, nullptr);
  std::string place = std::string(48, 'd') + " called from " + file + "(12345)";
  EXPECT_EQ(std::string(vemo::mwFirstMark->text), place.substr(0, 127));
  ExpectLines(NewLines(), {" [WARNING: OUTPUT BUFFER OVERFLOW - SYSTEM UNSTABLE]"});
  EXPECT_EQ(vemo::mwAnomalies, 1);
  mwUnmark(&host, "t.c", 1);
}

TEST_F(MwTraps, TrashedMarkListIsReportedAndLeftAlone) {
  int host = 0;
  auto *trash = reinterpret_cast<vemo::mwMarkEntry *>(16);
  Start();
  vemo::mwFirstMark = trash;
  EXPECT_EQ(mwMark(&host, "d", "t.c", 1), &host);
  vemo::mwMarkEntry entry{nullptr, nullptr, trash, 1};
  vemo::mwFirstMark = &entry;
  EXPECT_EQ(mwMark(&host, "e", "t.c", 2), &host);
  vemo::mwFirstMark = nullptr;
  ExpectLines(NewLines(), {"mark: t.c(1), mwFirstMark (0x10) is trashed, can't mark for d",
                           "mark: t.c(2), mark(" + Hex(&entry) + ")->next(0x10) is trashed, "
                           "can't mark for e"});
}

TEST_F(MwTraps, MarkWithoutMemoryIsNotSet) {
  int host = 0;
  Start();
  FailAllSystemMallocs();
  EXPECT_EQ(mwMark(&host, "d", "t.c", 1), &host);
  ExpectLines(NewLines(), {"mark: t.c(1), no mark for " + Hex(&host) + ":'d', out of memory"});
  EXPECT_EQ(vemo::mwFirstMark, nullptr);
}

}  // namespace
