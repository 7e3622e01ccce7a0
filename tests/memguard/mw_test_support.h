// Shared pieces of the allocator's tests: golden log lines, one child-process runner, and
// scenarios that each run in a child of their own (the allocator's state is process-wide) in
// a fresh working directory, where memguard.log is written.
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
// Golden lines are literal text with placeholders: {ADDR} a pointer, {N} a decimal number,
// {TIME} a ctime() date, {ANY} anything, and the named texts; a golden text with newlines
// stands for several lines. Expects exactly as many lines.
void ExpectLines(const std::vector<std::string> &lines, const std::vector<std::string> &golden,
                 const Vars &vars = Vars());
constexpr const char *kStopped = "\nStopped at {TIME}\n";  // how the report begins
std::string Stats(long count, long peak, long total, long unfreed);  // its global statistics
std::string ReadFile(const std::string &path);
// The log's lines after its start-up lines, which are checked on the way.
std::vector<std::string> LogLines(const std::string &path = "memguard.log");

inline vemo::mwData *HeaderOf(void *p) {
  return reinterpret_cast<vemo::mwData *>(static_cast<char *>(p) - vemo::kDataSize - 8);
}
// n blocks of size bytes allocated at lines 1 to n of file, oldest first.
std::vector<void *> Blocks(int n, size_t size = 1, const char *file = "t.c");
inline std::string Bytes(const void *p, size_t n) { return std::string((const char *)p, n); }
// Starts the allocator as an application's first call does, writing only the start-up lines.
inline void Start() { mwSetAriFunc(nullptr); }
void FeedStdin(const std::string &text);  // what standard input reads from now on
// The allocator's own system allocations numbered (from 0) in calls fail; all when it is empty.
void FailSystemMallocs(const std::vector<int> &calls);

// Runs body in a forked child and returns its wait status. A body that returns ends the child
// with _exit (no exit handlers): status 1 when an expectation failed in it (printed there).
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
