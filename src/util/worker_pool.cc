#include "util/worker_pool.h"

#include <pthread.h>

#include <new>

#include "util/clock.h"
#include "util/task_pool_seam.h"
#include "vemo/codes.h"
#include "vemo/util.h"

namespace vemo {
namespace {

thread_local bool t_pool_thread = false;

pthread_once_t g_pool_once = PTHREAD_ONCE_INIT;
alignas(WorkerPool) unsigned char g_pool_storage[sizeof(WorkerPool)];

// pthread_once rather than a function-local static: no C++ runtime guard, and the object is
// never destroyed, so threads still running during exit never touch a dead pool.
void make_pool() { new (g_pool_storage) WorkerPool(); }

}  // namespace

WorkerPool &handler_pool() {
  pthread_once(&g_pool_once, make_pool);
  return *reinterpret_cast<WorkerPool *>(g_pool_storage);
}

bool WorkerPool::on_pool_thread() { return t_pool_thread; }

int WorkerPool::submit(Work *work, bool *failed_start) {
  *failed_start = false;
  {
    MutexLock hold(mu_);
    if (queued_bytes_ + work->bytes > kWorkerQueueMaxBytes) return VEMO_ERR_NO_RESOURCE;
    work->next = nullptr;
    if (tail_ != nullptr) {
      tail_->next = work;
    } else {
      head_ = work;
    }
    tail_ = work;
    queued_bytes_ += work->bytes;
    queued_ += 1;
    // A waiting thread takes it; only when none waits (or all the waiting ones are already
    // spoken for by queued work) does a new thread start.
    if (static_cast<size_t>(waiting_) >= queued_) {
      work_ready_.signal();
      return VEMO_OK;
    }
  }
  *failed_start = start_if_needed();
  return VEMO_OK;
}

bool WorkerPool::retry() { return start_if_needed(); }

bool WorkerPool::start_if_needed() {
  {
    MutexLock hold(mu_);
    if (queued_ == 0 || static_cast<size_t>(waiting_) >= queued_ || threads_ >= kWorkerMaxThreads) {
      return false;
    }
    threads_ += 1;  // counted before the start, so two submitters never overshoot the cap
    started_ += 1;
  }
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, kWorkerStackBytes);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  int rc = start_task_thread(&thread, &attr, thread_main, this);
  pthread_attr_destroy(&attr);
  if (rc == 0) return false;
  MutexLock hold(mu_);
  threads_ -= 1;
  started_ -= 1;
  if (threads_ == 0 && running_ == 0) idle_.broadcast();
  return true;
}

void *WorkerPool::thread_main(void *pool) {
  t_pool_thread = true;
  static_cast<WorkerPool *>(pool)->serve();
  return nullptr;
}

void WorkerPool::serve() {
  MutexLock hold(mu_);
  for (;;) {
    if (head_ != nullptr) {
      Work *work = head_;
      head_ = work->next;
      if (head_ == nullptr) tail_ = nullptr;
      queued_bytes_ -= work->bytes;
      queued_ -= 1;
      running_ += 1;
      mu_.unlock();
      work->run(work);  // application code: never under the mutex
      mu_.lock();
      running_ -= 1;
      // wait_idle may be waiting for all but its own item: tell it whenever the queue is empty.
      if (head_ == nullptr) idle_.broadcast();
      continue;
    }
    waiting_ += 1;
    uint32_t since = get_tick_count();
    // Wakes for new work; ends the thread once it has waited kWorkerIdleMs in all without any.
    while (head_ == nullptr && tick_elapsed(get_tick_count(), since) < kWorkerIdleMs) {
      work_ready_.wait_for_ms(mu_, kWorkerIdleMs - tick_elapsed(get_tick_count(), since));
    }
    waiting_ -= 1;
    if (head_ == nullptr) break;
  }
  threads_ -= 1;
  if (threads_ == 0 && running_ == 0) idle_.broadcast();
}

bool WorkerPool::wait_idle(int32_t timeout_ms) {
  const int own = t_pool_thread ? 1 : 0;
  Deadline deadline = Deadline::after_ms(timeout_ms, get_tick_count());
  MutexLock hold(mu_);
  for (;;) {
    if (head_ == nullptr && running_ <= own) return true;
    int32_t left = deadline.remaining_ms(get_tick_count());
    if (left <= 0) return false;
    // Queued work without a thread (every start failed) never drains by itself.
    if (threads_ == 0) return false;
    idle_.wait_for_ms(mu_, left);
  }
}

int WorkerPool::threads() {
  MutexLock hold(mu_);
  return threads_;
}

uint64_t WorkerPool::threads_started() {
  MutexLock hold(mu_);
  return started_;
}

}  // namespace vemo
