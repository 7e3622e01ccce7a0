// Clocks, CPU time and small statistics for the benchmark.
#ifndef VEMO_BENCH_MEASURE_H
#define VEMO_BENCH_MEASURE_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Seconds on the monotonic clock.
double now_seconds();
// User + system CPU seconds of this process (getrusage RUSAGE_SELF), every thread included.
double process_cpu_seconds();
// Context switches of this process so far, voluntary and forced (getrusage).
long process_context_switches();
// The 1-minute load average of the machine, for the report: other work skews every number.
double load_average();
// User + system CPU seconds of another process so far (/proc/PID/stat, clock-tick resolution);
// negative when it cannot be read.
double other_process_cpu_seconds(pid_t pid);

struct Summary {
  double p50 = 0, p99 = 0, mean = 0;
};
// Of microsecond samples; sorts them.
Summary summarize(std::vector<double> *samples_us);

// One measured stretch: wall time and this process's CPU over it, and the daemon's when given.
struct Interval {
  double wall = 0;
  double cpu = 0;
  double daemon_cpu = -1;
  long switches = 0;  // context switches of this process
};
class Stopwatch {
 public:
  explicit Stopwatch(pid_t daemon = 0);
  Interval stop() const;

 private:
  pid_t daemon_;
  double wall0_, cpu0_, daemon0_;
  long switches0_;
};

// Runs body(thread, count) on `threads` threads, splitting `total` among them, and returns
// once all have returned.
void run_threads(int threads, int total, const std::function<void(int, int)> &body);

// printf into a std::string.
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace bench

#endif
