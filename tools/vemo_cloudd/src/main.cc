// vemo_cloudd: the reference daemon as a program. The daemon itself runs on its own loop
// thread; this thread reads command lines (standard input, the control FIFO) and waits for
// SIGINT/SIGTERM, all in one poll().
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "console.h"
#include "options.h"
#include "util/log_internal.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace {

using vemo::cloudd::CliOptions;
using vemo::cloudd::CloudDaemon;
using vemo::cloudd::ConsoleCommand;

constexpr int kExitUsage = 2;
constexpr int kExitServe = 1;

// The stop signals arrive as readable data on a signalfd: they are blocked in every thread (the
// mask is set before any thread starts), so no handler runs anywhere and the main loop sees them
// in the same poll() as its command input.
int g_signal_fd = -1;

int install_signals() {
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr) != 0) return -1;
  g_signal_fd = signalfd(-1, &stop_signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (g_signal_fd < 0) return -1;
  // A client that vanishes must cost a failed send, not the daemon.
  signal(SIGPIPE, SIG_IGN);
  return 0;
}

// Prints one trace line after the local time, in the form of the library's log lines
// ("2024-05-01 12:00:00.123"), so that the two can be laid side by side.
void print_trace(const std::string &line) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm local;
  char stamp[32] = "0000-00-00 00:00:00";
  if (localtime_r(&now.tv_sec, &local) != nullptr) strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  printf("%s.%03d %s\n", stamp, static_cast<int>(now.tv_usec / 1000), line.c_str());
}

// One source of command lines; collects bytes until whole lines are there.
struct LineSource {
  const char *name;
  int fd;
  std::string pending;
};

// Opens (making it if missing) the control FIFO. A write end is kept open by the daemon itself
// so that the read end never sees end-of-file between two writers.
int open_control(const std::string &path, bool *made, int *keep_open, std::string *error) {
  struct stat st;
  *made = false;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISFIFO(st.st_mode)) {
      *error = "the control path " + path + " exists and is not a FIFO";
      return -1;
    }
  } else if (mkfifo(path.c_str(), 0600) != 0) {
    *error = "cannot make the control FIFO " + path + ": " + strerror(errno);
    return -1;
  } else {
    *made = true;
  }
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot open the control FIFO " + path + ": " + strerror(errno);
    if (*made) unlink(path.c_str());
    return -1;
  }
  *keep_open = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  return fd;
}

// Runs the complete lines of src; true when one of them was quit.
bool run_lines(CloudDaemon &daemon, LineSource &src, bool flush_partial) {
  for (;;) {
    std::size_t nl = src.pending.find('\n');
    if (nl == std::string::npos && !(flush_partial && !src.pending.empty())) return false;
    std::string line = src.pending.substr(0, nl);
    src.pending.erase(0, nl == std::string::npos ? std::string::npos : nl + 1);
    ConsoleCommand cmd;
    std::string error;
    if (vemo::cloudd::parse_command(line, &cmd, &error) != 0) {
      fprintf(stderr, "vemo_cloudd: %s\n", error.c_str());
      continue;
    }
    if (cmd.kind == ConsoleCommand::kQuit) return true;
    std::string outcome = vemo::cloudd::run_command(daemon, cmd);
    if (!outcome.empty()) printf("%s\n", outcome.c_str());
  }
}

}  // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  CliOptions opts;
  std::string error;
  if (vemo::cloudd::parse_options(argc, argv, &opts, &error) != 0) {
    fprintf(stderr, "vemo_cloudd: %s\nTry 'vemo_cloudd --help' for more information.\n",
            error.c_str());
    return kExitUsage;
  }
  if (opts.help || opts.version) {
    fputs(opts.help ? vemo::cloudd::usage_text().c_str() : (vemo::cloudd::version_text() + "\n").c_str(),
          stdout);
    return 0;
  }
  if (install_signals() != 0) {
    fprintf(stderr, "vemo_cloudd: cannot install the signal handlers: %s\n", strerror(errno));
    return kExitServe;
  }
  // Standard output carries the daemon's own lines only; the library's log lines (the
  // transport logs every frame) go to standard error, or nowhere when quiet.
  FILE *library_log = opts.quiet ? fopen("/dev/null", "w") : stderr;
  vemo::log_set_stream(library_log != nullptr ? library_log : stderr);

  CloudDaemon daemon(opts.socket);
  // Nothing here reads the message log back, and a load test would grow it without bound.
  daemon.set_keep_log(false);
  daemon.set_behaviour(opts.behaviour);
  daemon.set_next_request_id(opts.first_request_id);
  daemon.set_next_cloud_request_id(opts.first_cloud_id);
  if (!opts.quiet) {
    daemon.set_log_sink(print_trace);
  }
  std::vector<LineSource> sources;
  sources.push_back({"standard input", STDIN_FILENO, std::string()});
  // The FIFO is ready before the daemon announces that it listens, so whoever waits for that
  // line may write to it at once.
  bool made_control = false;
  int control_writer = -1;
  if (!opts.control.empty()) {
    int fd = open_control(opts.control, &made_control, &control_writer, &error);
    if (fd < 0) {
      fprintf(stderr, "vemo_cloudd: %s\n", error.c_str());
      return kExitServe;
    }
    sources.push_back({"control FIFO", fd, std::string()});
  }
  const int started = daemon.start();
  if (started != 0) {
    fprintf(stderr, "vemo_cloudd: %s\n", daemon.last_error().c_str());
    if (made_control) unlink(opts.control.c_str());
    return kExitServe;
  }

  bool quit = false;
  while (!quit) {
    std::vector<struct pollfd> fds;
    fds.push_back({g_signal_fd, POLLIN, 0});
    for (const LineSource &src : sources) fds.push_back({src.fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      fprintf(stderr, "vemo_cloudd: poll failed: %s\n", strerror(errno));
      break;
    }
    if (fds[0].revents != 0) {
      struct signalfd_siginfo info;
      if (read(g_signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info) && !opts.quiet)
        print_trace(info.ssi_signo == SIGINT ? "stopping on SIGINT" : "stopping on SIGTERM");
      break;
    }
    for (std::size_t i = 0; i < sources.size() && !quit; ++i) {
      LineSource &src = sources[i];
      if (fds[i + 1].revents == 0 || src.fd < 0) continue;
      char buf[4096];
      ssize_t n = read(src.fd, buf, sizeof(buf));
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n > 0) {
        src.pending.append(buf, static_cast<std::size_t>(n));
        quit = run_lines(daemon, src, false);
        continue;
      }
      // End of input (or a read error): the last unterminated line still counts, then the
      // source is dropped while the daemon keeps serving.
      quit = run_lines(daemon, src, true);
      if (src.fd == STDIN_FILENO && !quit && !opts.quiet) {
        print_trace("standard input closed; serving until quit, SIGINT or SIGTERM");
      }
      sources.erase(sources.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  }

  daemon.stop();
  for (const LineSource &src : sources) {
    if (src.fd != STDIN_FILENO) close(src.fd);
  }
  if (control_writer >= 0) close(control_writer);
  if (made_control) unlink(opts.control.c_str());
  fflush(stdout);
  return 0;
}
