// A built program run as a child process, its standard output and error read through pipes: the
// one runner of every test suite that starts a program.
#ifndef VEMO_TOOLS_TEST_SUPPORT_CHILD_PROCESS_H
#define VEMO_TOOLS_TEST_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tools_test {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills the child if it still runs
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  // Starts argv[0] with argv, in this process's environment plus extra_env ("NAME=value").
  // Standard input is a pipe to write_text() when with_stdin, else /dev/null. posix_spawn, not
  // fork: the test process runs threads of its own, whose locks a forked child would inherit.
  bool start(const std::vector<std::string> &argv, bool with_stdin = false,
             const std::vector<std::string> &extra_env = {});
  pid_t pid() const { return pid_; }

  bool write_text(const std::string &text);  // to the child's standard input, as it is
  bool write_line(const std::string &line) { return write_text(line + "\n"); }
  void close_stdin();
  bool send_signal(int signal);
  // Stops reading standard output: the child's next write to it fails.
  void close_out();

  // The first complete line of standard output (from the start) that satisfies pred, reading
  // as needed; nullopt when none came within timeout_ms.
  std::optional<std::string> wait_for_line(const std::function<bool(const std::string &)> &pred,
                                           int timeout_ms);
  // Reads both outputs to their end and reaps the child: its exit status, or minus the signal
  // that ended it; nullopt when it runs on after timeout_ms.
  std::optional<int> wait_exit(int timeout_ms);
  const std::string &out() const { return out_; }
  const std::string &err() const { return err_; }

 private:
  bool pump(int timeout_ms);  // reads what is there; false when nothing came in time
  pid_t pid_ = -1;
  int in_ = -1, out_fd_ = -1, err_fd_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::string out_, err_;
};

// A run to the end: the exit status (minus the signal that ended it; -1000 when it could not
// start or ran on after timeout_ms) and both outputs.
struct ProgramRun {
  int status = -1000;
  std::string out, err;
};
ProgramRun run_program(const std::vector<std::string> &argv, int timeout_ms);

}  // namespace tools_test

#endif
