// The writer: bounded formatting, the output hook, the self-checking log handle and flush
// level, flushing, and the log file with its fallback names.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mw_test_support.h"

using namespace mw_test;

namespace {

class MwWriter : public MwTest {};

std::string g_hooked;
void capture_hook(int c) { g_hooked += static_cast<char>(c); }

void Write(const std::string &text) {
  vemo::MwGuard guard;
  vemo::mwWrite("%s", text.c_str());
}

TEST_F(MwWriter, TextOf2047CharactersIsWrittenWhole) {
  Start();
  Mark();
  Write(std::string(2046, 'a') + "\n");
  std::vector<std::string> lines = NewLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], std::string(2046, 'a'));
}

TEST_F(MwWriter, TextOf2048CharactersOrMoreIsCutAndWarnedAbout) {
  Start();
  Mark();
  Write(std::string(3000, 'b') + "\n");
  std::vector<std::string> lines = NewLines();
  ExpectLines(lines, {std::string(2048, 'b'),
                      "internal: mwWrite(): WARNING! OUTPUT EXCEEDED 2047 CHARS: SYSTEM UNSTABLE"});
  Mark();
  Write(std::string(2048, 'c'));
  ExpectLines(NewLines(), {std::string(2048, 'c'),
                           "internal: mwWrite(): WARNING! OUTPUT EXCEEDED 2047 CHARS: SYSTEM UNSTABLE"});
}

TEST_F(MwWriter, OutputHookTakesEveryCharacterInsteadOfTheLog) {
  Start();
  Mark();
  g_hooked.clear();
  mwSetOutFunc(capture_hook);
  EXPECT_EQ(mwStrdup(nullptr, "a.c", 3), nullptr);
  mwTrace("traced %d\n", 42);
  EXPECT_EQ(g_hooked, "strdup: <0> a.c(3), strdup(NULL) called\ntraced 42\n");
  EXPECT_TRUE(NewLines().empty());
  // A null hook puts the log back at the next write.
  mwSetOutFunc(nullptr);
  mwTrace("back\n");
  ExpectLines(NewLines(), {"back"});
}

TEST_F(MwWriter, DirectLinesReachTheLogWhateverTheHook) {
  Start();
  Mark();
  g_hooked.clear();
  mwSetOutFunc(capture_hook);
  mwBreakOut("cause");
  EXPECT_EQ(g_hooked, "breakout: cause\n");
  ExpectLines(NewLines(), {"breakout: cause"});
}

TEST_F(MwWriter, BreakOutStandsTwiceWithTheDefaultHook) {
  Start();
  mwBreakOut("why");
  ExpectLines(NewLines(), {"breakout: why", "breakout: why"});
}

TEST_F(MwWriter, BreakOutBeforeTheStartReachesTheLogOnce) {
  // There is no log yet for the direct copy; the written copy starts the allocator.
  mwBreakOut("early");
  ExpectLines(NewLines(), {"breakout: early"});
}

TEST_F(MwWriter, OneDamagedLogHandleCopyIsOutvoted) {
  Start();
  Mark();
  FILE *stray = tmpfile();
  {
    vemo::MwGuard guard;
    FILE *real = vemo::mwLogStream1;
    vemo::mwLogStream2 = stray;
    EXPECT_EQ(vemo::mwCheckedLog(), real);
    EXPECT_EQ(vemo::mwLogStream2, real);
    EXPECT_EQ(vemo::mwLogStream3, real);
  }
  ExpectLines(NewLines(), {"internal: log file handle damaged and recovered"});
  fclose(stray);
}

TEST_F(MwWriter, ThreeDifferentLogHandlesKeepTheFirst) {
  Start();
  Mark();
  FILE *stray2 = tmpfile();
  FILE *stray3 = tmpfile();
  FILE *real = nullptr;
  {
    vemo::MwGuard guard;
    real = vemo::mwLogStream1;
    vemo::mwLogStream2 = stray2;
    vemo::mwLogStream3 = stray3;
    EXPECT_EQ(vemo::mwCheckedLog(), real);
    EXPECT_EQ(vemo::mwLogStream2, real);
    EXPECT_EQ(vemo::mwLogStream3, real);
  }
  ExpectLines(NewLines(), {"", "MEMGUARD: log file handle destroyed, using mwSTDERR"});
  fclose(stray2);
  fclose(stray3);
}

