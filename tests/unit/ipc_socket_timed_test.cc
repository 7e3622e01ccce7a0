// The receive with a time limit: the wait itself, its failures, and descriptors above the
// fixed-size descriptor sets of select.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "vemo/ipc_socket.h"

namespace {

using vemo_test::frame_of;
using vemo_test::LogCapture;
using vemo_test::SocketPair;
using vemo_test::SysFaults;
using vemo_test::write_all;
using Messages = std::vector<std::string>;

char g_marker;
char *const kUntouched = &g_marker;

class IpcSocketTimed : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.ok()); }
  SocketPair pair_;
  LogCapture log_;
  SysFaults sys_;
};

TEST_F(IpcSocketTimed, ReadableDescriptorIsReceived) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("{\"t\":1}")));
  char *out = nullptr;
  ASSERT_EQ(ipc_socket_recv_timed(pair_.local(), 1500, &out), 0);
  EXPECT_STREQ(out, "{\"t\":1}");
  free(out);
  EXPECT_EQ(sys_.last_poll_timeout.load(), 1500);
  EXPECT_EQ(sys_.last_poll_events.load(), POLLIN);
}

TEST_F(IpcSocketTimed, ZeroTimeoutWithNothingToReadIsQuietTimeout) {
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(pair_.local(), 0, &out), VEMO_ERR_RECV_TIMEOUT);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(sys_.last_poll_timeout.load(), 0);
  EXPECT_EQ(sys_.recv.calls.load(), 0);
  EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(IpcSocketTimed, ShortTimeoutWithNothingToReadIsQuietTimeout) {
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(pair_.local(), 10, &out), VEMO_ERR_RECV_TIMEOUT);
  EXPECT_EQ(out, kUntouched);
  EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(IpcSocketTimed, NegativeTimeoutFailsWithoutWaiting) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("{}")));
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(pair_.local(), -1, &out), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(sys_.poll.calls.load(), 0);  // never an endless wait
  EXPECT_EQ(sys_.recv.calls.load(), 0);
  EXPECT_EQ(log_.messages("ipc_socket_recv_timed", "ERROR"), Messages{"fail to select, error=-1"});
}

TEST_F(IpcSocketTimed, InterruptedWaitFails) {
  sys_.poll.fail_with(EINTR);
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(pair_.local(), 50, &out), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(sys_.poll.calls.load(), 1);
  EXPECT_EQ(log_.messages("ipc_socket_recv_timed", "ERROR"), Messages{"fail to select, error=-1"});
}

TEST_F(IpcSocketTimed, ClosedDescriptorFailsTheWait) {
  int fd = dup(pair_.local());
  ASSERT_GE(fd, 0);
  close(fd);
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(fd, 50, &out), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("ipc_socket_recv_timed", "ERROR"), Messages{"fail to select, error=-1"});
}

TEST_F(IpcSocketTimed, NegativeDescriptorFailsTheWait) {
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(-1, 50, &out), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(sys_.poll.calls.load(), 0);
  EXPECT_EQ(log_.messages("ipc_socket_recv_timed", "ERROR"), Messages{"fail to select, error=-1"});
}

TEST_F(IpcSocketTimed, PeerClosingWakesTheWaitWithPeerClosed) {
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(pair_.local(), 5000, &out), VEMO_ERR_PEER_CLOSED);
  EXPECT_EQ(out, kUntouched);
}

TEST_F(IpcSocketTimed, NullOutputIsInvalidArgument) {
  EXPECT_EQ(ipc_socket_recv_timed(pair_.local(), 0, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(sys_.poll.calls.load(), 0);
  EXPECT_EQ(log_.messages("ipc_socket_recv_timed", "ERROR"), Messages{"the output is NULL"});
}

TEST_F(IpcSocketTimed, DescriptorAbove1024IsWaitedOn) {
  constexpr int kHighFd = 1500;
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_cur <= kHighFd) {
    struct rlimit raised = limit;
    raised.rlim_cur = kHighFd + 1;
    if (raised.rlim_max != RLIM_INFINITY && raised.rlim_max < raised.rlim_cur)
      GTEST_SKIP() << "the descriptor limit cannot be raised above " << kHighFd;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  }
  ASSERT_EQ(dup2(pair_.local(), kHighFd), kHighFd);

  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv_timed(kHighFd, 0, &out), VEMO_ERR_RECV_TIMEOUT);
  EXPECT_EQ(out, kUntouched);
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("{\"high\":1500}")));
  out = nullptr;
  EXPECT_EQ(ipc_socket_recv_timed(kHighFd, 1000, &out), 0);
  EXPECT_STREQ(out, "{\"high\":1500}");
  free(out);
  close(kHighFd);
  EXPECT_EQ(log_.messages("", "ERROR"), Messages{});
}

}  // namespace
