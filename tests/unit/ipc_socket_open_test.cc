// Opening the service end and the client end on socket files, and the failures of each step.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "vemo/ipc_socket.h"

namespace {

using vemo_test::LogCapture;
using vemo_test::open_descriptor_count;
using vemo_test::SysFaults;
using vemo_test::TempSocketPath;
using Messages = std::vector<std::string>;

constexpr size_t kLongestPath = sizeof(sockaddr_un{}.sun_path) - 1;

bool file_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// A path of exactly length characters inside dir (which must be short enough).
std::string path_of_length(const std::string &dir, size_t length) {
  std::string path = dir + "/";
  path.append(length - path.size(), 'p');
  return path;
}

class IpcSocketOpen : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(path_.directory().empty()); }
  TempSocketPath path_;
  LogCapture log_;
};

TEST_F(IpcSocketOpen, ServerAndClientConnectAndExchangeFrames) {
  SysFaults sys;
  int server = ipc_socket_init_as_server(path_.c_str());
  ASSERT_GE(server, 0) << log_.text();
  EXPECT_EQ(sys.last_bind_length.load(), static_cast<int>(2 + path_.path().size()));
  int client = ipc_socket_init_as_client(path_.c_str());
  ASSERT_GE(client, 0) << log_.text();
  EXPECT_EQ(sys.last_connect_length.load(), static_cast<int>(2 + path_.path().size()));

  // The listening end is non-blocking, yet the queued connection is there to accept.
  int service = accept(server, nullptr, nullptr);
  ASSERT_GE(service, 0);
  ASSERT_EQ(ipc_socket_send(client, "{\"ping\":1}"), 0);
  char *text = nullptr;
  ASSERT_EQ(ipc_socket_recv_timed(service, 1000, &text), 0);
  EXPECT_STREQ(text, "{\"ping\":1}");
  free(text);
  ASSERT_EQ(ipc_socket_send(service, "{\"pong\":1}"), 0);
  text = nullptr;
  ASSERT_EQ(ipc_socket_recv(client, &text), 0);
  EXPECT_STREQ(text, "{\"pong\":1}");
  free(text);
  EXPECT_EQ(log_.messages("", "ERROR"), Messages{});

  close(service);
  close(client);
  close(server);
  EXPECT_TRUE(file_exists(path_.path()));  // the transport never removes the socket file
}

TEST_F(IpcSocketOpen, ServerEndListensNonBlockingClientEndBlocksBothCloseOnExec) {
  int server = ipc_socket_init_as_server(path_.c_str());
  ASSERT_GE(server, 0);
  int client = ipc_socket_init_as_client(path_.c_str());
  ASSERT_GE(client, 0);
  int listening = 0;
  socklen_t size = sizeof listening;
  ASSERT_EQ(getsockopt(server, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size), 0);
  EXPECT_EQ(listening, 1);
  EXPECT_NE(fcntl(server, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(client, F_GETFL) & O_NONBLOCK, 0);
  for (int fd : {server, client}) EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  close(client);
  close(server);
}

TEST_F(IpcSocketOpen, ServerOnExistingFileFailsToBindAndKeepsTheFile) {
  FILE *f = fopen(path_.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  int before = open_descriptor_count();
  EXPECT_EQ(ipc_socket_init_as_server(path_.c_str()), VEMO_ERR_NO_SERVER);
  EXPECT_EQ(open_descriptor_count(), before);
  EXPECT_TRUE(file_exists(path_.path()));
  EXPECT_EQ(log_.messages("ipc_socket_init_as_server", "ERROR"),
            Messages{"fail to bind the unix socket, error=" + std::to_string(EADDRINUSE)});
}

// A failed step closes what the earlier steps opened, and says which step failed.
TEST_F(IpcSocketOpen, FailedStepsLeakNoDescriptor) {
  const struct {
    bool server;
    int errno_value;
    vemo_test::CallScript SysFaults::*call;
    int code;
    std::string line;
  } cases[] = {
      {true, EMFILE, &SysFaults::socket, VEMO_ERR_NO_SERVER,
       "fail to create the unix socket, error=24"},
      {true, EOPNOTSUPP, &SysFaults::listen, VEMO_ERR_NO_SERVER,
       "fail to listen to the unix socket, error=" + std::to_string(EOPNOTSUPP)},
      {false, ENFILE, &SysFaults::socket, VEMO_ERR_NO_RESOURCE,
       "fail to create the unix socket, error=23"},
      {false, 0, nullptr, VEMO_ERR_DISCONNECTED,  // no socket file
       "fail to connect the unix socket, error=" + std::to_string(ENOENT)},
      {false, ECONNREFUSED, nullptr, VEMO_ERR_DISCONNECTED,  // a file, but nobody listens
       "fail to connect the unix socket, error=" + std::to_string(ECONNREFUSED)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.line);
    log_.clear();
    SysFaults sys;
    if (c.call != nullptr) (sys.*c.call).fail_with(c.errno_value);
    if (c.errno_value == ECONNREFUSED) close(ipc_socket_init_as_server(path_.c_str()));
    int before = open_descriptor_count();
    EXPECT_EQ(c.server ? ipc_socket_init_as_server(path_.c_str())
                       : ipc_socket_init_as_client(path_.c_str()),
              c.code);
    EXPECT_EQ(open_descriptor_count(), before);
    EXPECT_EQ(log_.messages(c.server ? "ipc_socket_init_as_server" : "ipc_socket_init_as_client",
                            "ERROR"),
              Messages{c.line});
    unlink(path_.c_str());
  }
}

TEST_F(IpcSocketOpen, ServerWhoseFlagsCannotBeReadIsLeftBlocking) {
  SysFaults sys;
  sys.fcntl.fail_with(EBADF);  // F_GETFL
  int server = ipc_socket_init_as_server(path_.c_str());
  ASSERT_GE(server, 0);
  EXPECT_EQ(sys.fcntl.calls.load(), 1);  // no F_SETFL with a garbage flag word
  EXPECT_EQ(fcntl(server, F_GETFL) & O_NONBLOCK, 0);
  close(server);
}

TEST_F(IpcSocketOpen, LongestPathThatFitsIsAccepted) {
  std::string path = path_of_length(path_.directory(), kLongestPath);
  int server = ipc_socket_init_as_server(path.c_str());
  ASSERT_GE(server, 0) << log_.text();
  int client = ipc_socket_init_as_client(path.c_str());
  EXPECT_GE(client, 0) << log_.text();
  if (client >= 0) close(client);
  close(server);
  unlink(path.c_str());
}

TEST_F(IpcSocketOpen, UnusablePathsAreRefusedBeforeAnySocket) {
  const std::string overlong = path_of_length(path_.directory(), kLongestPath + 1);
  const struct {
    const char *path;
    std::string line;
  } cases[] = {
      {nullptr, "the socket path is NULL"},
      {"", "the socket path is empty"},
      {overlong.c_str(), "the socket path is too long, size=" + std::to_string(kLongestPath + 1)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.line);
    log_.clear();
    SysFaults sys;
    EXPECT_EQ(ipc_socket_init_as_server(c.path), VEMO_ERR_NO_SERVER);
    EXPECT_EQ(ipc_socket_init_as_client(c.path), VEMO_ERR_DISCONNECTED);
    EXPECT_EQ(sys.socket.calls.load(), 0);
    EXPECT_EQ(log_.messages("ipc_socket_init_as_server", "ERROR"), Messages{c.line});
    EXPECT_EQ(log_.messages("ipc_socket_init_as_client", "ERROR"), Messages{c.line});
  }
}

}  // namespace
