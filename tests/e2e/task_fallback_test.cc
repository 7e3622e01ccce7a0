// When the client cannot start a thread: a message whose handler thread cannot start waits in
// the queue until a start succeeds (the receiving task never runs handlers itself), and a
// start-up whose tasks cannot start leaves nothing behind. Thread starts fail on demand through
// the thread-start seam.
#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <atomic>

#include "support/e2e_fixture.h"
#include "util/task_pool_seam.h"

namespace vemo_e2e {
namespace {

using Strings = std::vector<std::string>;

std::atomic<int> g_pass_first{0};  // thread starts that succeed before the failing ones
std::atomic<int> g_fail_next{0};   // thread starts that fail after those

bool take_one(std::atomic<int> &counter) {
  int n = counter.load();
  while (n > 0 && !counter.compare_exchange_weak(n, n - 1)) {
  }
  return n > 0;
}

int flaky_starter(pthread_t *thread, const pthread_attr_t *attr, void *(*entry)(void *), void *arg) {
  if (!take_one(g_pass_first) && take_one(g_fail_next)) return EAGAIN;
  return pthread_create(thread, attr, entry, arg);
}

class TaskFallback : public E2ETest {
 protected:
  void SetUp() override {
    E2ETest::SetUp();
    vemo::task_pool_set_thread_starter(flaky_starter);
  }
  void TearDown() override {
    vemo::task_pool_set_thread_starter(nullptr);
    E2ETest::TearDown();
  }
};

void answer_ok(const char *, char **response) { *response = strdup("ok"); }

const char kNoThread[] = "fail to create a task to dispatch the message, error=-10000";
const char kNoTask[] = "fail to start the task to receive the message, error=-10000";

// The failed start is logged under the receiving task, whose step it is, and tried again on its
// next quiet turn: the message is answered, not dropped and not run on the receiving task.
TEST_F(TaskFallback, MessageWaitsForAHandlerThreadThatCouldNotStart) {
  ASSERT_EQ(0, vemo_register_callback(answer_ok, nullptr));
  g_fail_next = 1;
  daemon_.set_next_cloud_request_id(5);
  daemon_.send_cloud_request("no thread for me");
  std::optional<Received> reply = daemon_.wait_for_reply(5, kWaitMs);
  ASSERT_TRUE(reply.has_value()) << "the message was dropped";
  EXPECT_EQ("ok", reply->response);
  EXPECT_EQ(Strings{kNoThread}, Messages("task_receive", "WARN"));
}

// Every step of the start-up logs under client_init; the failure leaves nothing behind.
TEST_F(TaskFallback, StartupFailsWhenTheTimeoutTaskCannotStart) {
  g_fail_next = 1;
  EXPECT_EQ(VEMO_ERR_NO_RESOURCE, vemo_reconnect_cloud());
  EXPECT_EQ(Strings{kNoTask}, Messages("client_init", "ERROR"));
  EXPECT_EQ(Strings{"fail to get the file description of the client, error=-10000"},
            Messages("send_with_recv", "ERROR"));
  EXPECT_EQ(1, CountLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the socket stays open";
  EXPECT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
}

TEST_F(TaskFallback, StartupFailsWhenTheReceivingTaskCannotStart) {
  g_pass_first = 1;  // the timeout task starts, the receiving task does not
  g_fail_next = 1;
  EXPECT_EQ(VEMO_ERR_NO_RESOURCE, vemo_reconnect_cloud());
  EXPECT_EQ(1, CountLogged("", "ERROR", kNoTask));
  // The timeout task that did start was waited out by the teardown of the failed start-up.
  EXPECT_EQ(1, CountLogged("task_timeout_check", "DEBUG", "end the task to check the time out..."));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs));
  EXPECT_EQ(0, vemo_reconnect_cloud());
  EXPECT_EQ(2, daemon_.connections_seen());
}

}  // namespace
}  // namespace vemo_e2e
