// Shared pieces of the allocator's tests: a fixture that gives every test a fresh temporary
// working directory (where memguard.log is written), log readers, line patterns, a child
// process runner and a failing system allocation.
#ifndef VEMO_TESTS_MEMGUARD_MW_TEST_SUPPORT_H
#define VEMO_TESTS_MEMGUARD_MW_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stddef.h>

#include <functional>
#include <string>
#include <vector>

#include "memguard/mw_internal.h"

namespace mw_test {

// A pattern is literal text with placeholders: {ADDR} a pointer as %p prints it, {N} a
// signed decimal number, {TIME} a ctime() date, {ANY} anything.
std::string PatternToRegex(const std::string &pattern);
bool LineMatches(const std::string &line, const std::string &pattern);
// Expects lines to match patterns one by one, and to be exactly as many.
void ExpectLines(const std::vector<std::string> &lines, const std::vector<std::string> &patterns);

std::string ReadFile(const std::string &path);
std::vector<std::string> SplitLines(const std::string &text);
bool FileExists(const std::string &path);
std::string Hex(const void *p);  // as %p prints it

// The header of a tracked block.
inline vemo::mwData *HeaderOf(void *p) {
  return reinterpret_cast<vemo::mwData *>(static_cast<char *>(p) - vemo::kDataSize -
                                          vemo::kGuardLen);
}

// Starts the allocator the way an application's first call does (implicitly, with the report
// registered for exit) without writing anything but the start-up lines.
inline void Start() { mwSetAriFunc(nullptr); }

// Runs body in a forked child, which then exits with status 0 (running exit handlers);
// returns the child's wait status.
int RunInChild(const std::function<void()> &body);

// Makes the allocator's system allocations fail: calls whose 0-based number is in the plan's
// failing set return NULL, all others go to malloc.
void FailSystemMallocs(const std::vector<int> &failing_calls);
void FailAllSystemMallocs();
int SystemMallocCalls();

class MwTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The whole log after flushing it.
  std::string Log();
  std::vector<std::string> LogLines();
  // The lines written since the last Mark() (or since the banner, when Mark was not called).
  std::vector<std::string> NewLines();
  // Remembers the current end of the log; starts the allocator if it has not started yet.
  void Mark();
  const std::string &dir() const { return dir_; }

 private:
  std::string old_cwd_;
  std::string dir_;
  size_t mark_ = 0;
  bool marked_ = false;
};

}  // namespace mw_test

#endif
