// client_bench: what a request to the cloud daemon costs an application, next to what the same
// frames cost on a bare framed Unix socket, all measured in one run.
//
// The daemon is the real vemo_cloudd, a process of its own (its CPU is reported apart); the
// floor's echo side is a child process too. The library logs every message on standard output:
// run with standard output sent to /dev/null. The report goes to standard error (and to
// --report FILE). docs/performance.md has the numbers of a run and how to read them.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "breakdown.h"
#include "daemon_process.h"
#include "floor.h"
#include "measure.h"
#include "texts.h"
#include "vemo/vemo.h"

namespace {

using namespace bench;

const int kThreadCounts[] = {1, 4, 16, 64};
constexpr int kMaxThreads = 64;
constexpr int kWaitMs = 60000;  // for the responses of one phase

struct Options {
  int requests = 20000;  // per throughput phase
  int samples = 5000;    // per latency measurement
  int size = 100;        // bytes of request text
  std::string report;
  // Runs one throughput phase alone, for a profiler (perf, strace -c) to look at.
  std::string only;
  int threads = 1;
};

bool parse_options(int argc, char **argv, Options *o) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (value != nullptr && arg == "--requests") {
      o->requests = atoi(value);
    } else if (value != nullptr && arg == "--samples") {
      o->samples = atoi(value);
    } else if (value != nullptr && arg == "--size") {
      o->size = atoi(value);
    } else if (value != nullptr && arg == "--report") {
      o->report = value;
    } else if (value != nullptr && arg == "--only") {
      o->only = value;
      if (o->only != "floor" && o->only != "async" && o->only != "sync") return false;
    } else if (value != nullptr && arg == "--threads") {
      o->threads = atoi(value);
      if (o->threads < 1 || o->threads > kMaxThreads) return false;
    } else {
      return false;
    }
    ++i;
  }
  return o->requests >= kMaxThreads && o->samples > 0 && o->size > 0;
}

// Asynchronous requests complete in their response callback, which collects the response as a
// well-behaved application does (an uncollected response stays in the client's list for the
// request's timeout) and counts it.
std::mutex g_mu;
std::condition_variable g_cv;
long g_done = 0;
std::atomic<long> g_errors{0};

void collect_cb(int id, const char *) {
  char *got = nullptr;
  if (vemo_get_response(id, &got) != 0) g_errors.fetch_add(1);
  free(got);
  std::lock_guard<std::mutex> hold(g_mu);
  ++g_done;
  g_cv.notify_all();
}

long done_now() {
  std::lock_guard<std::mutex> hold(g_mu);
  return g_done;
}

bool wait_done(long target) {
  std::unique_lock<std::mutex> hold(g_mu);
  return g_cv.wait_for(hold, std::chrono::milliseconds(kWaitMs), [target] { return g_done >= target; });
}

struct Texts {
  std::string request, frame, ack, response;
};

// --- round trip, one thread, each sample alone on the wire ---

Summary latency_floor(int fd, const Texts &t, int replies, int samples) {
  std::vector<double> us;
  for (int i = 0; i < samples; ++i) {
    double t0 = now_seconds();
    if (floor_exchange(fd, t.frame, replies) != 0) g_errors.fetch_add(1);
    us.push_back((now_seconds() - t0) * 1e6);
  }
  return summarize(&us);
}

Summary latency_async(const Texts &t, int samples) {
  std::vector<double> us;
  for (int i = 0; i < samples; ++i) {
    long target = done_now() + 1;
    double t0 = now_seconds();
    int id = vemo_send_request_async(t.request.c_str(), kRequestTimeoutMs, 0, collect_cb);
    us.push_back((now_seconds() - t0) * 1e6);
    // The response is let in before the next sample, so no sample shares the client with it.
    if (id < 0 || !wait_done(target)) g_errors.fetch_add(1);
  }
  return summarize(&us);
}

