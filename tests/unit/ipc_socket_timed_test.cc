// Receiving with a time limit, by ipc_socket_recv_timed and by a FrameReader: the wait itself,
// its failures, and descriptors above the fixed-size descriptor sets of select.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ipc/frame_reader.h"
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

// Waits on fd for timeout_ms with the exported timed receive or a reader; the text on success.
int timed_receive(bool reader, int fd, int timeout_ms, std::string *text = nullptr) {
  if (reader) {
    vemo::FrameReader frames(fd);
    const char *out = nullptr;
    uint32_t length = 0;
    int rc = frames.next(timeout_ms, &out, &length);
    if (rc == 0 && text != nullptr) text->assign(out, length);
    return rc;
  }
  char *out = kUntouched;
  int rc = ipc_socket_recv_timed(fd, timeout_ms, &out);
  if (rc == 0 && text != nullptr) *text = out;
  if (rc == 0) free(out);
  EXPECT_TRUE(rc == 0 || out == kUntouched);  // nothing is stored on failure
  return rc;
}

TEST(IpcSocketTimed, WaitsAndTheirFailures) {
  const std::string frame = frame_of("{\"t\":1}"), none;
  const Messages select_failed = {"fail to select, error=-1"};
  const struct {
    const char *name;
    int fd;  // 0: the pair's local end; -1: none; 1: a descriptor no longer open
    int timeout_ms;
    const std::string *peer;  // what the peer wrote before the wait; null: it closed
    int code;
    int reader_code;  // the reader tries a receive first, and waits out an interrupted wait
    bool interrupted;
  } cases[] = {
      {"frame queued", 0, 1500, &frame, 0, 0},
      {"nothing, timeout 0", 0, 0, &none, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"nothing, timeout 10", 0, 10, &none, VEMO_ERR_RECV_TIMEOUT, VEMO_ERR_RECV_TIMEOUT},
      {"peer closed", 0, 5000, nullptr, VEMO_ERR_PEER_CLOSED, VEMO_ERR_PEER_CLOSED},
      {"negative timeout", 0, -1, &frame, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NO_RESOURCE},
      {"negative descriptor", -1, 50, &none, VEMO_ERR_NO_RESOURCE, VEMO_ERR_NO_RESOURCE},
      {"closed descriptor", 1, 50, &none, VEMO_ERR_NO_RESOURCE, VEMO_ERR_SHORT_READ},
      {"interrupted wait", 0, 20, &none, VEMO_ERR_NO_RESOURCE, VEMO_ERR_RECV_TIMEOUT, true},
  };
  for (const auto &c : cases) {
    for (bool reader : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (reader ? " (reader)" : ""));
      SocketPair pair;
      LogCapture log;
      if (c.peer == nullptr) pair.close_peer();
      ASSERT_TRUE(c.peer == nullptr || write_all(pair.peer(), *c.peer));
      int fd = c.fd < 0 ? -1 : pair.local();
      if (c.fd == 1) close(fd = dup(pair.local()));
      SysFaults sys;
      if (c.interrupted) sys.poll.fail_with(EINTR);
      std::string text;
      const int code = reader ? c.reader_code : c.code;
      EXPECT_EQ(timed_receive(reader, fd, c.timeout_ms, &text), code);
      if (code == 0) EXPECT_EQ(frame_of(text), frame);
      if (code == VEMO_ERR_RECV_TIMEOUT) EXPECT_NEAR(sys.last_poll_timeout.load(), c.timeout_ms, 1);
      if (sys.poll.calls > 0) EXPECT_EQ(sys.last_poll_events.load(), POLLIN);
      // Never a wait without limit, and no line for a quiet timeout.
      if (c.timeout_ms < 0 || fd < 0) EXPECT_EQ(sys.poll.calls.load(), 0);
      Messages errors;
      if (code == VEMO_ERR_NO_RESOURCE) errors = select_failed;
      if (code == VEMO_ERR_SHORT_READ)
        errors = {"fail to receive buffer, error=9", "fail to receive the magic, code=-1"};
      EXPECT_EQ(log.messages("", "ERROR"), errors);
      EXPECT_EQ(log.messages("ipc_socket_recv_timed", "ERROR").size(),
                code == VEMO_ERR_NO_RESOURCE ? 1u : 0u);
    }
  }
}

TEST(IpcSocketTimed, DescriptorAbove1024IsWaitedOn) {
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
  SocketPair pair;
  LogCapture log;
  ASSERT_EQ(dup2(pair.local(), kHighFd), kHighFd);
  for (bool reader : {false, true}) {
    EXPECT_EQ(timed_receive(reader, kHighFd, 0), VEMO_ERR_RECV_TIMEOUT);
    ASSERT_TRUE(write_all(pair.peer(), frame_of("{\"high\":1500}")));
    std::string text;
    EXPECT_EQ(timed_receive(reader, kHighFd, 1000, &text), 0);
    EXPECT_EQ(text, "{\"high\":1500}");
  }
  close(kHighFd);
  EXPECT_EQ(log.messages("", "ERROR"), Messages{});
}

}  // namespace
