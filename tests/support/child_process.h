// The one runner of child processes for every suite: a program started with posix_spawn, its
// standard output and error going to a file that the test reads when it likes.
#ifndef VEMO_TESTS_SUPPORT_CHILD_PROCESS_H
#define VEMO_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "support/waits.h"

namespace vemo_test {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills the child if it still runs
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;
  // extra_env entries are "NAME=VALUE", added to this process's environment.
  bool start(const std::vector<std::string> &argv, const std::vector<std::string> &extra_env = {});
  // The exit status as from waitpid; nullopt while the child runs on after timeout_ms.
  std::optional<int> wait_exit(int timeout_ms = kWaitMs);
  std::string output();  // standard output and error so far

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
  int status_ = 0;
  std::string out_path_;
};

}  // namespace vemo_test

#endif