Summary latency_sync(const Texts &t, int samples) {
  std::vector<double> us;
  for (int i = 0; i < samples; ++i) {
    char *response = nullptr;
    double t0 = now_seconds();
    if (vemo_send_request_sync(t.request.c_str(), kRequestTimeoutMs, 0, &response) != 0)
      g_errors.fetch_add(1);
    us.push_back((now_seconds() - t0) * 1e6);
    free(response);
  }
  return summarize(&us);
}

// --- throughput: `total` requests spread over `threads` threads ---

Interval run_floor(const EchoChild &echo, const Texts &t, int threads, int total) {
  Stopwatch watch;
  run_threads(threads, total, [&](int thread, int count) {
    for (int i = 0; i < count; ++i)
      if (floor_exchange(echo.two_replies_fd(thread), t.frame, 2) != 0) g_errors.fetch_add(1);
  });
  return watch.stop();
}

// Until the last response has been collected: the requests' whole work is in the interval.
Interval run_async(const Texts &t, int threads, int total, pid_t daemon, vemo_response_cb cb) {
  std::atomic<long> failed{0};
  long base = done_now();
  Stopwatch watch(daemon);
  run_threads(threads, total, [&](int, int count) {
    for (int i = 0; i < count; ++i)
      if (vemo_send_request_async(t.request.c_str(), kRequestTimeoutMs, 0, cb) < 0)
        failed.fetch_add(1);
  });
  if (cb != nullptr && !wait_done(base + total - failed.load())) g_errors.fetch_add(1);
  g_errors.fetch_add(failed.load());
  return watch.stop();
}

Interval run_sync(const Texts &t, int threads, int total, pid_t daemon) {
  Stopwatch watch(daemon);
  run_threads(threads, total, [&](int, int count) {
    for (int i = 0; i < count; ++i) {
      char *response = nullptr;
      if (vemo_send_request_sync(t.request.c_str(), kRequestTimeoutMs, 0, &response) != 0)
        g_errors.fetch_add(1);
      free(response);
    }
  });
  return watch.stop();
}

// --- the report ---

std::string machine_line() {
  std::string cpu = "unknown CPU";
  FILE *f = fopen("/proc/cpuinfo", "r");
  if (f != nullptr) {
    char line[256];
    while (fgets(line, sizeof line, f) != nullptr) {
      if (strncmp(line, "model name", 10) == 0) {
        const char *colon = strchr(line, ':');
        if (colon != nullptr) cpu = std::string(colon + 2, strcspn(colon + 2, "\n"));
        break;
      }
    }
    fclose(f);
  }
  struct utsname u;
  std::string kernel = uname(&u) == 0 ? std::string(u.sysname) + " " + u.release : "";
  return format("%s, %ld cores, %s, compiler %s", cpu.c_str(), sysconf(_SC_NPROCESSORS_ONLN),
                kernel.c_str(), __VERSION__);
}

double per_10k(double seconds, int requests) { return seconds / requests * 10000.0; }

}  // namespace

