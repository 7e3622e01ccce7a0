// Opening the service end and the client end on socket files, and the failure of each step.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>

#include "support/socket_pair.h"
#include "support/sys_faults.h"
#include "unit/golden.h"
#include "vemo/ipc_socket.h"

namespace {

using namespace vemo_test;
using vemo_unit::golden;
using vemo_unit::Lines;

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
  const struct {
    const char *path;
    std::function<void(SysFaults &)> fault;
    const char *before;  // what is at the path first: nothing, "file" or "socket" (nobody listens)
    int server_code, client_code;
    std::string line;
  } rows[] = {
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
