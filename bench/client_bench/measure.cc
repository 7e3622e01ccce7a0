#include "measure.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace bench {

double now_seconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double process_cpu_seconds() {
  struct rusage ru;
  if (getrusage(RUSAGE_SELF, &ru) != 0) return 0;
  auto seconds = [](const struct timeval &tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return seconds(ru.ru_utime) + seconds(ru.ru_stime);
}

long process_context_switches() {
  struct rusage ru;
  if (getrusage(RUSAGE_SELF, &ru) != 0) return 0;
  return ru.ru_nvcsw + ru.ru_nivcsw;
}

double load_average() {
  double load = -1;
  FILE *f = fopen("/proc/loadavg", "r");
  if (f == nullptr) return load;
  if (fscanf(f, "%lf", &load) != 1) load = -1;
  fclose(f);
  return load;
}

double other_process_cpu_seconds(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  FILE *f = fopen(path, "r");
  if (f == nullptr) return -1;
  char buffer[1024];
  size_t n = fread(buffer, 1, sizeof buffer - 1, f);
  fclose(f);
  buffer[n] = '\0';
  // The command name stands in parentheses and may hold spaces: count fields after the last ')'.
  const char *p = strrchr(buffer, ')');
  if (p == nullptr) return -1;
  unsigned long utime = 0, stime = 0;
  // Fields 3..13 skipped, then utime (14) and stime (15).
  if (sscanf(p + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) != 2)
    return -1;
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

Summary summarize(std::vector<double> *samples_us) {
  Summary s;
  if (samples_us->empty()) return s;
  std::sort(samples_us->begin(), samples_us->end());
  auto at = [samples_us](double q) {
    size_t i = static_cast<size_t>(q * static_cast<double>(samples_us->size() - 1) + 0.5);
    return (*samples_us)[i];
  };
  s.p50 = at(0.50);
  s.p99 = at(0.99);
  double sum = 0;
  for (double v : *samples_us) sum += v;
  s.mean = sum / static_cast<double>(samples_us->size());
  return s;
}

Stopwatch::Stopwatch(pid_t daemon)
    : daemon_(daemon),
      wall0_(now_seconds()),
      cpu0_(process_cpu_seconds()),
      daemon0_(daemon > 0 ? other_process_cpu_seconds(daemon) : -1),
      switches0_(process_context_switches()) {}

Interval Stopwatch::stop() const {
  Interval i;
  i.wall = now_seconds() - wall0_;
  i.cpu = process_cpu_seconds() - cpu0_;
  i.switches = process_context_switches() - switches0_;
  if (daemon_ > 0 && daemon0_ >= 0) {
    double d = other_process_cpu_seconds(daemon_);
    if (d >= 0) i.daemon_cpu = d - daemon0_;
  }
  return i;
}

void run_threads(int threads, int total, const std::function<void(int, int)> &body) {
  std::vector<std::thread> pool;
  pool.reserve(static_cast<size_t>(threads));
  for (int t = 0; t < threads; ++t) {
    int count = total / threads + (t < total % threads ? 1 : 0);
    pool.emplace_back(body, t, count);
  }
  for (auto &th : pool) th.join();
}

std::string format(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  int length = vsnprintf(nullptr, 0, fmt, args);
  va_end(args);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) vsnprintf(&text[0], text.size() + 1, fmt, again);
  va_end(again);
  return text;
}

}  // namespace bench
