// Receiving frames by the exported receive and by a connection's FrameReader: both must make the
// same of the same byte stream (texts, codes, log lines and the functions that write them),
// whether it ends, breaks, is interrupted or is waited on anywhere in a frame.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "ipc/frame_reader.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "unit/golden.h"
#include "vemo/ipc_socket.h"

namespace {

using namespace vemo_test;
using vemo_unit::golden;
using vemo_unit::Lines;
enum Kind { kExported, kReader };
constexpr int kBlock = -100;  // the exported receive without a time limit; the reader waits 5 s
const std::string kSmall = "{\"a\":1}";  // 6 header and 7 payload bytes on the wire

char g_marker;
char *const kUntouched = &g_marker;  // a caller's pointer that a failed receive may only clear

// One receive on reader's descriptor; *cleared tells whether the caller's pointer was cleared.
int receive(Kind kind, vemo::FrameReader &reader, int timeout_ms, std::string *text = nullptr,
            bool *cleared = nullptr) {
  if (kind == kReader) {
    const char *out = nullptr;
    uint32_t length = 0;
    int rc = reader.next(timeout_ms == kBlock ? 5000 : timeout_ms, &out, &length);
    if (rc == 0 && text != nullptr) text->assign(out, length);
    return rc;
  }
  char *out = kUntouched;
  int rc = timeout_ms == kBlock ? ipc_socket_recv(reader.fd(), &out)
                                : ipc_socket_recv_timed(reader.fd(), timeout_ms, &out);
  if (rc == 0 && text != nullptr) *text = out;
  if (rc == 0) free(out);
  if (rc != 0) EXPECT_TRUE(out == kUntouched || out == nullptr);
  if (cleared != nullptr) *cleared = out == nullptr;
  return rc;
}

class Receive : public ::testing::TestWithParam<Kind> {};

// The peer writes `wire` and closes; receives follow until one fails. A row's fault is scripted
// through the seam first. `cleared`: the exported receive cleared the caller's pointer (only a
// failure in the payload step does); `again`: what one more exported receive gives (0: unchecked).
struct Row {
  std::string name, wire;
  std::function<void(SysFaults &, Kind)> fault;
  Lines texts;
  int code;
  Lines errors;
  bool cleared;
  int again;
};

TEST_P(Receive, StreamsAndFaultsEndAsTheTransportSays) {
  const Kind kind = GetParam();
  const std::string big(100000, 'b'), largest(IPC_FRAME_MAX_PAYLOAD, 'x');
  const auto none = [](SysFaults &, Kind) {};
  const auto reset = [](int after) {
    return [=](SysFaults &s, Kind) { s.recv_chunk = 1, s.recv.fail_with(ECONNRESET, 2, after); };
  };
  const auto no_frame_memory = [](int count) {  // the reader's chunk is allocated first
    return [=](SysFaults &s, Kind k) { s.malloc.fail_with(ENOMEM, count, k == kReader ? 1 : 0); };
  };
  const std::string reset_line = "ERROR recv_buffer: fail to receive buffer, error=104";
  const auto failed = [](const std::string &piece, int code) {
    return "ERROR ipc_socket_recv: fail to receive the " + piece + ", code=" + std::to_string(code);
  };
  const auto too_long = [](uint32_t n) {
    return "ERROR ipc_socket_recv: the length of the message is too long, size=" + std::to_string(n);
  };
  const int closed = VEMO_ERR_PEER_CLOSED, short_read = VEMO_ERR_SHORT_READ;
  std::vector<Row> rows = {
      {"one frame", frame_of("{\"id\":42}"), none, {"{\"id\":42}"}, closed, {}, false, 0},
      {"coalesced frames", frame_of("{\"n\":1}") + frame_of("") + frame_of("x"), none,
       {"{\"n\":1}", "", "x"}, closed, {}, false, 0},
      {"frame above the chunk", frame_of(big) + frame_of(kSmall), none, {big, kSmall}, closed, {}, false, 0},
      {"largest frame", frame_of(largest), none, {largest}, closed, {}, false, 0},
      {"split frame", frame_of(kSmall), [](SysFaults &s, Kind) { s.recv_chunk = 1; }, {kSmall}, closed, {}, false, 0},
      {"end after the magic", "\xA1\xB2", none, {}, closed, {}, false, 0},
      {"end after the length", frame_with_length(5), none, {}, closed, {}, true, 0},
      {"bad magic", frame_of(kSmall) + "\xB2\xA1rest", none, {kSmall}, VEMO_ERR_BAD_FORMAT,
       {"ERROR ipc_socket_recv: the magic does not match"}, false, 0},
      {"cut magic", "\xA1", none, {}, short_read, {failed("magic", 1)}, false, 0},
      {"cut length", std::string("\xA1\xB2\x00\x00", 4), none, {}, short_read, {failed("length", 2)}, false, 0},
      {"cut payload", frame_with_length(10, "abc"), none, {}, short_read, {failed("message", 3)}, true, 0},
      {"cut large payload", frame_with_length(100000, big.substr(0, 70000)), none, {}, short_read,
       {failed("message", 70000)}, true, 0},
      {"reset before the magic", frame_of(kSmall), reset(0), {}, short_read, {reset_line, failed("magic", -1)}, false, 0},
      {"reset in the magic", frame_of(kSmall), reset(1), {}, short_read, {reset_line, failed("magic", 1)}, false, 0},
      {"reset before the length", frame_of(kSmall), reset(2), {}, short_read, {reset_line, failed("length", -1)}, false, 0},
      {"reset in the length", frame_of(kSmall), reset(5), {}, short_read, {reset_line, failed("length", 3)}, false, 0},
      {"reset before the payload", frame_of(kSmall), reset(6), {}, short_read, {reset_line, failed("message", -1)}, true, 0},
      {"reset in the payload", frame_of(kSmall), reset(10), {}, short_read, {reset_line, failed("message", 4)}, true, 0},
      {"socket empty, then an interrupted wait", frame_of(kSmall),
       [](SysFaults &s, Kind) { s.recv.fail_with(EAGAIN, 3), s.poll.fail_with(EINTR, 1); }, {kSmall}, closed, {}, false, 0},
      {"no memory for the frame", frame_of(big), no_frame_memory(1), {}, VEMO_ERR_NO_RESOURCE,
       {"ERROR ipc_socket_recv: fail to malloc, size=100001"}, true, 0},
      // A hostile length costs no memory (any allocation would fail and show), and nothing after
      // it is trusted: the exported receive drops the rest of the stream, the reader stays failed.
      {"length above the limit", frame_with_length(IPC_FRAME_MAX_PAYLOAD + 1, "junk") + frame_of("{}"),
       no_frame_memory(100), {}, VEMO_ERR_BAD_FORMAT, {too_long(IPC_FRAME_MAX_PAYLOAD + 1)}, false, closed},
      {"largest length", frame_with_length(0xFFFFFFFFu, "junk") + frame_of("{}"), no_frame_memory(100),
       {}, VEMO_ERR_BAD_FORMAT, {too_long(0xFFFFFFFFu)}, false, closed},
  };
  for (int after = 0; after < 13; ++after)  // an interruption anywhere in a frame is retried
    rows.push_back({"interrupted after byte " + std::to_string(after), frame_of(kSmall),
                    [=](SysFaults &s, Kind) { s.recv_chunk = 1, s.recv.fail_with(EINTR, 2, after); },
                    {kSmall}, closed, {}, false, 0});
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    SocketPair pair;
    vemo::FrameReader reader(pair.local());
    LogCapture log;
    SysFaults sys;
    row.fault(sys, kind);
    // Written at once when the socket holds it all, so that a fault counts the same calls.
    const auto write = [&] { write_all(pair.peer(), row.wire), pair.close_peer(); };
    std::thread writer;
    if (row.wire.size() < 65536) write();
    else writer = std::thread(write);
    Lines texts, expected;
    std::string text;
    bool cleared = false;
    int rc;
    while ((rc = receive(kind, reader, kBlock, &text, &cleared)) == 0) texts.push_back(text);
    if (writer.joinable()) writer.join();
    EXPECT_TRUE(texts == row.texts);
    EXPECT_EQ(rc, row.code);
    if (kind == kExported) EXPECT_EQ(cleared, row.cleared);
    if (kind == kReader || row.again != 0) EXPECT_EQ(receive(kind, reader, kBlock), kind == kReader ? rc : row.again);
    for (const std::string &t : row.texts)
      expected.push_back("INFO ipc_socket_recv: IPC receive from " + std::to_string(pair.local()) + ": " + t);
    expected.insert(expected.end(), row.errors.begin(), row.errors.end());
    EXPECT_TRUE(golden(log) == expected) << ::testing::PrintToString(golden(log, "ERROR"));
    if (sys.poll.calls > 0) EXPECT_EQ(sys.last_poll_events.load(), POLLIN);
  }
}

