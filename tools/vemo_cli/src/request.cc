// `vemo-cli request`: one request to the cloud, synchronous or asynchronous.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include <memory>
#include <string>

#include <vemo/vemo.h>
#include <vemo/vemo_ext.h>

#include "clock.h"
#include "commands.h"
#include "format.h"
#include "output.h"

namespace vemo_cli {
namespace {

// Where the response callback tells the waiting main thread that the response is in. The
// callback runs on a library thread and may run before vemo_send_request_async has even
// returned the id; this process sends one request, so any call is for it. The object is never
// destroyed: a late duplicate response may call the callback while the process exits, until the
// library's own exit-time teardown has drained its threads.
class ArrivalSignal {
 public:
  ArrivalSignal() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    // Deadlines on the monotonic clock: a clock set back on the device must not stretch --wait.
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond_, &attr);
    pthread_condattr_destroy(&attr);
  }

  void notify(int id, int code) {
    pthread_mutex_lock(&mutex_);
    arrived_ = true;
    id_ = id;
    code_ = code;
    pthread_cond_broadcast(&cond_);
    pthread_mutex_unlock(&mutex_);
  }

  // True once the outcome arrived; false when wait_ms passed first. *id: the callback's id,
  // *code: 0, or the daemon's code when the cloud failed the request.
  bool wait(int wait_ms, int *id, int *code) {
    const struct timespec deadline = monotonic_deadline(wait_ms);
    pthread_mutex_lock(&mutex_);
    while (!arrived_) {
      if (pthread_cond_timedwait(&cond_, &mutex_, &deadline) == ETIMEDOUT) break;
    }
    bool arrived = arrived_;
    *id = id_;
    *code = code_;
    pthread_mutex_unlock(&mutex_);
    return arrived;
  }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond_;
  bool arrived_ = false;  // guarded by mutex_
  int id_ = -1;           // guarded by mutex_
  int code_ = 0;          // guarded by mutex_
};

ArrivalSignal &arrival() {
  static ArrivalSignal *signal = new ArrivalSignal;
  return *signal;
}

// Runs on a library handler thread. The variant that is told the outcome: a request that the
// cloud failed ends at once with the daemon's code instead of waiting out --wait.
void on_response(int id, int code, const char * /*response*/, void * /*user*/) {
  arrival().notify(id, code);
}

// Prints a response the library handed over (id: its request id, or -1 when the call gave none),
// and frees it.
int print_response(char *response, int id) {
  const std::unique_ptr<char, void (*)(void *)> text(response, free);
  std::string line = text.get();
  if (output_json()) {
    JsonLine json("response");
    if (id >= 0) json.add("id", id);
    line = json.add("response", text.get()).str();
  }
  if (!output_line(line)) {
    report("request: cannot write the response to standard output");
    return kExitToolFailure;
  }
  return kExitOk;
}

int run_sync(const Options &o) {
  char *text = nullptr;
  int rc = vemo_send_request_sync(o.text.c_str(), o.timeout_ms, o.flag, &text);
  if (rc != 0) return report_code("request", rc);
  return print_response(text, -1);
}

int run_async(const Options &o) {
  arrival();  // made before any library thread could need it
  const int id =
      vemo_send_request_async_ex(o.text.c_str(), o.timeout_ms, o.flag, on_response, nullptr);
  if (id < 0) return report_code("request", id);
  // The id first and at once: a script may act on it while the response is awaited.
  if (!output_line(output_json() ? JsonLine("accepted").add("id", id).str() : std::to_string(id))) {
    report("request: cannot write the request id to standard output");
    return kExitToolFailure;
  }
  int seen = -1;
  int code = 0;
  if (!arrival().wait(o.effective_wait_ms(), &seen, &code)) {
    report_failure("request: no response for request " + std::to_string(id) + " within " +
                   std::to_string(o.effective_wait_ms()) + " ms");
    return kExitTimeout;
  }
  if (seen != id) {
    report_failure("request: a response came for request " + std::to_string(seen) + ", not for " +
                   std::to_string(id));
    return kExitLibrary;
  }
  if (code != 0) return report_code("request", code);
  char *text = nullptr;
  int rc = vemo_get_response(id, &text);
  if (rc != 0) return report_code("collecting the response", rc);
  return print_response(text, id);
}

}  // namespace

int run_request(const Options &options) {
  return options.async ? run_async(options) : run_sync(options);
}

}  // namespace vemo_cli
