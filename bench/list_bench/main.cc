// list_bench: what one request costs the response list (its id added at the acknowledgement,
// its response stored, then collected) when the list is empty, the floor, and when 20,000
// responses that nobody collects sit beside it, as an application that takes its responses
// only in callbacks leaves them. Also the cost of the timeout task's sweep when nothing is due.
// Time is the thread's CPU time, so that other load on the machine, which takes the CPU away
// from this thread, is not counted; rounds alternate between the two lists and the medians are
// reported. Usage: list_bench [rounds per sample] [uncollected]
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "client/response_internal.h"
#include "util/log_internal.h"
#include "vemo/response.h"

namespace {

constexpr int kSamples = 9;

double now_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// A list holding `uncollected` arrived responses with a long timeout.
response_list_t *make_list(int uncollected) {
  response_list_t *list = response_list_init();
  for (int i = 0; i < uncollected; ++i) {
    response_data_add(list, 1000000 + i, 600000, nullptr);
    response_data_set_response(list, 1000000 + i, "{\"uncollected\":true}");
  }
  return list;
}

// Nanoseconds per add + set + get of a fresh request id.
double request_ns(response_list_t *list, int rounds, int *next_id) {
  double start = now_ns();
  for (int r = 0; r < rounds; ++r) {
    int id = (*next_id)++;
    char *text = nullptr;
    if (response_data_add(list, id, 5000, nullptr) != 0 ||
        response_data_set_response(list, id, "{\"result\":\"ok\"}") != 0 ||
        response_data_get_response(list, id, &text) != 0) {
      fprintf(stderr, "list_bench: a request failed\n");
      exit(1);
    }
    free(text);
  }
  return (now_ns() - start) / rounds;
}

// Nanoseconds per sweep of the timeout task when no entry is due.
double sweep_ns(response_list_t *list, int rounds) {
  double start = now_ns();
  for (int r = 0; r < rounds; ++r) vemo::response_data_expire(list, vemo::kPendingGraceMs);
  return (now_ns() - start) / rounds;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 100000;
  int uncollected = argc > 2 ? atoi(argv[2]) : 20000;
  if (rounds < 1 || uncollected < 0) {
    fprintf(stderr, "usage: list_bench [rounds per sample] [uncollected]\n");
    return 2;
  }
  FILE *null_stream = fopen("/dev/null", "w");
  vemo::log_set_stream(null_stream);  // the teardown logs one line per uncollected entry
  response_list_t *empty = make_list(0);
  response_list_t *loaded = make_list(uncollected);
  int next_id = 1;
  std::vector<double> floor_req, loaded_req, floor_sweep, loaded_sweep;
  for (int s = 0; s < kSamples; ++s) {
    floor_req.push_back(request_ns(empty, rounds, &next_id));
    loaded_req.push_back(request_ns(loaded, rounds, &next_id));
    floor_sweep.push_back(sweep_ns(empty, rounds / 10 + 1));
    loaded_sweep.push_back(sweep_ns(loaded, rounds / 10 + 1));
  }
  response_list_destroy(empty);
  response_list_destroy(loaded);
  vemo::log_set_stream(nullptr);
  fclose(null_stream);
  double fr = median(floor_req), lr = median(loaded_req);
  double fs = median(floor_sweep), ls = median(loaded_sweep);
  printf("response list, medians of %d samples of %d rounds\n", kSamples, rounds);
  printf("add+set+get   empty list %8.1f ns   with %d uncollected %8.1f ns   ratio %.2f\n", fr,
         uncollected, lr, lr / fr);
  printf("idle sweep    empty list %8.1f ns   with %d uncollected %8.1f ns   ratio %.2f\n", fs,
         uncollected, ls, ls / fs);
  return 0;
}