// A timed receive: the wait itself and its failures. The reader tries a receive before it waits
// and waits out an interrupted wait.
TEST_P(Receive, TimedWaitsAndTheirFailures) {
  const Kind kind = GetParam();
  const std::string frame = frame_of("{\"t\":1}");
  enum Fd { kLocal, kNegative, kClosed };
  const struct {
    const char *name;
    Fd fd;
    int timeout_ms, peer;  // peer 1: a frame is queued, -1: the peer closed, 0: quiet
    bool interrupted;
    int code, reader_code;
  } rows[] = {
      {"frame queued", kLocal, 1500, 1, false, 0, 0},
      {"nothing, timeout 0", kLocal, 0, 0, false, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"nothing, timeout 10", kLocal, 10, 0, false, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"peer closed", kLocal, 5000, -1, false, VEMO_ERR_PEER_CLOSED, VEMO_ERR_PEER_CLOSED},
      {"negative timeout", kLocal, -1, 1, false, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NO_RESOURCE},
      {"negative descriptor", kNegative, 50, 0, false, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NO_RESOURCE},
      {"closed descriptor", kClosed, 50, 0, false, VEMO_ERR_NO_RESOURCE, VEMO_ERR_SHORT_READ},
      {"interrupted wait", kLocal, 20, 0, true, VEMO_ERR_NO_RESOURCE, VEMO_ERR_RECV_TIMEOUT},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    SocketPair pair;
    LogCapture log;  // first: a descriptor closed below must not be reused by it
    int fd = row.fd == kNegative ? -1 : pair.local();
    if (row.fd == kClosed) close(fd = dup(pair.local()));
    vemo::FrameReader reader(fd);
    if (row.peer > 0) ASSERT_TRUE(write_all(pair.peer(), frame));
    if (row.peer < 0) pair.close_peer();
    SysFaults sys;
    if (row.interrupted) sys.poll.fail_with(EINTR);
    std::string text;
    bool cleared = false;
    const int code = kind == kReader ? row.reader_code : row.code;
    EXPECT_EQ(receive(kind, reader, row.timeout_ms, &text, &cleared), code);
    EXPECT_FALSE(cleared);
    if (code == 0) EXPECT_EQ(frame_of(text), frame);
    if (code == VEMO_ERR_RECV_TIMEOUT) EXPECT_NEAR(sys.last_poll_timeout.load(), row.timeout_ms, 1);
    if (sys.poll.calls > 0) EXPECT_EQ(sys.last_poll_events.load(), POLLIN);
    if (row.timeout_ms < 0 || fd < 0) EXPECT_EQ(sys.poll.calls.load(), 0);  // never a wait without limit
    Lines errors;  // a quiet timeout logs nothing
    if (code == VEMO_ERR_NO_RESOURCE) errors = {"ERROR ipc_socket_recv_timed: fail to select, error=-1"};
    if (code == VEMO_ERR_SHORT_READ)
      errors = {"ERROR recv_buffer: fail to receive buffer, error=9",
                "ERROR ipc_socket_recv: fail to receive the magic, code=-1"};
    EXPECT_EQ(golden(log, "ERROR"), errors);
  }
}

