// Receiving frames, by the exported one-frame receive and by a connection's FrameReader: both
// must make the same of the same byte stream (results, texts, log lines and the functions that
// write them), whether the stream ends, breaks or is interrupted anywhere in a frame.
#include <errno.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include "ipc/frame_reader.h"
#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "vemo/ipc_socket.h"

namespace {

using vemo::FrameReader;
using vemo_test::frame_of;
using vemo_test::frame_with_length;
using vemo_test::LogCapture;
using vemo_test::SocketPair;
using vemo_test::SysFaults;
using vemo_test::write_all;
using Messages = std::vector<std::string>;

enum class Kind { kExported, kReader };

// A pointer value the exported receive must either leave alone or clear; never dereferenced.
char g_marker;
char *const kUntouched = &g_marker;

// A fresh socket pair whose local end receives with the receiver under test.
struct End {
  explicit End(Kind kind) : kind(kind), reader(pair.local()) {}
  int receive(std::string *text = nullptr, int timeout_ms = 5000) {
    if (kind == Kind::kExported) {
      char *out = kUntouched;
      int rc = ipc_socket_recv(pair.local(), &out);
      if (rc == 0 && text != nullptr) *text = out;
      if (rc == 0) free(out);
      if (rc != 0) EXPECT_TRUE(out == kUntouched || out == nullptr);
      cleared = out == nullptr;
      return rc;
    }
    const char *out = nullptr;
    uint32_t length = 0;
    int rc = reader.next(timeout_ms, &out, &length);
    if (rc == 0 && text != nullptr) text->assign(out, length);
    return rc;
  }
  Kind kind;
  SocketPair pair;
  FrameReader reader;
  bool cleared = false;  // the exported receive set the caller's pointer to NULL
};

// The ERROR lines in order, "fail to receive buffer" under recv_buffer and the rest under
// ipc_socket_recv.
void expect_errors(LogCapture &log, const Messages &expected) {
  EXPECT_EQ(log.messages("", "ERROR"), expected);
  Messages step, receive;
  for (const std::string &m : expected)
    (m.rfind("fail to receive buffer", 0) == 0 ? step : receive).push_back(m);
  EXPECT_EQ(log.messages("recv_buffer", "ERROR"), step);
  EXPECT_EQ(log.messages("ipc_socket_recv", "ERROR"), receive);
}

class Receive : public ::testing::TestWithParam<Kind> {};

const std::string kSmall = "{\"a\":1}";  // 6 header bytes and 7 payload bytes on the wire

// Bytes a peer wrote before closing, and what the receives that follow make of them: the
// texts of the frames, then one result that is not 0 (quiet or with its lines). The exported
// receive clears the caller's pointer only for a failure in the payload step.
struct StreamCase {
  const char *name;
  std::string wire;
  Messages texts;
  int end_code;
  Messages errors;
  bool cleared;
};

TEST_P(Receive, ByteStreamsEndAsTheTransportSays) {
  const std::string big(100000, 'b');
  const StreamCase cases[] = {
      {"one frame", frame_of("{\"id\":42}"), {"{\"id\":42}"}, VEMO_ERR_PEER_CLOSED, {}, false},
      {"frames in one write", frame_of("{\"n\":1}") + frame_of("") + frame_of("x"),
       {"{\"n\":1}", "", "x"}, VEMO_ERR_PEER_CLOSED, {}, false},
      {"frame above the chunk", frame_of(big) + frame_of(kSmall), {big, kSmall},
       VEMO_ERR_PEER_CLOSED, {}, false},
      {"end after the magic", "\xA1\xB2", {}, VEMO_ERR_PEER_CLOSED, {}, false},
      {"end after the length", frame_with_length(5), {}, VEMO_ERR_PEER_CLOSED, {}, true},
      {"bad magic", frame_of(kSmall) + "\xB2\xA1rest", {kSmall}, VEMO_ERR_BAD_FORMAT,
       {"the magic does not match"}, false},
      {"cut magic", "\xA1", {}, VEMO_ERR_SHORT_READ, {"fail to receive the magic, code=1"}, false},
      {"cut length", std::string("\xA1\xB2\x00\x00", 4), {}, VEMO_ERR_SHORT_READ,
       {"fail to receive the length, code=2"}, false},
      {"cut payload", frame_with_length(10, "abc"), {}, VEMO_ERR_SHORT_READ,
       {"fail to receive the message, code=3"}, true},
      {"cut large payload", frame_with_length(100000, big.substr(0, 70000)), {},
       VEMO_ERR_SHORT_READ, {"fail to receive the message, code=70000"}, true},
  };
  for (const StreamCase &c : cases) {
    SCOPED_TRACE(c.name);
    End end(GetParam());
    LogCapture log;
    std::thread writer([&] {
      write_all(end.pair.peer(), c.wire);
      end.pair.close_peer();
    });
    Messages texts;
    std::string text;
    int rc;
    while ((rc = end.receive(&text)) == 0) texts.push_back(text);
    writer.join();
    EXPECT_EQ(texts, c.texts);
    EXPECT_EQ(rc, c.end_code);
    expect_errors(log, c.errors);
    if (end.kind == Kind::kExported) EXPECT_EQ(end.cleared, c.cleared);
    Messages received;
    for (const std::string &t : c.texts)
      received.push_back("IPC receive from " + std::to_string(end.pair.local()) + ": " + t);
    EXPECT_TRUE(log.messages("ipc_socket_recv", "INFO") == received);
  }
}

// Scripted failures of the receive, one byte per call so that call k takes byte k of the frame:
// an interruption anywhere is retried; any other failure names the piece and its bytes.
TEST_P(Receive, FailuresAnywhereInAFrame) {
  struct Case {
    int error;
    int after;
    const char *line;
  };
  std::vector<Case> cases = {
      {ECONNRESET, 0, "fail to receive the magic, code=-1"},
      {ECONNRESET, 1, "fail to receive the magic, code=1"},
      {ECONNRESET, 2, "fail to receive the length, code=-1"},
      {ECONNRESET, 5, "fail to receive the length, code=3"},
      {ECONNRESET, 6, "fail to receive the message, code=-1"},
      {ECONNRESET, 10, "fail to receive the message, code=4"},
  };
  for (int after = 0; after < 13; ++after) cases.push_back({EINTR, after, nullptr});
  for (const Case &c : cases) {
    SCOPED_TRACE(std::to_string(c.error) + " after " + std::to_string(c.after));
    End end(GetParam());
    LogCapture log;
    SysFaults sys;
    sys.recv_chunk = 1;
    sys.recv.fail_with(c.error, 2, c.after);
    ASSERT_TRUE(write_all(end.pair.peer(), frame_of(kSmall)));
    std::string text;
    EXPECT_EQ(end.receive(&text), c.line == nullptr ? 0 : VEMO_ERR_SHORT_READ);
    if (c.line == nullptr) EXPECT_EQ(text, kSmall);
    expect_errors(log, c.line == nullptr ? Messages{}
                                         : Messages{"fail to receive buffer, error=104", c.line});
  }
}

TEST_P(Receive, EagainAndInterruptedWaitsAreWaitedOut) {
  End end(GetParam());
  LogCapture log;
  SysFaults sys;
  sys.recv.fail_with(EAGAIN, 3);
  sys.poll.fail_with(EINTR, 1);
  ASSERT_TRUE(write_all(end.pair.peer(), frame_of(kSmall)));
  std::string text;
  EXPECT_EQ(end.receive(&text), 0);
  EXPECT_EQ(text, kSmall);
  EXPECT_EQ(sys.poll.calls.load(), 4);
  EXPECT_EQ(sys.last_poll_events.load(), POLLIN);
  expect_errors(log, {});
}

TEST_P(Receive, NoMemoryForAFrameFailsItAndClearsTheOutput) {
  End end(GetParam());
  LogCapture log;
  SysFaults sys;
  sys.malloc.fail_with(ENOMEM, 1, GetParam() == Kind::kReader ? 1 : 0);  // not the chunk
  ASSERT_TRUE(write_all(end.pair.peer(), frame_of(std::string(100000, 'm'))));  // fits the queue
  EXPECT_EQ(end.receive(), VEMO_ERR_NO_RESOURCE);
  expect_errors(log, {"fail to malloc, size=100001"});
  EXPECT_EQ(end.cleared, GetParam() == Kind::kExported);
}

// A hostile length must not cost memory, and nothing after it can be trusted.
TEST_P(Receive, OversizeLengthIsRefusedBeforeAllocating) {
  for (uint32_t length : {0xFFFFFFFFu, IPC_FRAME_MAX_PAYLOAD + 1}) {
    End end(GetParam());
    LogCapture log;
    SysFaults sys;
    // Any allocation for the frame would fail and show; the reader's own chunk may be made.
    sys.malloc.fail_with(ENOMEM, 100, GetParam() == Kind::kReader ? 1 : 0);
    ASSERT_TRUE(write_all(end.pair.peer(), frame_with_length(length, "junk") + frame_of("{}")));
    EXPECT_EQ(end.receive(), VEMO_ERR_BAD_FORMAT);
    expect_errors(log, {"the length of the message is too long, size=" + std::to_string(length)});
    // The exported receive shuts the stream for reading; the reader stays failed.
    EXPECT_EQ(end.receive(), GetParam() == Kind::kExported ? VEMO_ERR_PEER_CLOSED
                                                          : VEMO_ERR_BAD_FORMAT);
    EXPECT_EQ(log.messages().size(), 1u);
  }
}

TEST_P(Receive, LargestFrameRoundTrips) {
  End end(GetParam());
  LogCapture log;
  const std::string text(IPC_FRAME_MAX_PAYLOAD, 'x');
  std::thread sender([&] { EXPECT_EQ(ipc_socket_send(end.pair.peer(), text.c_str()), 0); });
  std::string got;
  EXPECT_EQ(end.receive(&got), 0);
  sender.join();
  EXPECT_TRUE(got == text);
}

INSTANTIATE_TEST_SUITE_P(Both, Receive, ::testing::Values(Kind::kExported, Kind::kReader),
                         [](const ::testing::TestParamInfo<Kind> &info) {
                           return info.param == Kind::kExported ? "Exported" : "Reader";
                         });

// --- what only the exported receive promises ------------------------------------------------

TEST(IpcSocketRecv, BadMagicAndNullOutputTakeNoMoreThanTheyMust) {
  SocketPair pair;
  LogCapture log;
  ASSERT_TRUE(write_all(pair.peer(), "\xB2\xA1" + frame_of("{}")));
  char *out = kUntouched;
  EXPECT_EQ(ipc_socket_recv(pair.local(), &out), VEMO_ERR_BAD_FORMAT);  // two bytes taken
  EXPECT_EQ(ipc_socket_recv(pair.local(), nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(ipc_socket_recv_timed(pair.local(), 0, nullptr), VEMO_ERR_INVALID_ARG);
  EXPECT_EQ(log.messages("", "ERROR"),
            (Messages{"the magic does not match", "the output is NULL", "the output is NULL"}));
  EXPECT_EQ(ipc_socket_recv(pair.local(), &out), 0);
  EXPECT_STREQ(out, "{}");
  free(out);
}

// --- what only the reader does ---------------------------------------------------------------

TEST(FrameReader, FramesAlreadyQueuedCostOneReceiveAndAnEmptySocketOnePoll) {
  End end(Kind::kReader);
  LogCapture log;
  ASSERT_TRUE(write_all(end.pair.peer(), frame_of("1") + frame_of("22") + frame_of("333")));
  SysFaults sys;
  std::string a, b, c;
  EXPECT_EQ(end.receive(&a), 0);
  EXPECT_EQ(end.receive(&b), 0);
  EXPECT_EQ(end.receive(&c), 0);
  EXPECT_EQ(a + b + c, "122333");
  EXPECT_EQ(sys.recv.calls.load(), 1);
  EXPECT_EQ(sys.poll.calls.load(), 0);
  EXPECT_EQ(end.receive(nullptr, 0), VEMO_ERR_RECV_TIMEOUT);
  EXPECT_EQ(sys.recv.calls.load(), 1);
  EXPECT_EQ(sys.poll.calls.load(), 1);
}

TEST(FrameReader, TimeoutKeepsThePartOfAFrameReadSoFar) {
  End end(Kind::kReader);
  LogCapture log;
  const std::string wire = frame_of(kSmall);
  for (size_t cut : {1u, 4u, 9u}) {
    SCOPED_TRACE(cut);
    ASSERT_TRUE(write_all(end.pair.peer(), wire.substr(0, cut)));
    EXPECT_EQ(end.receive(nullptr, 10), VEMO_ERR_RECV_TIMEOUT);
    ASSERT_TRUE(write_all(end.pair.peer(), wire.substr(cut)));
    std::string text;
    EXPECT_EQ(end.receive(&text, 1000), 0);
    EXPECT_EQ(text, kSmall);
  }
  EXPECT_EQ(log.messages("", "ERROR"), Messages{});
}

// Heap bytes in use, mapped blocks included (a large frame's buffer is one of those).
size_t heap_in_use() {
  struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(FrameReader, LargeFrameMemoryIsGivenBackAndCanBeTakenOver) {
  End end(Kind::kReader);
  LogCapture log;
  const std::string large(3 * 1024 * 1024, 'L');
  ASSERT_TRUE(write_all(end.pair.peer(), frame_of(kSmall)));
  ASSERT_EQ(end.receive(), 0);  // the chunk is there from now on
  const size_t before = heap_in_use();
  std::thread writer([&] { write_all(end.pair.peer(), frame_of(large) + frame_of(kSmall)); });
  const char *inside = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(end.reader.next(5000, &inside, &length), 0);
  ASSERT_EQ(length, large.size());
  char *taken = end.reader.take_text();
  EXPECT_EQ(taken, inside);  // handed over, not copied
  free(taken);
  ASSERT_EQ(end.reader.next(5000, &inside, &length), 0);
  writer.join();
  char *copy = end.reader.take_text();
  EXPECT_NE(copy, inside);
  EXPECT_STREQ(copy, kSmall.c_str());
  free(copy);
#if !defined(VEMO_SANITIZER_BUILD)  // the sanitizers' allocators do not keep these counts
  EXPECT_LT(heap_in_use(), before + FrameReader::kChunkSize);
#else
  (void)before;
#endif
}

}  // namespace