int main(int argc, char **argv) {
  Options opt;
  if (!parse_options(argc, argv, &opt)) {
    fprintf(stderr,
            "usage: client_bench [--requests N>=64] [--samples N] [--size BYTES] [--report FILE]"
            " >/dev/null\n"
            "       client_bench --only floor|async|sync [--threads N] [--requests N] >/dev/null\n");
    return 2;
  }
  if (isatty(STDOUT_FILENO))
    fprintf(stderr, "client_bench: standard output is a terminal; the library logs every "
                    "message there. Run with >/dev/null for the numbers of docs/performance.md.\n");

  Texts t;
  t.request = request_text(opt.size);
  t.frame = device_request_frame(t.request, 17);
  t.ack = ack_frame(17, 1017);
  t.response = response_frame(1017, t.request);

  // Forked before this process starts any thread.
  EchoChild echo;
  if (!echo.start(kMaxThreads, t.ack, t.response)) {
    fprintf(stderr, "client_bench: cannot start the echo process\n");
    return 1;
  }
  DaemonProcess daemon;
  std::string error;
  if (!daemon.start(VEMO_CLOUDD_PATH, &error)) {
    fprintf(stderr, "client_bench: %s\n", error.c_str());
    return 1;
  }
  // Connect and warm up.
  Summary warm = latency_sync(t, 500);
  (void)warm;
  long warm_errors = g_errors.exchange(0);
  if (warm_errors != 0) {
    fprintf(stderr, "client_bench: %ld of the warm-up requests failed; is the daemon up?\n",
            warm_errors);
    return 1;
  }

  if (!opt.only.empty()) {
    Interval i = opt.only == "floor"   ? run_floor(echo, t, opt.threads, opt.requests)
                 : opt.only == "async" ? run_async(t, opt.threads, opt.requests, daemon.pid(),
                                                   collect_cb)
                                       : run_sync(t, opt.threads, opt.requests, daemon.pid());
    fprintf(stderr, "%s, %d thread(s): %.0f req/s, %.3f CPU s/10k, %.1f context switches per "
            "request, failed %ld\n",
            opt.only.c_str(), opt.threads, opt.requests / i.wall, per_10k(i.cpu, opt.requests),
            static_cast<double>(i.switches) / opt.requests, g_errors.load());
    return g_errors.load() == 0 ? 0 : 1;
  }

  std::string out;
  out += "## client_bench\n\n";
  out += "Machine: " + machine_line() + "\n";
  const double load_before = load_average();
  out += format("Request text %d bytes; frames: request %zu, acknowledgement %zu, response %zu "
                "bytes. Daemon: vemo_cloudd --quiet --delay 0 (own process).\n\n",
                opt.size, t.frame.size(), t.ack.size(), t.response.size());

  fprintf(stderr, "client_bench: round trips...\n");
  Summary floor1 = latency_floor(echo.one_reply_fd(0), t, 1, opt.samples);
  Summary async1 = latency_async(t, opt.samples);
  Summary floor2 = latency_floor(echo.two_replies_fd(0), t, 2, opt.samples);
  Summary sync1 = latency_sync(t, opt.samples);
  out += format("### Round trip, one thread (%d samples each, microseconds)\n\n", opt.samples);
  out += "| exchange | p50 | p99 | mean |\n|---|---:|---:|---:|\n";
  auto row = [&out](const char *name, const Summary &s) {
    out += format("| %s | %.1f | %.1f | %.1f |\n", name, s.p50, s.p99, s.mean);
  };
  row("floor: frame out, acknowledgement frame back", floor1);
  row("vemo_send_request_async (until the acknowledgement)", async1);
  row("floor: frame out, acknowledgement and response frames back", floor2);
  row("vemo_send_request_sync (until the response)", sync1);

  out += format("\n### Throughput and CPU (%d requests per row)\n\n", opt.requests);
  out += "CPU is user+sys of this process (getrusage) per 10,000 requests; the daemon's CPU "
         "(/proc) is its own column. Async rows end when the last response has been collected "
         "in its callback.\n\n";
  out += "| threads | floor req/s | async req/s | sync req/s | floor CPU s/10k | async CPU s/10k | "
         "sync CPU s/10k | daemon CPU s/10k (async) |\n"
         "|---:|---:|---:|---:|---:|---:|---:|---:|\n";
  Interval one_thread[3];
  for (int threads : kThreadCounts) {
    fprintf(stderr, "client_bench: %d thread(s)...\n", threads);
    Interval f = run_floor(echo, t, threads, opt.requests);
    Interval a = run_async(t, threads, opt.requests, daemon.pid(), collect_cb);
    Interval s = run_sync(t, threads, opt.requests, daemon.pid());
    if (threads == 1) {
      one_thread[0] = f;
      one_thread[1] = a;
      one_thread[2] = s;
    }
    out += format("| %d | %.0f | %.0f | %.0f | %.3f | %.3f | %.3f | %.3f |\n", threads,
                  opt.requests / f.wall, opt.requests / a.wall, opt.requests / s.wall,
                  per_10k(f.cpu, opt.requests), per_10k(a.cpu, opt.requests),
                  per_10k(s.cpu, opt.requests), per_10k(a.daemon_cpu, opt.requests));
  }

  fprintf(stderr, "client_bench: where the time goes...\n");
  const int units = 2000;
  LogCount async_lines = count_log_lines(units, [&] {
    long target = done_now() + units;
    for (int i = 0; i < units; ++i)
      vemo_send_request_async(t.request.c_str(), kRequestTimeoutMs, 0, collect_cb);
    wait_done(target);
  });
  LogCount floor_lines = count_log_lines(units, [&] {
    for (int i = 0; i < units; ++i) floor_exchange(echo.two_replies_fd(0), t.frame, 2);
  });
  PieceCosts pieces = measure_pieces(t.request, t.frame, t.ack, t.response);
  out += "\n### Where the client's time goes (one thread)\n\n";
  out += "| piece | cost |\n|---|---:|\n";
  out += format("| log lines per async request (floor: per exchange) | %.1f (%.1f), %.0f bytes |\n",
                async_lines.lines, floor_lines.lines, async_lines.bytes);
  out += format("| one log line, fully buffered stream (/dev/null, a file, a pipe) | %.2f us CPU |\n",
                pieces.log_line_buffered_us);
  out += format("| one log line, line-buffered stream (a terminal) | %.2f us CPU |\n",
                pieces.log_line_unbuffered_us);
  out += format("| one dispatch thread (task pool: start, run nothing, end) | %.2f us CPU, "
                "%.2f us wall |\n",
                pieces.thread_task_us, pieces.thread_task_wall_us);
  out += format("| JSON: build + print the request, parse the ack and the response | %.2f us CPU |\n",
                pieces.json_us);
  out += format("| hand a message on: new thread per message, p50 / p99 | %.1f / %.1f us |\n",
                pieces.thread_start_p50_us, pieces.thread_start_p99_us);
  out += format("| hand a message on: wake a waiting thread, p50 / p99 | %.1f / %.1f us |\n",
                pieces.wake_p50_us, pieces.wake_p99_us);
  auto switches = [&opt](const Interval &i) {
    return static_cast<double>(i.switches) / opt.requests;
  };
  out += format("| context switches per request: floor, async, sync (one-thread rows) | %.1f, %.1f, "
                "%.1f |\n",
                switches(one_thread[0]), switches(one_thread[1]), switches(one_thread[2]));

  // Last: uncollected responses stay in the list for the request's timeout, so the list grows
  // with the request rate; its look-ups are linear.
  fprintf(stderr, "client_bench: responses left uncollected...\n");
  Interval u = run_async(t, 1, opt.requests, daemon.pid(), nullptr);
  out += format("\n### Responses never collected (one thread, no callback, kept %d ms)\n\n"
                "%.0f req/s, %.3f CPU s/10k, until the last acknowledgement (compare the "
                "one-thread async row above)\n",
                kRequestTimeoutMs, opt.requests / u.wall, per_10k(u.cpu, opt.requests));

  long errors = g_errors.load();
  out += format("\nFailed calls: %ld. Load average (1 min) at the start %.2f, at the end %.2f.\n",
                errors, load_before, load_average());
  fputs(out.c_str(), stderr);
  if (!opt.report.empty()) {
    FILE *f = fopen(opt.report.c_str(), "w");
    if (f != nullptr) {
      fputs(out.c_str(), f);
      fclose(f);
    }
  }
  daemon.stop();
  echo.stop();
  return errors == 0 ? 0 : 1;
}
