#include "output.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <vemo/codes.h>

#include "format.h"

namespace vemo_cli {
namespace {

// The tool's output stream: stdout itself when verbose, a stream on the duplicate of the original
// descriptor 1 when quiet. Set once before the library starts any thread; never closed, because
// library threads (a listen handler) may still write while the process exits.
FILE *g_out = nullptr;
bool g_json = false;  // set with g_out

}  // namespace

bool prepare_process() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    int null_fd = open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (null_fd < 0) return false;
    if (null_fd != fd) {  // the lowest free descriptor should be fd itself; be safe anyway
      if (dup2(null_fd, fd) < 0) return false;
      close(null_fd);
    }
  }
  struct sigaction action;
  memset(&action, 0, sizeof action);
  sigemptyset(&action.sa_mask);
  action.sa_handler = SIG_DFL;
  if (sigaction(SIGCHLD, &action, nullptr) != 0) return false;
  action.sa_handler = SIG_IGN;
  return sigaction(SIGPIPE, &action, nullptr) == 0;
}

bool output_json() { return g_json; }

bool output_init(bool quiet, bool json) {
  g_json = json;
  if (!quiet) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    g_out = stdout;
    return true;
  }
  fflush(stdout);
  int copy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (copy < 0) return false;
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) {
    if (null_fd >= 0) close(null_fd);
    close(copy);
    return false;
  }
  close(null_fd);
  g_out = fdopen(copy, "w");
  if (g_out == nullptr) {
    close(copy);
    return false;
  }
  return true;
}

bool output_line(const std::string &text) {
  FILE *out = g_out != nullptr ? g_out : stdout;
  flockfile(out);
  bool ok = fwrite(text.data(), 1, text.size(), out) == text.size();
  ok = putc('\n', out) != EOF && ok;
  ok = fflush(out) == 0 && ok;
  funlockfile(out);
  return ok;
}

bool output_flush() {
  FILE *out = g_out != nullptr ? g_out : stdout;
  return fflush(out) == 0 && !ferror(out);
}

void report(const char *text, size_t length) noexcept {
  // One write without allocating: lines of threads reporting at once do not interleave, and a
  // handler may report that memory ran out.
  static const char kPrefix[] = "vemo-cli: ";
  struct iovec parts[3] = {{const_cast<char *>(kPrefix), sizeof kPrefix - 1},
                           {const_cast<char *>(text), length},
                           {const_cast<char *>("\n"), 1}};
  ssize_t ignored = writev(STDERR_FILENO, parts, 3);
  (void)ignored;
}

void report(const char *text) noexcept { report(text, strlen(text)); }

void report(const std::string &text) noexcept { report(text.data(), text.size()); }

int report_code(const char *step, int code) {
  const char *description = vemo_strerror(code);
  report(std::string(step) + ": " + describe_code(code, description));
  if (g_json) {
    output_line(JsonLine("error")
                    .add("step", step)
                    .add("code", code)
                    .add("message", description != nullptr ? description : "")
                    .str());
  }
  return exit_status_for(code);
}

void report_failure(const std::string &text) {
  report(text);
  if (g_json) output_line(JsonLine("error").add("message", text).str());
}

}  // namespace vemo_cli
