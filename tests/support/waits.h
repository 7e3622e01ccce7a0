// The one set of waiting helpers of every suite: a gate, a counter and eventually().
#ifndef VEMO_TESTS_SUPPORT_WAITS_H
#define VEMO_TESTS_SUPPORT_WAITS_H

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vemo_test {

// The bound of every wait for something that is due promptly. Only a hang reaches it.
constexpr int kWaitMs = 5000;

// A one-way gate: threads wait on it until the test opens it.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mu_);
    open_ = true;
    cv_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [this] { return open_; });
  }
  // False when the gate stays shut for timeout_ms.
  bool pass(int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return open_; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool open_ = false;
};

// A counter that threads bump and a test waits on.
class Counter {
 public:
  void notify() {
    std::lock_guard<std::mutex> lock(mu_);
    ++count_;
    cv_.notify_all();
  }
  bool wait_for(int count, int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return count_ >= count; });
  }
  int count() {
    std::lock_guard<std::mutex> lock(mu_);
    return count_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int count_ = 0;
};

// For states that nothing signals (a log line, a thread asleep inside the library): looks again
// every millisecond; false when pred still fails after timeout_ms.
template <typename Pred>
bool eventually(Pred pred, int timeout_ms = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    usleep(1000);
  }
  return true;
}

}  // namespace vemo_test

#endif
