// The allocator's state is process-wide: every scenario runs in a forked child of its own, in a
// fresh working directory where memguard.log is written, and is matched against golden lines.
#ifndef VEMO_TESTS_MEMGUARD_MW_TEST_SUPPORT_H
#define VEMO_TESTS_MEMGUARD_MW_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "memguard/mw_internal.h"

namespace mw_test {

std::string Hex(const void *p);  // as %p prints it
// Named texts of a scenario: {p} in a golden line stands for the text (or address) named p.
struct Vars : std::map<std::string, std::string> {
  void operator()(const std::string &name, const void *p) { (*this)[name] = Hex(p); }
};
// Golden lines: literal text with {ADDR}, {N}, {TIME} (a ctime() date), {ANY} and the named
// texts; a newline in a golden text separates lines. Expects exactly as many lines.
void ExpectLines(const std::vector<std::string> &lines, const std::vector<std::string> &golden,
                 const Vars &vars = Vars());
constexpr const char *kStopped = "\nStopped at {TIME}\n";  // how the report begins
// The report's global statistics, then the anomaly count when there are any.
std::string Stats(long count, long peak, long total, long unfreed, long anomalies = 0);
std::string ReadFile(const std::string &path);
// The log's lines after its start-up lines, which are checked on the way.
std::vector<std::string> LogLines(const std::string &path = "memguard.log");

// A repair at site of the block mw that failed for why, up to its emergency repairs.
inline std::string FailedRepair(const std::string &at, const std::string &mw, const char *why) {
  return "relink: " + at + " attempting to repair MW-" + mw + "...\nrelink: failed for MW-" + mw +
         "; " + why + "\nrelink: " + at + " attempting emergency repairs...";
}
inline vemo::mwData *HeaderOf(void *p) {
  return reinterpret_cast<vemo::mwData *>(static_cast<char *>(p) - vemo::kDataSize - 8);
}
// n blocks of size bytes allocated at lines 1 to n of file, oldest first.
std::vector<void *> Blocks(int n, size_t size = 1, const char *file = "t.c");
inline std::string Bytes(const void *p, size_t n) { return std::string((const char *)p, n); }
inline void Start() { mwSetAriFunc(nullptr); }  // as an application's first call starts it
void FeedStdin(const std::string &text);
// The allocator's own system allocations numbered (from 0) in calls fail; all when it is empty.
void FailSystemMallocs(const std::vector<int> &calls);

// The wait status of body run in a forked child; a body that returns ends the child with _exit,
// status 1 when an expectation failed in it.
int RunInChild(const std::function<void()> &body);

enum End { kReturns, kExits0, kExits255, kAborts };
struct Scenario {
  const char *name;
  std::function<void(Vars &)> body;
  std::vector<std::string> lines;  // the log after the start-up lines
  long anomalies;                  // mwAnomalies when the body returns
  End end = kReturns;              // otherwise the lines are read after the child ended
};
// A body that returns must leave a heap that a full check finds without errors.
void RunScenarios(const std::vector<Scenario> &table);

}  // namespace mw_test

#endif
