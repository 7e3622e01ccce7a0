// Small waiting helpers shared by the unit tests.
#ifndef VEMO_TESTS_SUPPORT_WAITS_H
#define VEMO_TESTS_SUPPORT_WAITS_H

#include <unistd.h>

#include <condition_variable>
#include <mutex>

namespace vemo_test {

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
  bool is_open() {
    std::lock_guard<std::mutex> lock(mu_);
    return open_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool open_ = false;
};

// For states that nothing signals (a thread asleep inside the library): looks again every
// millisecond, for at most ten seconds.
template <typename Pred>
bool eventually(Pred pred) {
  for (int i = 0; i < 10000; ++i) {
    if (pred()) return true;
    usleep(1000);
  }
  return pred();
}

}  // namespace vemo_test

#endif
