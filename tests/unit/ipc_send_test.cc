// Sending frames: frame_send with its deadline and the exported ipc_socket_send (the same path
// without a time limit): the bytes on the wire, every way a send can fail, and whether a failed
// send left part of a frame on the wire.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ipc/frame_send.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace {

using vemo_test::frame_of;
using vemo_test::LogCapture;
using vemo_test::read_available;
using vemo_test::SocketPair;
using vemo_test::SysFaults;
using Messages = std::vector<std::string>;

const std::string kSmall = "{\"a\":1}";

// Fills fd's socket until it takes no more; the bytes it took.
size_t fill_socket(int fd) {
  static const std::string filler(4096, 'f');
  size_t sent = 0;
  for (ssize_t n; (n = send(fd, filler.data(), filler.size(), MSG_DONTWAIT)) > 0;)
    sent += static_cast<size_t>(n);
  return sent;
}

struct SendCase {
  const char *name;
  size_t (*arrange)(SocketPair &, SysFaults &);
  std::string text;
  int timeout_ms;
  int code;
  bool cut;
  Messages step_errors;  // send_buffer
  Messages errors;       // ipc_socket_send
  std::string wire;      // what the peer finds afterwards
};

// Arrangements before a send; each returns the bytes it queued on the socket itself.
size_t nothing(SocketPair &, SysFaults &) { return 0; }
size_t full_twice(SocketPair &, SysFaults &s) {
  s.send.fail_with(EAGAIN, 2);
  return 0;
}
size_t interrupted_twice(SocketPair &, SysFaults &s) {
  s.send.fail_with(EINTR, 2);
  return 0;
}
size_t three_bytes_a_call(SocketPair &, SysFaults &s) {
  s.send_chunk = 3;
  return 0;
}
size_t peer_gone(SocketPair &p, SysFaults &) {
  p.close_peer();
  return 0;
}
size_t no_socket(SocketPair &p, SysFaults &) {
  p.close_local();
  return 0;
}
size_t peer_gone_after_four_bytes(SocketPair &, SysFaults &s) {
  s.send_chunk = 4;
  s.send.fail_with(EPIPE, 1, 1);
  return 0;
}
size_t full_and_wait_fails(SocketPair &, SysFaults &s) {
  s.send.fail_with(EAGAIN);
  s.poll.fail_with(ENOMEM);
  return 0;
}
size_t full_for_real(SocketPair &p, SysFaults &) { return fill_socket(p.local()); }

