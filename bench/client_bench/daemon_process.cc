#include "daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "vemo/ipc_socket.h"
#include "vemo/vemo.h"
#include "vemo/vemo_ext.h"

namespace bench {
namespace {

constexpr int kStartWaitMs = 5000;
constexpr int kStartPollMs = 10;

bool is_socket(const char *path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISSOCK(st.st_mode);
}

// Someone accepts at the path (a socket file left by a dead daemon accepts nothing, and the
// daemon we start removes it).
bool someone_serves(const char *path) {
  int fd = ipc_socket_init_as_client(path);
  if (fd < 0) return false;
  close(fd);
  return true;
}

}  // namespace

bool DaemonProcess::start(const std::string &program, std::string *error) {
  path_ = "/tmp/vemo_bench." + std::to_string(getpid()) + ".sock";
  if (vemo_set_socket_path(path_.c_str()) != 0) {
    *error = "the socket path " + path_ + " is refused";
    return false;
  }
  pid_t pid = fork();
  if (pid < 0) {
    *error = "cannot fork";
    return false;
  }
  if (pid == 0) {
    // The daemon must not outlive a benchmark that dies.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
      dup2(null_fd, STDIN_FILENO);
      dup2(null_fd, STDOUT_FILENO);
      dup2(null_fd, STDERR_FILENO);
    }
    execl(program.c_str(), program.c_str(), "--quiet", "--delay", "0", "--socket", path_.c_str(),
          static_cast<char *>(nullptr));
    _exit(127);
  }
  pid_ = pid;
  // The daemon announces nothing when quiet: its socket file appearing is the sign. This waits
  // on another process, for which no condition exists to block on; the steps are short and
  // bounded.
  for (int waited = 0; waited < kStartWaitMs; waited += kStartPollMs) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = 0;
      *error = "the daemon exited at start (status " + std::to_string(status) + ")";
      return false;
    }
    if (is_socket(path_.c_str()) && someone_serves(path_.c_str())) return true;
    struct timespec step = {0, kStartPollMs * 1000000L};
    nanosleep(&step, nullptr);
  }
  *error = "the daemon did not create its socket within 5 s";
  stop();
  return false;
}

void DaemonProcess::stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = 0;
}

}  // namespace bench
