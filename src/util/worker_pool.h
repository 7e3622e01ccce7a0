// The threads on which the application's handlers run: reused while work keeps coming, started
// on demand up to a cap, ended after a short idle time. Work beyond the cap waits in a queue
// bounded by memory.
//
// Why a pool and not a thread per message: a thread costs a stack mapping, a clone and its
// teardown (tens of microseconds on the device, more than a whole exchange), and a burst of
// messages with slow handlers would otherwise make thousands of threads, which a 32-bit process
// cannot map. The pool's threads and queue are bounded; in steady state nothing is created per
// message.
#ifndef VEMO_UTIL_WORKER_POOL_H
#define VEMO_UTIL_WORKER_POOL_H

#include <stddef.h>
#include <stdint.h>

#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo/vemo.h"

namespace vemo {

// At most this many handler threads at once. 16 lets sixteen slow handlers (each, say, waiting
// on a synchronous request of its own) run side by side, which is far beyond what a 1-2 core
// device gains from parallel handlers, while 16 stacks cost 4 MiB of address space, a small
// share of a 32-bit process.
constexpr int kWorkerMaxThreads = 16;
// The stack of every handler thread (also documented in <vemo/vemo.h> as VEMO_HANDLER_STACK_BYTES):
// ample for ordinary handlers (formatting, JSON, calls into the library), where the platform's
// default of 8 MiB would cap a 32-bit process at a few hundred threads.
constexpr size_t kWorkerStackBytes = VEMO_HANDLER_STACK_BYTES;
// An idle thread ends after this long without work, so an idle client keeps no handler thread.
constexpr int kWorkerIdleMs = 2000;
// The queue holds at most this many bytes of work (texts included): 8 MiB holds a burst of ten
// thousand messages of several hundred bytes each, so the receiving task keeps reading through
// any realistic burst, and bounds what a flood can cost.
constexpr size_t kWorkerQueueMaxBytes = 8 * 1024 * 1024;

// One piece of work. The submitter allocates it (usually with its payload in the same block);
// run() is called once on a pool thread and owns the item from then on (it frees it).
struct Work {
  void (*run)(Work *work);
  Work *next;    // queue link, the pool's while the item is queued
  size_t bytes;  // what the item costs, counted against kWorkerQueueMaxBytes
};

class WorkerPool {
 public:
  WorkerPool() = default;
  WorkerPool(const WorkerPool &) = delete;
  WorkerPool &operator=(const WorkerPool &) = delete;

  // Queues work; a waiting thread takes it, or a new one is started when none waits and fewer
  // than the cap run. 0, or VEMO_ERR_NO_RESOURCE when the queue is at its bound (the item stays
  // the caller's). When no thread can be started, the item stays queued and the start is tried
  // again at the next submit or retry(); failed_start reports that (for the caller's log line).
  int submit(Work *work, bool *failed_start);
  // Starts a thread again when work waits and none runs (after a failed start). True when a
  // start failed once more.
  bool retry();

  // Waits until no work is queued or running, at most timeout_ms; work run by the calling
  // thread itself is not waited for. True when idle.
  bool wait_idle(int32_t timeout_ms);

  // Whether the calling thread is one of the pool's.
  static bool on_pool_thread();

  // For tests and benchmarks: threads alive now, threads started since the pool was made.
  int threads();
  uint64_t threads_started();

 private:
  static void *thread_main(void *pool);
  void serve();
  // Starts one thread if work waits and none is free; the mutex must not be held.
  bool start_if_needed();

  Mutex mu_;
  CondVar work_ready_;  // threads wait here for work
  CondVar idle_;        // wait_idle waits here
  Work *head_ GUARDED_BY(mu_) = nullptr;
  Work *tail_ GUARDED_BY(mu_) = nullptr;
  size_t queued_bytes_ GUARDED_BY(mu_) = 0;
  size_t queued_ GUARDED_BY(mu_) = 0;
  int threads_ GUARDED_BY(mu_) = 0;   // alive, or being started
  int waiting_ GUARDED_BY(mu_) = 0;   // alive and waiting for work
  int running_ GUARDED_BY(mu_) = 0;   // running an item
  uint64_t started_ GUARDED_BY(mu_) = 0;
};

// The pool of the client's handlers: one per process, made on first use, never destroyed (its
// threads may still run while the process exits).
WorkerPool &handler_pool();

}  // namespace vemo

#endif