TEST_F(MwWriter, DamagedFlushLevelIsRepairedOrSetToOne) {
  Start();
  Mark();
  vemo::MwGuard guard;
  vemo::mwFlushLevel3 = 7;
  EXPECT_EQ(vemo::mwCheckedFlushLevel(), 0);
  EXPECT_EQ(vemo::mwFlushLevel3, 0);
  vemo::mwFlushLevel1 = 2;
  vemo::mwFlushLevel2 = 3;
  EXPECT_EQ(vemo::mwCheckedFlushLevel(), 1);
  EXPECT_EQ(vemo::mwFlushLevel1, 1);
  EXPECT_EQ(vemo::mwFlushLevel2, 1);
  EXPECT_EQ(vemo::mwFlushLevel3, 1);
  ExpectLines(NewLines(), {"internal: flushing flag damaged and recovered",
                           "internal: flushing flag destroyed, so set to true"});
}

TEST_F(MwWriter, NothingIsFlushedBeforeTheFirstAnomaly) {
  mwLimit(0);
  EXPECT_EQ(ReadFile("memguard.log").size(), 0u);
  EXPECT_EQ(mwStrdup(nullptr, "a.c", 1), nullptr);
  std::string log = ReadFile("memguard.log");
  EXPECT_NE(log.find("limit: old limit = none, new limit = none\n"), std::string::npos);
  EXPECT_NE(log.find("strdup: <0> a.c(1), strdup(NULL) called\n"), std::string::npos);
  // From now on every message that asks for a flush reaches the file at once.
  mwLimit(5);
  EXPECT_NE(ReadFile("memguard.log").find("new limit = 5 bytes\n"), std::string::npos);
}

TEST_F(MwWriter, DoFlushAndFlushNowFlushOnDemand) {
  mwLimit(0);
  mwDoFlush(1);
  EXPECT_NE(ReadFile("memguard.log").find("new limit = none"), std::string::npos);
  mwLimit(7);
  EXPECT_NE(ReadFile("memguard.log").find("new limit = 7 bytes"), std::string::npos);
  mwDoFlush(-3);
  {
    vemo::MwGuard guard;
    EXPECT_EQ(vemo::mwCheckedFlushLevel(), 0);
  }
  mwLimit(9);
  EXPECT_EQ(ReadFile("memguard.log").find("new limit = 9 bytes"), std::string::npos);
  mwFlushNow();
  EXPECT_NE(ReadFile("memguard.log").find("new limit = 9 bytes"), std::string::npos);
}

TEST_F(MwWriter, LogFallsBackToNumberedNames) {
  ASSERT_EQ(mkdir("memguard.log", 0755), 0);
  ASSERT_EQ(mkdir("memgrd01.log", 0755), 0);
  Start();
  mwFlushNow();
  std::string log = ReadFile("memgrd02.log");
  EXPECT_NE(log.find("MEMGUARD 1.00"), std::string::npos);
  EXPECT_FALSE(FileExists("memgrd03.log"));
}

TEST_F(MwWriter, WithoutAnyLogDirectLinesGoToStandardError) {
  ASSERT_EQ(mkdir("memguard.log", 0755), 0);
  for (int i = 1; i <= 99; ++i) {
    char name[16];
    snprintf(name, sizeof name, "memgrd%02d.log", i);
    ASSERT_EQ(mkdir(name, 0755), 0);
  }
  fflush(stderr);
  int saved = dup(2);
  int err = open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(err, 0);
  dup2(err, 2);
  close(err);
  Start();
  EXPECT_EQ(mwStrdup(nullptr, "a.c", 1), nullptr);  // through the hook: dropped
  mwBreakOut("no log");
  mwTerm();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  {
    vemo::MwGuard guard;
    EXPECT_EQ(vemo::mwCheckedLog(), nullptr);
  }
  ExpectLines(SplitLines(ReadFile("stderr.txt")),
              {"breakout: no log", "MEMGUARD detected 1 anomalies"});
}

TEST_F(MwWriter, FailedLogNamesAreToldToAHook) {
  // A hook installed before a restart hears about every name that could not be opened.
  Start();
  g_hooked.clear();
  mwSetOutFunc(capture_hook);
  mwTerm();
  ASSERT_EQ(rename("memguard.log", "old.log"), 0);
  ASSERT_EQ(mkdir("memguard.log", 0755), 0);
  g_hooked.clear();
  mwInit();
  EXPECT_EQ(g_hooked, "logfile: failed to open/create file 'memguard.log'\n");
  EXPECT_TRUE(FileExists("memgrd01.log"));
  mwTerm();
}

}  // namespace
