// Framed send and receive over a real socket pair: the bytes on the wire, frames that arrive
// split or together, every way a peer can cut a frame off, and the log lines that go with them.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ipc/frame_codec.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "vemo/ipc_socket.h"

namespace {

using vemo_test::frame_of;
using vemo_test::frame_with_length;
using vemo_test::LogCapture;
using vemo_test::SocketPair;
using vemo_test::SysFaults;
using vemo_test::write_all;
using Messages = std::vector<std::string>;

// A pointer value the receive must either leave alone or replace; never dereferenced.
char g_marker;
char *const kUntouched = &g_marker;

// Waits (bounded) until pred holds; false if it never did.
template <typename Pred>
bool eventually(Pred pred) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

class IpcSocket : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.ok()); }
  // Receives on the library's end; the text (if any) is copied out and freed.
  int receive(std::string *text = nullptr) {
    char *out = nullptr;
    int rc = ipc_socket_recv(pair_.local(), &out);
    if (out != nullptr) {
      if (text != nullptr) *text = out;
      free(out);
    }
    return rc;
  }
  std::string line(const char *format, int fd, const char *text) {
    char buffer[256];
    snprintf(buffer, sizeof buffer, format, fd, text);
    return buffer;
  }

  SocketPair pair_;
  LogCapture log_;
};

TEST_F(IpcSocket, SendPutsExactlyThirteenBytesForSmallJson) {
  ASSERT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), 0);
  EXPECT_EQ(vemo_test::read_available(pair_.peer()),
            std::string("\xA1\xB2\x00\x00\x00\x07{\"a\":1}", 13));
  EXPECT_EQ(log_.messages("ipc_socket_send", "INFO"),
            Messages{line("IPC send to %d: %s", pair_.local(), "{\"a\":1}")});
}

TEST_F(IpcSocket, SendOfEmptyTextPutsSixBytes) {
  ASSERT_EQ(ipc_socket_send(pair_.local(), ""), 0);
  EXPECT_EQ(vemo_test::read_available(pair_.peer()), std::string("\xA1\xB2\x00\x00\x00\x00", 6));
}

TEST_F(IpcSocket, ReceiveHandsOverTextAndLogsIt) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("{\"id\":42}")));
  char *out = nullptr;
  ASSERT_EQ(ipc_socket_recv(pair_.local(), &out), 0);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "{\"id\":42}");
  free(out);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "INFO"),
            Messages{line("IPC receive from %d: %s", pair_.local(), "{\"id\":42}")});
}

TEST_F(IpcSocket, FrameSplitAcrossSeveralArrivalsIsReceivedWhole) {
  SysFaults sys;  // only counts the receive calls
  const std::string text = "{\"method\":\"split\"}";
  const std::string wire = frame_of(text);
  // Magic cut in two, length cut in two, payload cut in two: every piece needs several reads.
  const std::vector<std::string> pieces = {wire.substr(0, 1), wire.substr(1, 3),
                                           wire.substr(4, 5), wire.substr(9)};
  std::atomic<bool> wrote_all{false};
  std::thread writer([&] {
    for (size_t i = 0; i < pieces.size(); ++i) {
      int seen = sys.recv.calls;
      ASSERT_TRUE(write_all(pair_.peer(), pieces[i]));
      // Hold the next piece back until the receiver has come back for more.
      if (i + 1 < pieces.size()) ASSERT_TRUE(eventually([&] { return sys.recv.calls > seen; }));
    }
    wrote_all = true;
  });
  std::string got;
  int rc = receive(&got);
  writer.join();
  EXPECT_TRUE(wrote_all);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(got, text);
  EXPECT_GE(sys.recv.calls.load(), 4);
}

TEST_F(IpcSocket, TwoFramesInOneWriteAreReceivedOneAfterTheOther) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("{\"n\":1}") + frame_of("{\"n\":2}")));
  std::string first, second;
  EXPECT_EQ(receive(&first), 0);
  EXPECT_EQ(receive(&second), 0);
  EXPECT_EQ(first, "{\"n\":1}");
  EXPECT_EQ(second, "{\"n\":2}");
}

