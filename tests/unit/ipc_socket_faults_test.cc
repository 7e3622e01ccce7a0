// Failures that a real socket cannot be made to produce on demand, injected through the
// system-call seam: interrupted calls, EAGAIN, calls that take or yield a few bytes only, and
// allocations that fail.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "vemo/ipc_socket.h"

namespace {

using vemo_test::frame_of;
using vemo_test::LogCapture;
using vemo_test::read_available;
using vemo_test::SocketPair;
using vemo_test::SysFaults;
using vemo_test::write_all;
using Messages = std::vector<std::string>;

char g_marker;
char *const kUntouched = &g_marker;

class IpcSocketFaults : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.ok()); }
  // Queues a frame for {"a":1} (6 header bytes, 7 payload bytes) and receives with out
  // starting at kUntouched.
  int receive_small_frame(char **out) {
    EXPECT_TRUE(write_all(pair_.peer(), frame_of("{\"a\":1}")));
    *out = kUntouched;
    return ipc_socket_recv(pair_.local(), out);
  }

  SocketPair pair_;
  LogCapture log_;
  SysFaults sys_;
};

// --- receive ---------------------------------------------------------------------------------

TEST_F(IpcSocketFaults, InterruptedReceiveBeforeMagicIsNotRetried) {
  sys_.recv.fail_with(EINTR);
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(sys_.recv.calls.load(), 1);
  EXPECT_EQ(log_.messages("recv_buffer", "ERROR"), Messages{"fail to receive buffer, error=4"});
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the magic, code=-1"});
}

TEST_F(IpcSocketFaults, InterruptedReceiveMidMagicReportsBytesGot) {
  sys_.recv_chunk = 1;
  sys_.recv.fail_with(EINTR, 1, /*after=*/1);
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"), Messages{"fail to receive the magic, code=1"});
}

TEST_F(IpcSocketFaults, InterruptedReceiveMidLengthReportsBytesGot) {
  sys_.recv_chunk = 1;
  sys_.recv.fail_with(EINTR, 1, /*after=*/2 + 3);
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the length, code=3"});
}

TEST_F(IpcSocketFaults, InterruptedReceiveBeforePayloadClearsOutput) {
  sys_.recv.fail_with(EINTR, 1, /*after=*/2);  // magic and length each in one call
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(log_.messages("recv_buffer", "ERROR"), Messages{"fail to receive buffer, error=4"});
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the message, code=-1"});
}

TEST_F(IpcSocketFaults, FailedReceiveMidPayloadClearsOutputAndReportsBytesGot) {
  sys_.recv_chunk = 1;
  sys_.recv.fail_with(ECONNRESET, 1, /*after=*/6 + 4);
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(log_.messages("recv_buffer", "ERROR"), Messages{"fail to receive buffer, error=104"});
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the message, code=4"});
}

TEST_F(IpcSocketFaults, OneByteReadsStillGiveTheWholeFrame) {
  sys_.recv_chunk = 1;
  char *out;
  ASSERT_EQ(receive_small_frame(&out), 0);
  EXPECT_STREQ(out, "{\"a\":1}");
  free(out);
  EXPECT_EQ(sys_.recv.calls.load(), 13);
}

TEST_F(IpcSocketFaults, ReceiveWaitsOutEagainWithPoll) {
  sys_.recv.fail_with(EAGAIN, 3);
  char *out;
  ASSERT_EQ(receive_small_frame(&out), 0);
  EXPECT_STREQ(out, "{\"a\":1}");
  free(out);
  EXPECT_EQ(sys_.poll.calls.load(), 3);
  EXPECT_EQ(sys_.last_poll_events.load(), POLLIN);
  EXPECT_EQ(sys_.last_poll_timeout.load(), -1);
  EXPECT_EQ(log_.messages("", "ERROR"), Messages{});
}

TEST_F(IpcSocketFaults, ReceiveFailsWhenTheEagainWaitIsInterrupted) {
  sys_.recv.fail_with(EAGAIN);
  sys_.poll.fail_with(EINTR);
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("recv_buffer", "ERROR"), Messages{"fail to receive buffer, error=4"});
}

