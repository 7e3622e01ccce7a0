#include "breakdown.h"

#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "client/messages.h"
#include "measure.h"
#include "util/log_internal.h"
#include "vemo/task_pool.h"
#include "vemo/util.h"

namespace bench {
namespace {

constexpr int kLogLines = 200000;
constexpr int kTasks = 20000;
constexpr int kJsonRounds = 50000;

std::atomic<long> g_lines{0};
std::atomic<long> g_bytes{0};

ssize_t count_write(void *, const char *buffer, size_t size) {
  long lines = 0;
  for (size_t i = 0; i < size; ++i) lines += buffer[i] == '\n';
  g_lines.fetch_add(lines);
  g_bytes.fetch_add(static_cast<long>(size));
  return static_cast<ssize_t>(size);
}

// A stream that counts and discards. Never closed: a library thread may still hold it after the
// log is pointed back at standard output.
FILE *counting_stream() {
  static FILE *stream = [] {
    cookie_io_functions_t io = {nullptr, count_write, nullptr, nullptr};
    return fopencookie(nullptr, "w", io);
  }();
  return stream;
}

// CPU microseconds per line of the transport's busiest message, a frame logged whole.
double log_line_cost(FILE *stream, const std::string &frame) {
  vemo::log_set_stream(stream);
  Stopwatch watch;
  for (int i = 0; i < kLogLines; ++i)
    vemo_log_print("INFO", "src/ipc/ipc_socket.cc", 249, "ipc_socket_send", "IPC send to %d: %s", 7,
                   frame.c_str());
  fflush(stream);
  Interval spent = watch.stop();
  vemo::log_set_stream(nullptr);
  return spent.cpu / kLogLines * 1e6;
}

void noop_task(void *) {}

constexpr int kHandOffs = 5000;

// One hand-off: the sender notes when it hands on, the receiving thread when it runs.
struct HandOff {
  std::mutex mu;
  std::condition_variable cv;
  double sent = 0;
  double ran = -1;
  bool go = false;
  bool quit = false;
};

void note_ran(void *arg) {
  HandOff *h = static_cast<HandOff *>(arg);
  double now = now_seconds();
  std::lock_guard<std::mutex> hold(h->mu);
  h->ran = now;
  h->cv.notify_all();
}

// Waits until the receiver has noted its start; the latency in microseconds.
double await_ran(HandOff *h) {
  std::unique_lock<std::mutex> hold(h->mu);
  h->cv.wait(hold, [h] { return h->ran >= 0; });
  double us = (h->ran - h->sent) * 1e6;
  h->ran = -1;
  return us;
}

void hand_off_latencies(PieceCosts *costs) {
  HandOff h;
  std::vector<double> started, woken;
  task_pool_t *pool = task_pool_init();
  if (pool == nullptr) return;
  for (int i = 0; i < kHandOffs; ++i) {
    h.sent = now_seconds();
    task_pool_add(pool, note_ran, nullptr, &h);
    started.push_back(await_ran(&h));
  }
  task_pool_destroy(pool);
  std::thread waiter([&h] {
    std::unique_lock<std::mutex> hold(h.mu);
    for (;;) {
      h.cv.wait(hold, [&h] { return h.go || h.quit; });
      if (h.quit) return;
      h.go = false;
      h.ran = now_seconds();
      h.cv.notify_all();
    }
  });
  for (int i = 0; i < kHandOffs; ++i) {
    {
      std::lock_guard<std::mutex> hold(h.mu);
      h.sent = now_seconds();
      h.go = true;
      h.cv.notify_all();
    }
    woken.push_back(await_ran(&h));
  }
  {
    std::lock_guard<std::mutex> hold(h.mu);
    h.quit = true;
    h.cv.notify_all();
  }
  waiter.join();
  Summary s = summarize(&started);
  costs->thread_start_p50_us = s.p50;
  costs->thread_start_p99_us = s.p99;
  Summary w = summarize(&woken);
  costs->wake_p50_us = w.p50;
  costs->wake_p99_us = w.p99;
}

}  // namespace

PieceCosts measure_pieces(const std::string &request, const std::string &frame,
                          const std::string &ack, const std::string &response) {
  PieceCosts costs;
  FILE *null_stream = fopen("/dev/null", "w");
  if (null_stream != nullptr) {
    setvbuf(null_stream, nullptr, _IOFBF, BUFSIZ);
    costs.log_line_buffered_us = log_line_cost(null_stream, frame);
    setvbuf(null_stream, nullptr, _IOLBF, BUFSIZ);
    costs.log_line_unbuffered_us = log_line_cost(null_stream, frame);
    // Not closed: see counting_stream.
  }

  // As the receiving task does for every message it hands on: start one detached thread.
  task_pool_t *pool = task_pool_init();
  if (pool != nullptr) {
    Stopwatch watch;
    for (int i = 0; i < kTasks; ++i) task_pool_add(pool, noop_task, nullptr, nullptr);
    task_pool_destroy(pool);  // waits for every task to end
    Interval spent = watch.stop();
    costs.thread_task_us = spent.cpu / kTasks * 1e6;
    costs.thread_task_wall_us = spent.wall / kTasks * 1e6;
  }

  // The JSON work of one request: its message built and printed, the acknowledgement and the
  // response parsed.
  Stopwatch watch;
  for (int i = 0; i < kJsonRounds; ++i) {
    vemo::MessageText message = vemo::device_request_text(request.c_str(), 5000, 0);
    message.close_with_id(7);
    vemo::JsonPtr a(cJSON_Parse(ack.c_str()));
    vemo::JsonPtr r(cJSON_Parse(response.c_str()));
  }
  costs.json_us = watch.stop().cpu / kJsonRounds * 1e6;
  hand_off_latencies(&costs);
  return costs;
}

LogCount count_log_lines(int units, const std::function<void()> &body) {
  FILE *stream = counting_stream();
  LogCount count;
  if (stream == nullptr || units <= 0) return count;
  vemo::log_set_stream(stream);
  fflush(stream);
  long lines0 = g_lines.load(), bytes0 = g_bytes.load();
  body();
  fflush(stream);
  vemo::log_set_stream(nullptr);
  count.lines = static_cast<double>(g_lines.load() - lines0) / units;
  count.bytes = static_cast<double>(g_bytes.load() - bytes0) / units;
  return count;
}

}  // namespace bench