TEST_F(IpcSocket, ZeroLengthFrameIsAnEmptyText) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("") + frame_of("x")));
  char *out = nullptr;
  ASSERT_EQ(ipc_socket_recv(pair_.local(), &out), 0);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out[0], '\0');
  free(out);
  std::string next;
  EXPECT_EQ(receive(&next), 0);  // nothing of the next frame was taken
  EXPECT_EQ(next, "x");
}

TEST_F(IpcSocket, BadMagicTakesExactlyTwoBytes) {
  ASSERT_TRUE(write_all(pair_.peer(), std::string("\xB2\xA1") + "rest"));
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_BAD_FORMAT);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(vemo_test::read_available(pair_.local()), "rest");
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"), Messages{"the magic does not match"});
}

TEST_F(IpcSocket, PeerClosedBeforeMagicIsQuietPeerClosed) {
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_PEER_CLOSED);
  EXPECT_EQ(out, kUntouched);
  EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(IpcSocket, PeerClosedAfterMagicIsPeerClosed) {
  ASSERT_TRUE(write_all(pair_.peer(), "\xA1\xB2"));
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_PEER_CLOSED);
  EXPECT_EQ(out, kUntouched);
  EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(IpcSocket, PeerClosedAfterLengthFreesBufferAndClearsOutput) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_with_length(5)));
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_PEER_CLOSED);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(log_.lines().empty()) << log_.text();
}

TEST_F(IpcSocket, PeerClosedMidPayloadIsShortReadWithCount) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_with_length(10, "abc")));
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, nullptr);  // and the buffer is freed: the leak checker would say otherwise
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the message, code=3"});
}

TEST_F(IpcSocket, OneMagicByteThenCloseIsShortRead) {
  ASSERT_TRUE(write_all(pair_.peer(), "\xA1"));
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"), Messages{"fail to receive the magic, code=1"});
}

TEST_F(IpcSocket, PartOfLengthThenCloseIsShortRead) {
  ASSERT_TRUE(write_all(pair_.peer(), std::string("\xA1\xB2\x00\x00", 4)));
  pair_.close_peer();
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair_.local(), &out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the length, code=2"});
}

// An oversize length must be refused before any allocation, and the stream given up: what
// follows the header cannot be told apart from a frame.
void expect_oversize_refused(SocketPair &pair, LogCapture &log, uint32_t length) {
  SysFaults sys;
  ASSERT_TRUE(write_all(pair.peer(), frame_with_length(length, "garbage") + frame_of("{}")));
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair.local(), &out), VEMO_ERR_BAD_FORMAT);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(sys.malloc.calls.load(), 0);
  EXPECT_EQ(sys.last_shutdown_how.load(), SHUT_RD);
  EXPECT_EQ(log.messages("ipc_socket_recv", "ERROR"),
            Messages{"the length of the message is too long, size=" + std::to_string(length)});
  out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair.local(), &out), VEMO_ERR_PEER_CLOSED);
  EXPECT_EQ(out, kUntouched);
  // The peer learns it too: its next send fails instead of filling a dead queue.
  EXPECT_LT(send(pair.peer(), "x", 1, MSG_NOSIGNAL), 0);
}

TEST_F(IpcSocket, LengthOfAllOnesIsRefusedAndStreamClosed) {
  expect_oversize_refused(pair_, log_, 0xFFFFFFFFu);
}

TEST_F(IpcSocket, LengthOneAboveLimitIsRefusedAndStreamClosed) {
  expect_oversize_refused(pair_, log_, IPC_FRAME_MAX_PAYLOAD + 1);
}

TEST_F(IpcSocket, LargestFrameRoundTrips) {
  std::string text(IPC_FRAME_MAX_PAYLOAD, 'x');
  int send_rc = -1;
  std::thread sender([&] { send_rc = ipc_socket_send(pair_.peer(), text.c_str()); });
  std::string got;
  EXPECT_EQ(receive(&got), 0);
  sender.join();
  EXPECT_EQ(send_rc, 0);
  EXPECT_EQ(got.size(), text.size());
  EXPECT_EQ(got, text);
}

