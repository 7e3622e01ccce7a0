// Where a request's client-side time goes: the cost of the pieces the client adds to the raw
// frames, each measured on its own, and how many log lines a request writes.
#ifndef VEMO_BENCH_BREAKDOWN_H
#define VEMO_BENCH_BREAKDOWN_H

#include <functional>
#include <string>

namespace bench {

struct PieceCosts {
  double log_line_buffered_us = 0;  // CPU of one log line into a fully buffered stream
  double log_line_unbuffered_us = 0;  // ... into a line-buffered one (a terminal): a write each
  double thread_task_us = 0;        // CPU of one task-pool task (a thread started and ended)
  double thread_task_wall_us = 0;   // wall time per task when started back to back
  double json_us = 0;               // build + print a request, parse its ack and its response
  // From handing a message on to its handler running: a new thread per message, as the
  // client dispatches, against waking one thread that already waits (microseconds).
  double thread_start_p50_us = 0, thread_start_p99_us = 0;
  double wake_p50_us = 0, wake_p99_us = 0;
};

// Measures the pieces for one request text, its frame and the daemon's two answers.
PieceCosts measure_pieces(const std::string &request, const std::string &frame,
                          const std::string &ack, const std::string &response);

struct LogCount {
  double lines = 0;  // per call of body's unit
  double bytes = 0;
};
// Counts the library's log lines while body runs `units` units of work (the log goes to a
// counting stream meanwhile, then back to standard output).
LogCount count_log_lines(int units, const std::function<void()> &body);

}  // namespace bench

#endif
