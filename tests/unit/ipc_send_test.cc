// Sending frames by frame_send (with a deadline) and the exported ipc_socket_send (without): the
// bytes on the wire, every way a send fails, and whether a failure left part of a frame behind.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <functional>
#include <thread>

#include "ipc/frame_send.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "unit/golden.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace {

using namespace vemo_test;
using vemo_unit::golden;
using vemo_unit::Lines;

TEST(FrameSend, FaultsOnTheWireAndInTheLog) {
  const std::string text(0x102, 't'), oversize(IPC_FRAME_MAX_PAYLOAD + 1, 'o');
  const std::string frame = std::string("\xA1\xB2\x00\x00\x01\x02", 6) + text;  // big-endian length
  const auto none = [](SocketPair &, SysFaults &) {};
  const auto step = [](int error) { return "ERROR send_buffer: fail to send buffer, error=" + std::to_string(error); };
  const auto sent = [](int code) { return "ERROR ipc_socket_send: fail to send the message, code=" + std::to_string(code); };
  const struct {
    const char *name;
    std::function<void(SocketPair &, SysFaults &)> fault;
    const char *text;
    int timeout_ms, code;
    Lines errors;
    std::string wire;  // what the peer finds afterwards: the frame's bytes, or the part of them
  } rows[] = {
      {"whole frame", none, text.c_str(), 1000, 0, {}, frame},
      {"empty text", none, "", 1000, 0, {}, std::string("\xA1\xB2\0\0\0\0", 6)},
      {"socket full, then room", [](SocketPair &, SysFaults &s) { s.send.fail_with(EAGAIN, 2); }, text.c_str(), 1000, 0, {}, frame},
      {"interrupted", [](SocketPair &, SysFaults &s) { s.send.fail_with(EINTR, 2); }, text.c_str(), 1000, 0, {}, frame},
      {"short sends", [](SocketPair &, SysFaults &s) { s.send_chunk = 3; }, text.c_str(), 1000, 0, {}, frame},
      {"peer gone: no SIGPIPE", [](SocketPair &p, SysFaults &) { p.close_peer(); }, text.c_str(), 1000,
       VEMO_ERR_DISCONNECTED, {step(EPIPE), sent(-1)}, ""},
      {"peer gone after part", [](SocketPair &, SysFaults &s) { s.send_chunk = 4, s.send.fail_with(EPIPE, 1, 1); },
       text.c_str(), 1000, VEMO_ERR_DISCONNECTED, {step(EPIPE), sent(4)}, frame.substr(0, 4)},
      {"no socket", [](SocketPair &p, SysFaults &) { p.close_local(); }, text.c_str(), 1000, VEMO_ERR_DISCONNECTED,
       {step(EBADF), sent(-1)}, ""},
      {"wait fails", [](SocketPair &, SysFaults &s) { s.send.fail_with(EAGAIN), s.poll.fail_with(ENOMEM); },
       text.c_str(), 1000, VEMO_ERR_DISCONNECTED, {step(ENOMEM), sent(-1)}, ""},
      {"oversize text", none, oversize.c_str(), 1000, VEMO_ERR_DISCONNECTED,
       {"ERROR ipc_socket_send: the length of the message is too long, size=" + std::to_string(oversize.size())}, ""},
      {"null text", none, nullptr, 1000, VEMO_ERR_INVALID_ARG, {"ERROR ipc_socket_send: the text is NULL"}, ""},
      {"deadline passed on entry", none, text.c_str(), 0, VEMO_ERR_TIMEOUT, {}, ""},
      {"full till the deadline", [](SocketPair &p, SysFaults &) {
         while (send(p.local(), std::string(4096, 'f').data(), 4096, MSG_DONTWAIT) > 0) {}
       }, "{}", 30, VEMO_ERR_TIMEOUT, {}, ""},
  };
  struct sigaction dfl = {}, old = {};  // SIGPIPE's default action ends the test
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &dfl, &old);
  for (const auto &row : rows) {
    for (bool exported : {false, true}) {
      if (exported && row.code == VEMO_ERR_TIMEOUT) continue;  // no deadline, no time-out
      SCOPED_TRACE(std::string(row.name) + (exported ? " (exported)" : ""));
      SocketPair pair;
      LogCapture log;
      SysFaults sys;
      row.fault(pair, sys);
      bool cut = true;
      int rc = exported ? ipc_socket_send(pair.local(), row.text)
                        : vemo::frame_send(pair.local(), row.text,
                                           vemo::Deadline::after_ms(row.timeout_ms, get_tick_count()), &cut);
      EXPECT_EQ(rc, row.code);
      if (!exported) EXPECT_EQ(cut, row.code == VEMO_ERR_DISCONNECTED && !row.wire.empty());
      if (sys.send.calls > 0) EXPECT_NE(sys.last_send_flags.load() & MSG_NOSIGNAL, 0);
      EXPECT_EQ(sys.malloc.calls.load(), 0);  // no copy of the frame is made
      if (row.name == std::string("whole frame")) EXPECT_EQ(sys.send.calls.load(), 1);  // header and text
      Lines lines = row.errors;
      if (rc == 0) lines.push_back("INFO ipc_socket_send: IPC send to " + std::to_string(pair.local()) + ": " + row.text);
      EXPECT_EQ(golden(log), lines);
      std::string got = pair.peer() >= 0 ? read_available(pair.peer()) : "";
      got.erase(0, got.find_first_not_of('f'));  // the filler a row queued itself
      EXPECT_TRUE(got == row.wire) << got.size();
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
  EXPECT_EQ(golden(log), (Lines{"ERROR send_buffer: fail to send buffer, error=" + std::to_string(ETIMEDOUT),
                                "ERROR ipc_socket_send: fail to send the message, code=" + std::to_string(on_wire)}));
}

TEST(FrameSend, ConcurrentSendersNeverInterleave) {
  SocketPair pair;
  LogCapture log;
  constexpr int kThreads = 4, kEach = 50;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([&, t] {
      std::string text = "{\"sender\":" + std::to_string(t) + "}";
      for (int i = 0; i < kEach; ++i) EXPECT_EQ(ipc_socket_send(pair.local(), text.c_str()), 0);
    });
  std::vector<int> per_sender(kThreads, 0);
  for (int i = 0; i < kThreads * kEach; ++i) {
    char *out = nullptr;
    ASSERT_EQ(ipc_socket_recv(pair.peer(), &out), 0);
    const int who = out[10] - '0';  // a torn frame shows as a bad magic or a foreign text
    ASSERT_TRUE(who >= 0 && who < kThreads && strlen(out) == 12) << out;
    ++per_sender[who];
    free(out);
  }
  for (auto &s : senders) s.join();
  EXPECT_EQ(per_sender, std::vector<int>(kThreads, kEach));
}

}  // namespace
