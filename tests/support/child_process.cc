#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char **environ;

namespace vemo_test {

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (!out_path_.empty()) unlink(out_path_.c_str());
}

bool ChildProcess::start(const std::vector<std::string> &argv, const std::vector<std::string> &extra_env) {
  char path[] = "/tmp/vemo-child-XXXXXX";
  const int out = mkstemp(path);
  if (out < 0) return false;
  out_path_ = path;
  std::vector<char *> args, env;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  for (char **e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string &e : extra_env) env.push_back(const_cast<char *>(e.c_str()));
  env.push_back(nullptr);
  // posix_spawn rather than fork: the parent runs threads (the twin, the client's tasks), and the
  // child must not inherit any of their locks.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDERR_FILENO);
  const int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out);
  return rc == 0;
}

std::optional<int> ChildProcess::wait_exit(int timeout_ms) {
  if (!exited_ && !eventually([this] { return waitpid(pid_, &status_, WNOHANG) == pid_; }, timeout_ms))
    return std::nullopt;
  exited_ = true;
  return status_;
}

std::string ChildProcess::output() {
  std::stringstream text;
  text << std::ifstream(out_path_).rdbuf();
  return text.str();
}

}  // namespace vemo_test