TEST(FrameSend, OutcomesOnTheWireAndInTheLog) {
  const std::string oversize(IPC_FRAME_MAX_PAYLOAD + 1, 'o');
  const std::string frame = frame_of(kSmall);
  const std::string too_long = "the length of the message is too long, size=" +
                               std::to_string(oversize.size());
  const Messages epipe = {"fail to send buffer, error=32"};
  const Messages none_sent = {"fail to send the message, code=-1"};
  const SendCase cases[] = {
      {"whole frame", nothing, kSmall, 1000, 0, false, {}, {}, frame},
      {"empty text", nothing, "", 1000, 0, false, {}, {}, frame_of("")},
      {"socket full, then room", full_twice, kSmall, 1000, 0, false, {}, {}, frame},
      {"interrupted", interrupted_twice, kSmall, 1000, 0, false, {}, {}, frame},
      {"short sends", three_bytes_a_call, kSmall, 1000, 0, false, {}, {}, frame},
      {"peer gone: no SIGPIPE", peer_gone, kSmall, 1000, VEMO_ERR_DISCONNECTED, false, epipe,
       none_sent, ""},
      {"peer gone after part", peer_gone_after_four_bytes, kSmall, 1000, VEMO_ERR_DISCONNECTED,
       true, epipe, {"fail to send the message, code=4"}, frame.substr(0, 4)},
      {"no socket", no_socket, kSmall, 1000, VEMO_ERR_DISCONNECTED, false,
       {"fail to send buffer, error=9"}, none_sent, ""},
      {"wait fails", full_and_wait_fails, kSmall, 1000, VEMO_ERR_DISCONNECTED, false,
       {"fail to send buffer, error=12"}, none_sent, ""},
      {"oversize text", nothing, oversize, 1000, VEMO_ERR_DISCONNECTED, false, {}, {too_long}, ""},
      {"deadline passed on entry", nothing, kSmall, 0, VEMO_ERR_TIMEOUT, false, {}, {}, ""},
      {"full till the deadline", full_for_real, kSmall, 30, VEMO_ERR_TIMEOUT, false, {}, {}, ""},
  };
  // The default action of SIGPIPE ends the process: the test survives only if none is raised.
  struct sigaction dfl = {}, old = {};
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &dfl, &old);
  for (const SendCase &c : cases) {
    for (bool exported : {false, true}) {
      if (exported && c.code == VEMO_ERR_TIMEOUT) continue;  // no deadline, no time-out
      SCOPED_TRACE(std::string(c.name) + (exported ? " (exported)" : ""));
      SocketPair pair;
      LogCapture log;
      SysFaults sys;
      const std::string queued(c.arrange(pair, sys), 'f');
      bool cut = !c.cut;
      int rc = exported ? ipc_socket_send(pair.local(), c.text.c_str())
                        : vemo::frame_send(pair.local(), c.text.c_str(),
                                           vemo::Deadline::after_ms(c.timeout_ms, get_tick_count()),
                                           &cut);
      EXPECT_EQ(rc, c.code);
      if (!exported) EXPECT_EQ(cut, c.cut);
      if (sys.send.calls > 0) EXPECT_NE(sys.last_send_flags.load() & MSG_NOSIGNAL, 0);
      EXPECT_EQ(log.messages("send_buffer", "ERROR"), c.step_errors);
      EXPECT_EQ(log.messages("ipc_socket_send", "ERROR"), c.errors);
      Messages sent;
      if (rc == 0) sent.push_back("IPC send to " + std::to_string(pair.local()) + ": " + c.text);
      EXPECT_EQ(log.messages("ipc_socket_send", "INFO"), sent);
      // No copy of the frame is made, and a socket with room takes it in one call.
      EXPECT_EQ(sys.malloc.calls.load(), 0);
      if (c.arrange == nothing && rc == 0) EXPECT_EQ(sys.send.calls.load(), 1);
      if (pair.peer() >= 0) EXPECT_TRUE(read_available(pair.peer()) == queued + c.wire);
    }
  }
  sigaction(SIGPIPE, &old, nullptr);
}

TEST(FrameSend, DeadlineMidFrameCutsTheStreamAndSaysHowMuchWentOut) {
  SocketPair pair;
  LogCapture log;
  const std::string text(1024 * 1024, 't');  // more than the socket holds
  bool cut = false;
  const uint32_t start = get_tick_count();
  EXPECT_EQ(vemo::frame_send(pair.local(), text.c_str(), vemo::Deadline::after_ms(50, start), &cut),
            VEMO_ERR_DISCONNECTED);
  EXPECT_GE(get_tick_count() - start, 50u);
  EXPECT_TRUE(cut);
  const size_t on_wire = read_available(pair.peer()).size();
  EXPECT_GT(on_wire, 0u);
  EXPECT_LT(on_wire, text.size());
  EXPECT_EQ(log.messages("send_buffer", "ERROR"),
            Messages{"fail to send buffer, error=" + std::to_string(ETIMEDOUT)});
  EXPECT_EQ(log.messages("ipc_socket_send", "ERROR"),
            Messages{"fail to send the message, code=" + std::to_string(on_wire)});
}

TEST(FrameSend, NullTextIsRefused) {
  LogCapture log;
  bool cut = true;
  EXPECT_EQ(vemo::frame_send(0, nullptr, vemo::Deadline::after_ms(100, get_tick_count()), &cut),
            VEMO_ERR_INVALID_ARG);
  EXPECT_FALSE(cut);
  EXPECT_EQ(log.messages("ipc_socket_send", "ERROR"), Messages{"the text is NULL"});
}

TEST(FrameSend, ConcurrentSendersEachDeliverWholeFrames) {
  SocketPair pair;
  LogCapture log;
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::thread> senders;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([&, t] {
      std::string text = "{\"sender\":" + std::to_string(t) + "}";
      for (int i = 0; i < kEach; ++i)
        if (ipc_socket_send(pair.local(), text.c_str()) != 0) ++failures;
    });
  std::vector<int> per_sender(kThreads, 0);
  for (int i = 0; i < kThreads * kEach; ++i) {
    char *out = nullptr;
    ASSERT_EQ(ipc_socket_recv(pair.peer(), &out), 0);
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
