// Waiting for the end of the threads that ran handlers. Each case runs in a process of its own,
// so each starts with a fresh tracker.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "dispatch_tracker.h"

namespace vemo_cli {
namespace {

// Counts threads that arrived; the test waits until all have.
class Arrivals {
 public:
  void arrive() {
    std::lock_guard<std::mutex> hold(mu_);
    ++count_;
    cv_.notify_all();
  }
  bool wait_for(int count) {
    std::unique_lock<std::mutex> hold(mu_);
    return cv_.wait_for(hold, std::chrono::seconds(10), [&] { return count_ >= count; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int count_ = 0;
};

TEST(DispatchTracker, IdleWhenNothingEntered) {
  ASSERT_TRUE(dispatch_tracker_init());
  EXPECT_TRUE(dispatch_tracker_wait_idle(0));
}

TEST(DispatchTracker, WaitsForEveryThreadThatEnteredToEnd) {
  ASSERT_TRUE(dispatch_tracker_init());
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  Arrivals entered;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&entered, released] {
      dispatch_tracker_enter();
      dispatch_tracker_enter();  // a second call on the same thread counts too
      entered.arrive();
      released.wait();
    });
  }
  ASSERT_TRUE(entered.wait_for(4));
  // The threads are done with their handlers but have not ended: not idle.
  EXPECT_FALSE(dispatch_tracker_wait_idle(50));
  release.set_value();
  EXPECT_TRUE(dispatch_tracker_wait_idle(10000));
  for (std::thread &t : threads) t.join();
}

TEST(DispatchTracker, ThreadsThatNeverEnteredAreNotWaitedFor) {
  ASSERT_TRUE(dispatch_tracker_init());
  std::promise<void> release;
  std::thread bystander([released = release.get_future()]() mutable { released.wait(); });
  EXPECT_TRUE(dispatch_tracker_wait_idle(0));
  release.set_value();
  bystander.join();
}

}  // namespace
}  // namespace vemo_cli