TEST_F(IpcSocket, SendOfOversizeTextIsRefusedBeforeAllocating) {
  SysFaults sys;
  std::string text(IPC_FRAME_MAX_PAYLOAD + 1, 'x');
  EXPECT_EQ(ipc_socket_send(pair_.local(), text.c_str()), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(sys.malloc.calls.load(), 0);
  EXPECT_EQ(sys.send.calls.load(), 0);
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"),
            Messages{"the length of the message is too long, size=" +
                     std::to_string(IPC_FRAME_MAX_PAYLOAD + 1)});
}

TEST_F(IpcSocket, SendToClosedPeerFailsWithoutSignal) {
  // The default action of SIGPIPE ends the process: the test survives only if no signal is raised.
  struct sigaction dfl = {}, old = {};
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &dfl, &old);
  pair_.close_peer();
  EXPECT_EQ(ipc_socket_send(pair_.local(), "{\"a\":1}"), VEMO_ERR_DISCONNECTED);
  sigaction(SIGPIPE, &old, nullptr);
  EXPECT_EQ(log_.messages("send_buffer", "ERROR"), Messages{"fail to send buffer, error=32"});
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"),
            Messages{"fail to send the message, code=-1"});
  EXPECT_EQ(log_.messages("", "INFO"), Messages{});
}

TEST_F(IpcSocket, NullTextIsInvalidArgument) {
  EXPECT_EQ(ipc_socket_send(pair_.local(), nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"), Messages{"the text is NULL"});
  EXPECT_EQ(vemo_test::read_available(pair_.peer()), "");
}

TEST_F(IpcSocket, NullOutputIsInvalidArgument) {
  ASSERT_TRUE(write_all(pair_.peer(), frame_of("{}")));
  EXPECT_EQ(ipc_socket_recv(pair_.local(), nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"), Messages{"the output is NULL"});
  std::string got;
  EXPECT_EQ(receive(&got), 0);  // nothing was taken from the stream
  EXPECT_EQ(got, "{}");
}

TEST_F(IpcSocket, NegativeDescriptorFailsLikeAnyFailedSend) {
  EXPECT_EQ(ipc_socket_send(-1, "{}"), VEMO_ERR_DISCONNECTED);
  EXPECT_EQ(log_.messages("send_buffer", "ERROR"), Messages{"fail to send buffer, error=9"});
  EXPECT_EQ(log_.messages("ipc_socket_send", "ERROR"),
            Messages{"fail to send the message, code=-1"});
}

TEST_F(IpcSocket, NegativeDescriptorFailsLikeAnyFailedReceive) {
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(-1, &out), VEMO_ERR_SHORT_READ);
  EXPECT_EQ(out, kUntouched);
  EXPECT_EQ(log_.messages("recv_buffer", "ERROR"), Messages{"fail to receive buffer, error=9"});
  EXPECT_EQ(log_.messages("ipc_socket_recv", "ERROR"),
            Messages{"fail to receive the magic, code=-1"});
}

TEST_F(IpcSocket, ConcurrentSendersEachDeliverWholeFrames) {
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::thread> senders;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([&, t] {
      std::string text = "{\"sender\":" + std::to_string(t) + "}";
      for (int i = 0; i < kEach; ++i)
        if (ipc_socket_send(pair_.local(), text.c_str()) != 0) ++failures;
    });
  std::vector<int> per_sender(kThreads, 0);
  for (int i = 0; i < kThreads * kEach; ++i) {
    char *out = nullptr;
    ASSERT_EQ(ipc_socket_recv(pair_.peer(), &out), 0);
    int who = out[10] - '0';
    ASSERT_TRUE(who >= 0 && who < kThreads) << out;
    ++per_sender[who];
    free(out);
  }
  for (auto &s : senders) s.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(per_sender, std::vector<int>(kThreads, kEach));
}

}  // namespace