// poll, not select: a descriptor above select's fixed set size is waited on like any other.
TEST_P(Receive, DescriptorAbove1024IsWaitedOn) {
  constexpr int kHighFd = 1500;
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_cur <= kHighFd) {
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max <= kHighFd) GTEST_SKIP() << "descriptor limit";
    limit.rlim_cur = kHighFd + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  SocketPair pair;
  ASSERT_EQ(dup2(pair.local(), kHighFd), kHighFd);
  vemo::FrameReader reader(kHighFd);
  LogCapture log;
  EXPECT_EQ(receive(GetParam(), reader, 0), VEMO_ERR_RECV_TIMEOUT);
  ASSERT_TRUE(write_all(pair.peer(), frame_of("{\"high\":1500}")));
  std::string text;
  EXPECT_EQ(receive(GetParam(), reader, 1000, &text), 0);
  EXPECT_EQ(text, "{\"high\":1500}");
  close(kHighFd);
  EXPECT_EQ(golden(log, "ERROR"), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Both, Receive, ::testing::Values(kExported, kReader),
                         [](const ::testing::TestParamInfo<Kind> &info) {
                           return info.param == kExported ? "Exported" : "Reader";
                         });

TEST(IpcSocketRecv, NullOutputIsRefused) {
  SocketPair pair;
  LogCapture log;
  EXPECT_EQ(ipc_socket_recv(pair.local(), nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(ipc_socket_recv_timed(pair.local(), 0, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(golden(log), (Lines{"ERROR ipc_socket_recv: the output is NULL",
                                "ERROR ipc_socket_recv_timed: the output is NULL"}));
}

// Frames already queued cost one receive and no wait; a time-out keeps the part of a frame read
// so far for the next call.
TEST(FrameReader, ReadsInChunksAndKeepsAPartialFrameAcrossATimeout) {
  SocketPair pair;
  vemo::FrameReader reader(pair.local());
  LogCapture log;
  ASSERT_TRUE(write_all(pair.peer(), frame_of("1") + frame_of("22") + frame_of("333")));
  SysFaults sys;
  std::string a, b, c;
  EXPECT_EQ(receive(kReader, reader, kBlock, &a) + receive(kReader, reader, kBlock, &b) +
                receive(kReader, reader, kBlock, &c), 0);
  EXPECT_EQ(a + b + c, "122333");
  EXPECT_EQ(sys.recv.calls.load(), 1);
  EXPECT_EQ(sys.poll.calls.load(), 0);
  EXPECT_EQ(receive(kReader, reader, 0), VEMO_ERR_RECV_TIMEOUT);  // one wait, no receive
  EXPECT_EQ(sys.recv.calls.load(), 1);
  EXPECT_EQ(sys.poll.calls.load(), 1);
  const std::string wire = frame_of(kSmall);
  for (size_t cut : {1u, 4u, 9u}) {
    ASSERT_TRUE(write_all(pair.peer(), wire.substr(0, cut)));
    EXPECT_EQ(receive(kReader, reader, 10), VEMO_ERR_RECV_TIMEOUT);
    ASSERT_TRUE(write_all(pair.peer(), wire.substr(cut)));
    EXPECT_EQ(receive(kReader, reader, 1000, &a), 0);
    EXPECT_EQ(a, kSmall) << cut;
  }
  EXPECT_EQ(golden(log, "ERROR"), Lines{});
}

}  // namespace