TEST_F(IpcSocketFaults, NonBlockingDescriptorWaitsForTheFrame) {
  ASSERT_EQ(fcntl(pair_.local(), F_SETFL, fcntl(pair_.local(), F_GETFL) | O_NONBLOCK), 0);
  std::thread writer([&] {
    // Only once the receiver is waiting in poll does the frame go out.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (sys_.poll.calls.load() == 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    write_all(pair_.peer(), frame_of("{\"late\":true}"));
  });
  char *out = nullptr;
  int rc = ipc_socket_recv(pair_.local(), &out);
  writer.join();
  ASSERT_EQ(rc, 0);
  EXPECT_STREQ(out, "{\"late\":true}");
  free(out);
  EXPECT_GE(sys_.poll.calls.load(), 1);
}

TEST_F(IpcSocketFaults, ReceiveAllocationFailureClearsOutput) {
  sys_.malloc.fail_with(ENOMEM);
  char *out;
  EXPECT_EQ(receive_small_frame(&out), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(sys_.last_malloc_size.load(), 8u);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"), Messages{"fail to malloc, size=8"});
}

// --- send ------------------------------------------------------------------------------------

TEST_F(IpcSocketFaults, SendAsksForNoSignal) {
  ASSERT_EQ(ipc_socket_send(pair_.local(), "{}"), 0);
  EXPECT_NE(sys_.last_send_flags.load() & MSG_NOSIGNAL, 0);
}

TEST_F(IpcSocketFaults, InterruptedSendIsNotRetried) {
  sys_.send.fail_with(EINTR);
  EXPECT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(sys_.send.calls.load(), 1);
  EXPECT_EQ(read_available(pair_.peer()), "");
  EXPECT_EQ(log_.messages("send_buffer", "ERROR"), Messages{"fail to send buffer, error=4"});
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"),
            Messages{"fail to send the message, code=-1"});
}

TEST_F(IpcSocketFaults, SendFailingAfterPartReportsBytesTaken) {
  sys_.send_chunk = 4;
  sys_.send.fail_with(EPIPE, 1, /*after=*/1);
  EXPECT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(read_available(pair_.peer()), std::string("\xA1\xB2\x00\x00", 4));
  EXPECT_EQ(log_.messages("send_buffer", "ERROR"), Messages{"fail to send buffer, error=32"});
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"),
            Messages{"fail to send the message, code=4"});
}

TEST_F(IpcSocketFaults, ShortSendsCompleteTheFrame) {
  sys_.send_chunk = 3;
  ASSERT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), 0);
  EXPECT_EQ(sys_.send.calls.load(), 5);  // 13 bytes, 3 at a time
  EXPECT_EQ(read_available(pair_.peer()), frame_of("{\"a\":1}"));
}

TEST_F(IpcSocketFaults, SendWaitsOutEagainWithPoll) {
  sys_.send.fail_with(EAGAIN, 2);
  ASSERT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), 0);
  EXPECT_EQ(sys_.poll.calls.load(), 2);
  EXPECT_EQ(sys_.last_poll_events.load(), POLLOUT);
  EXPECT_EQ(sys_.last_poll_timeout.load(), -1);
  EXPECT_EQ(read_available(pair_.peer()), frame_of("{\"a\":1}"));
  EXPECT_EQ(log_.messages("", "ERROR"), Messages{});
}

TEST_F(IpcSocketFaults, SendFailsWhenTheEagainWaitFails) {
  sys_.send.fail_with(EAGAIN);
  sys_.poll.fail_with(ENOMEM);
  EXPECT_EQ(ipc_socket_send(pair_.local(), "{}"), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(log_.messages("send_buffer", "ERROR"), Messages{"fail to send buffer, error=12"});
}

TEST_F(IpcSocketFaults, SendAllocationFailureSendsNothing) {
  sys_.malloc.fail_with(ENOMEM);
  EXPECT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), VEMO_ERR_NO_RESOURCE);
  EXPECT_EQ(sys_.last_malloc_size.load(), 13u);
  EXPECT_EQ(sys_.send.calls.load(), 0);
  EXPECT_EQ(read_available(pair_.peer()), "");
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"), Messages{"fail to malloc, size=13"});
}

}  // namespace
