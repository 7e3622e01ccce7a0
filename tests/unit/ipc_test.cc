// The transport: frames received by the exported receive and by a connection's FrameReader (the
// same texts, codes and log lines for the same byte stream, however it ends, breaks, is
// interrupted or is waited on), frames sent with and without a deadline (the bytes on the wire,
// every failure, what a failure left behind), and opening both ends on socket files.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ipc/frame_reader.h"
#include "ipc/frame_send.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "unit/unit.h"
#include "vemo/ipc_socket.h"
#include "vemo/util.h"

namespace {

using namespace vemo_unit;

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
struct Row { std::string name, wire; std::function<void(SysFaults &, Kind)> fault; Lines texts; int code; Lines errors;
             bool cleared; int again; };

TEST_P(Receive, StreamsAndFaultsEndAsTheTransportSays) {
  const Kind kind = GetParam();
  const std::string big(100000, 'b'), largest(IPC_FRAME_MAX_PAYLOAD, 'x');
  const auto none = [](SysFaults &, Kind) {};
  const auto no_frame_memory = [](int count) {  // the reader's chunk is allocated first
    return [=](SysFaults &s, Kind k) { s.malloc.fail_with(ENOMEM, count, k == kReader ? 1 : 0); };
  };
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
      {"end after the magic", "\xA1\xB2", none, {}, closed, {}, false, 0},
      {"end after the length", frame_with_length(5), none, {}, closed, {}, true, 0},
      {"bad magic", frame_of(kSmall) + "\xB2\xA1rest", none, {kSmall}, VEMO_ERR_BAD_FORMAT,
       {"ERROR ipc_socket_recv: the magic does not match"}, false, 0},
      {"cut magic", "\xA1", none, {}, short_read, {failed("magic", 1)}, false, 0},
      {"cut length", std::string("\xA1\xB2\x00\x00", 4), none, {}, short_read, {failed("length", 2)}, false, 0},
      {"cut payload", frame_with_length(10, "abc"), none, {}, short_read, {failed("message", 3)}, true, 0},
      {"cut large payload", frame_with_length(100000, big.substr(0, 70000)), none, {}, short_read,
       {failed("message", 70000)}, true, 0},
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
  for (int after = 0; after < 13; ++after)  // byte by byte, an interruption anywhere in a frame is retried
    rows.push_back({"interrupted after byte " + std::to_string(after), frame_of(kSmall),
                    [=](SysFaults &s, Kind) { s.recv_chunk = 1, s.recv.fail_with(EINTR, 2, after); },
                    {kSmall}, closed, {}, false, 0});
  // A reset ends the frame with the step it cut and what that step had read.
  const struct { int after; const char *piece; int read; } resets[] = {
      {0, "magic", -1}, {1, "magic", 1}, {2, "length", -1}, {5, "length", 3}, {6, "message", -1}, {10, "message", 4}};
  for (const auto &r : resets)
    rows.push_back({"reset after byte " + std::to_string(r.after), frame_of(kSmall),
                    [=](SysFaults &s, Kind) { s.recv_chunk = 1, s.recv.fail_with(ECONNRESET, 2, r.after); }, {}, short_read,
                    {"ERROR recv_buffer: fail to receive buffer, error=104", failed(r.piece, r.read)}, r.after >= 6, 0});
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

// Makes descriptor 1500 possible: above select's fixed set size, poll must wait on it all the same.
constexpr int kHighFd = 1500;
bool high_descriptors() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  if (limit.rlim_cur > kHighFd) return true;
  limit.rlim_cur = kHighFd + 1;
  return (limit.rlim_max == RLIM_INFINITY || limit.rlim_max > kHighFd) && setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// A timed receive: the wait itself and its failures. The reader tries a receive before it waits
// and waits out an interrupted wait.
TEST_P(Receive, TimedWaitsAndTheirFailures) {
  const Kind kind = GetParam();
  const std::string frame = frame_of("{\"t\":1}");
  enum Fd { kLocal, kNegative, kClosed, kHigh };
  // peer 1: a frame is queued, -1: the peer closed, 0: quiet.
  const struct { const char *name; Fd fd; int timeout_ms, peer; bool interrupted; int code, reader_code; } rows[] = {
      {"frame queued", kLocal, 1500, 1, false, 0, 0},
      {"nothing, timeout 0", kLocal, 0, 0, false, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"nothing, timeout 10", kLocal, 10, 0, false, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"peer closed", kLocal, 5000, -1, false, VEMO_ERR_PEER_CLOSED, VEMO_ERR_PEER_CLOSED},
      {"negative timeout", kLocal, -1, 1, false, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NO_RESOURCE},
      {"negative descriptor", kNegative, 50, 0, false, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NO_RESOURCE},
      {"closed descriptor", kClosed, 50, 0, false, VEMO_ERR_NO_RESOURCE, VEMO_ERR_SHORT_READ},
      {"interrupted wait", kLocal, 20, 0, true, VEMO_ERR_NO_RESOURCE, VEMO_ERR_RECV_TIMEOUT},
      {"descriptor above 1024, quiet", kHigh, 0, 0, false, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"descriptor above 1024, frame queued", kHigh, 1000, 1, false, 0, 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    if (row.fd == kHigh && !high_descriptors()) continue;
    SocketPair pair;
    LogCapture log;  // first: a descriptor closed below must not be reused by it
    int fd = row.fd == kNegative ? -1 : row.fd == kHigh ? dup2(pair.local(), kHighFd) : pair.local();
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
    if (row.fd == kHigh) close(kHighFd);
  }
}

INSTANTIATE_TEST_SUITE_P(Both, Receive, ::testing::Values(kExported, kReader),
                         [](const ::testing::TestParamInfo<Kind> &info) {
                           return info.param == kExported ? "Exported" : "Reader";
                         });

TEST(IpcSocketRecv, NullOutputIsRefused) {
  expect_calls({{[] { return ipc_socket_recv(0, nullptr); }, VEMO_ERR_INVALID_ARG,
                 {"ERROR ipc_socket_recv: the output is NULL"}},
                {[] { return ipc_socket_recv_timed(0, 0, nullptr); }, VEMO_ERR_INVALID_ARG,
                 {"ERROR ipc_socket_recv_timed: the output is NULL"}}});
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



TEST(FrameSend, FaultsOnTheWireAndInTheLog) {
  const std::string text(0x102, 't'), oversize(IPC_FRAME_MAX_PAYLOAD + 1, 'o');
  const std::string frame = std::string("\xA1\xB2\x00\x00\x01\x02", 6) + text;  // big-endian length
  const auto none = [](SocketPair &, SysFaults &) {};
  const auto step = [](int error) { return "ERROR send_buffer: fail to send buffer, error=" + std::to_string(error); };
  const auto sent = [](int code) { return "ERROR ipc_socket_send: fail to send the message, code=" + std::to_string(code); };
  // wire: what the peer finds afterwards, the frame's bytes or the part of them.
  const struct { const char *name; std::function<void(SocketPair &, SysFaults &)> fault; const char *text;
      int timeout_ms, code; Lines errors; std::string wire; } rows[] = {
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
      {"deadline after part", [](SocketPair &, SysFaults &s) { s.send_chunk = 4, s.send.fail_with(EAGAIN, 1 << 30, 1); },
       text.c_str(), 30, VEMO_ERR_DISCONNECTED, {step(ETIMEDOUT), sent(4)}, frame.substr(0, 4)},
  };
  struct sigaction dfl = {}, old = {};  // SIGPIPE's default action ends the test
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &dfl, &old);
  for (const auto &row : rows) {
    for (bool exported : {false, true}) {
      if (exported && row.timeout_ms != 1000) continue;  // the exported send has no deadline
      SCOPED_TRACE(std::string(row.name) + (exported ? " (exported)" : ""));
      SocketPair pair;
      LogCapture log;
      SysFaults sys;
      row.fault(pair, sys);
      bool cut = true;
      const uint32_t start = get_tick_count();
      int rc = exported ? ipc_socket_send(pair.local(), row.text)
                        : vemo::frame_send(pair.local(), row.text,
                                           vemo::Deadline::after_ms(row.timeout_ms, get_tick_count()), &cut);
      EXPECT_EQ(rc, row.code);
      if (row.timeout_ms == 30) EXPECT_GE(get_tick_count() - start, 30u);
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

constexpr size_t kLongestPath = sizeof(sockaddr_un{}.sun_path) - 1;

// Both ends on the longest path that fits: the server listens non-blocking, the client blocks,
// both close on exec, the address length counts the path without its terminator, and the file
// stays where it is.
TEST(IpcSocketOpen, EndsOnTheLongestPathConnect) {
  TempSocketPath dir;
  LogCapture log;
  std::string path = dir.directory() + "/";
  path.append(kLongestPath - path.size(), 'p');
  SysFaults sys;
  const int server = ipc_socket_init_as_server(path.c_str()), client = ipc_socket_init_as_client(path.c_str());
  ASSERT_GE(server, 0);
  ASSERT_GE(client, 0);
  EXPECT_EQ(sys.last_bind_length.load(), static_cast<int>(2 + kLongestPath));
  EXPECT_EQ(sys.last_connect_length.load(), static_cast<int>(2 + kLongestPath));
  int listening = 0;
  socklen_t size = sizeof listening;
  ASSERT_EQ(getsockopt(server, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size), 0);
  EXPECT_EQ(listening, 1);
  EXPECT_NE(fcntl(server, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(client, F_GETFL) & O_NONBLOCK, 0);
  for (int fd : {server, client}) EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  const int service = accept(server, nullptr, nullptr);  // queued, though the server does not block
  ASSERT_GE(service, 0);
  EXPECT_EQ(golden(log, "ERROR"), Lines{});
  for (int fd : {service, client, server}) close(fd);
  EXPECT_EQ(access(path.c_str(), F_OK), 0);  // the transport never removes the socket file
}

// A refused path opens no socket; a failed step closes what the earlier ones opened.
TEST(IpcSocketOpen, RefusalsAndFailedStepsLeakNothing) {
  TempSocketPath dir;
  const std::string overlong = dir.directory() + "/" + std::string(kLongestPath - dir.directory().size(), 'p');
  const auto fail = [](CallScript SysFaults::*call, int error) {
    return [=](SysFaults &s) { (s.*call).fail_with(error); };
  };
  const auto none = [](SysFaults &) {};
  // before: what is at the path first, nothing, "file" or "socket" (nobody listens).
  const struct { const char *path; std::function<void(SysFaults &)> fault; const char *before;
      int server_code, client_code; std::string line; } rows[] = {
      {nullptr, none, "", VEMO_ERR_NO_SERVER, VEMO_ERR_DISCONNECTED, "the socket path is NULL"},
      {"", none, "", VEMO_ERR_NO_SERVER, VEMO_ERR_DISCONNECTED, "the socket path is empty"},
      {overlong.c_str(), none, "", VEMO_ERR_NO_SERVER, VEMO_ERR_DISCONNECTED,
       "the socket path is too long, size=" + std::to_string(kLongestPath + 1)},
      {dir.c_str(), fail(&SysFaults::socket, EMFILE), "", VEMO_ERR_NO_SERVER, VEMO_ERR_NO_RESOURCE,
       "fail to create the unix socket, error=24"},
      {dir.c_str(), fail(&SysFaults::listen, EOPNOTSUPP), "", VEMO_ERR_NO_SERVER, 0,
       "fail to listen to the unix socket, error=" + std::to_string(EOPNOTSUPP)},
      {dir.c_str(), none, "file", VEMO_ERR_NO_SERVER, 0,
       "fail to bind the unix socket, error=" + std::to_string(EADDRINUSE)},
      {dir.c_str(), none, "", 0, VEMO_ERR_DISCONNECTED, "fail to connect the unix socket, error=" + std::to_string(ENOENT)},
      {dir.c_str(), none, "socket", 0, VEMO_ERR_DISCONNECTED,
       "fail to connect the unix socket, error=" + std::to_string(ECONNREFUSED)},
  };
  for (const auto &row : rows) {
    for (bool server : {true, false}) {
      const int code = server ? row.server_code : row.client_code;
      if (code == 0) continue;
      SCOPED_TRACE(row.line + (server ? " (server)" : " (client)"));
      LogCapture log;
      if (row.before == std::string("file")) close(open(dir.c_str(), O_CREAT | O_WRONLY, 0600));
      if (row.before == std::string("socket")) close(ipc_socket_init_as_server(dir.c_str()));
      const int descriptors = open_descriptor_count();
      SysFaults sys;
      row.fault(sys);
      EXPECT_EQ(server ? ipc_socket_init_as_server(row.path) : ipc_socket_init_as_client(row.path), code);
      EXPECT_EQ(open_descriptor_count(), descriptors);
      if (row.path != dir.c_str()) EXPECT_EQ(sys.socket.calls.load(), 0);
      EXPECT_EQ(golden(log), Lines{std::string("ERROR ipc_socket_init_as_") + (server ? "server: " : "client: ") + row.line});
      if (*row.before != '\0') EXPECT_EQ(access(dir.c_str(), F_OK), 0);  // a file in the way is kept
      unlink(dir.c_str());
    }
  }
}

TEST(IpcSocketOpen, ServerWhoseFlagsCannotBeReadIsLeftBlocking) {
  TempSocketPath dir;
  SysFaults sys;
  sys.fcntl.fail_with(EBADF);  // F_GETFL
  const int server = ipc_socket_init_as_server(dir.c_str());
  ASSERT_GE(server, 0);
  EXPECT_EQ(sys.fcntl.calls.load(), 1);  // no F_SETFL with a garbage flag word
  EXPECT_EQ(fcntl(server, F_GETFL) & O_NONBLOCK, 0);
  close(server);
}

}  // namespace
