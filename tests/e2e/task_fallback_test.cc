// When the client cannot start a thread: a message is then dispatched on the receiving task
// itself (a teardown included), and a start-up whose tasks cannot start leaves nothing behind.
// Thread starts fail on demand through the task pool's thread-start seam.
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

int flaky_starter(pthread_t *thread, void *(*entry)(void *), void *arg) {
  if (!take_one(g_pass_first) && take_one(g_fail_next)) return EAGAIN;
  return pthread_create(thread, nullptr, entry, arg);
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

TEST_F(TaskFallback, MessageIsDispatchedOnTheReceivingTaskWhenNoThreadStarts) {
  ASSERT_EQ(0, vemo_register_callback(answer_ok, nullptr));
  g_fail_next = 1;
  daemon_.set_next_cloud_request_id(5);
  daemon_.send_cloud_request("no thread for me");
  std::optional<Received> reply = daemon_.wait_for_reply(5, kWaitMs);
  ASSERT_TRUE(reply.has_value()) << "the message was dropped";
  EXPECT_EQ("ok", reply->response);
  EXPECT_EQ(1, CountLogged("", "WARN", kNoThread));
}

// The fallback's line names the receiving task, whose step it is.
TEST_F(TaskFallback, NoThreadLineIsLoggedUnderTaskReceive) {
  ASSERT_EQ(0, vemo_register_callback(answer_ok, nullptr));
  g_fail_next = 1;
  daemon_.send_cloud_request("no thread for me");
  ASSERT_TRUE(WaitLogged("", "WARN", kNoThread));
  EXPECT_EQ(Strings{kNoThread}, Messages("task_receive", "WARN"));
}

// A teardown ordered to a receiving task that cannot start a dispatch thread runs on that task.
// The task must end with the client it served, even when a new start-up follows at once.
TEST_F(TaskFallback, TeardownRunOnTheReceivingTaskEndsThatTask) {
  constexpr int kRounds = 20;
  for (int round = 1; round <= kRounds; ++round) {
    ASSERT_EQ(0, vemo_reconnect_cloud()) << "round " << round;
    ASSERT_EQ(round, daemon_.connections_seen());
    g_fail_next = 1;
    ASSERT_EQ(1, daemon_.send_server_notify(1, round));
    ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client...", round));
    EXPECT_EQ(round, CountLogged("", "WARN", kNoThread));
  }
  // Every receiving task of a torn-down client has ended; only the last client's runs.
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_TRUE(WaitLogged("task_receive", "DEBUG", "end the task to receive from the server...", kRounds));
  EXPECT_EQ(kRounds + 1, CountLogged("task_receive", "DEBUG", "begin the task to receive from the server..."));
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("still served", 3000, 0, &text));
  EXPECT_STREQ("still served", text);
  free(text);
}

TEST_F(TaskFallback, StartupFailsWhenTheTimeoutTaskCannotStart) {
  g_fail_next = 1;
  EXPECT_EQ(VEMO_ERR_NO_RESOURCE, vemo_reconnect_cloud());
  EXPECT_EQ(1, CountLogged("", "ERROR", kNoTask));
  EXPECT_EQ(Strings{"fail to get the file description of the client, error=-10000"},
            Messages("send_with_recv", "ERROR"));
  EXPECT_EQ(1, CountLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "the socket stays open";
  // Nothing is left behind: the next call starts afresh.
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

// Every step of the start-up logs under client_init.
TEST_F(TaskFallback, TaskStartFailureIsLoggedUnderClientInit) {
  g_fail_next = 1;
  EXPECT_EQ(VEMO_ERR_NO_RESOURCE, vemo_reconnect_cloud());
  EXPECT_EQ(Strings{kNoTask}, Messages("client_init", "ERROR"));
}

}  // namespace
}  // namespace vemo_e2e
