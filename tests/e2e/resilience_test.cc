// Faults a long-running device process meets, over the real socket: the daemon restarting, a
// registration racing a teardown the daemon ordered, the socket landing on descriptor 0, and a
// stranger serving the socket path.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "support/e2e_fixture.h"
#include "vemo/vemo_ext.h"

namespace vemo_e2e {
namespace {

class Resilience : public E2ETest {};

void echo(const char *request, char **response) { *response = strdup(request); }

bool answered(CloudDaemon &daemon, int id, const std::string &text) {
  daemon.set_next_cloud_request_id(id);
  daemon.send_cloud_request(text);
  std::optional<Received> reply = daemon.wait_for_reply(id, kWaitMs);
  return reply.has_value() && reply->response == text;
}

// The daemon goes away and a new one binds the path: a listen-only application is served again
// without doing anything, and a caller simply connects to the new daemon.
TEST_F(Resilience, RestartedDaemonGetsTheRegistrationAgain) {
  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  for (int restart = 1; restart <= 3; ++restart) {
    const size_t seen = daemon_.received().size();  // the log outlives a restart
    daemon_.stop();
    ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
    ASSERT_TRUE(daemon_.wait_for_method("register_callback", 6000, seen).has_value()) << restart;
    EXPECT_TRUE(answered(daemon_, restart, "again " + std::to_string(restart)));
  }
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("after the restarts", 3000, 0, &text));
  EXPECT_STREQ("after the restarts", text);
  free(text);
}

// A registration made while a teardown ordered by the daemon runs: a call that returns 0 leaves
// its handler answering, and one that fails leaves none.
TEST_F(Resilience, RegistrationDuringAnOrderedTeardownKeepsItsWord) {
  constexpr int kRounds = 20;
  for (int round = 1; round <= kRounds; ++round) {
    ASSERT_EQ(0, vemo_reconnect_cloud());
    ASSERT_EQ(1, daemon_.send_server_notify(1));
    ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "begin to destroy the client...", round));
    const int rc = vemo_register_callback(echo, nullptr);
    if (rc == 0) {
      EXPECT_TRUE(answered(daemon_, 100 + round, "round " + std::to_string(round))) << "round " << round;
    } else {
      EXPECT_EQ(VEMO_ERR_DISCONNECTED, rc) << "round " << round;
      const int before = CountLogged("", "WARN", "the function is NULL");
      ASSERT_EQ(0, vemo_reconnect_cloud());
      daemon_.send_cloud_request("nobody home");
      EXPECT_TRUE(WaitLogged("", "WARN", "the function is NULL", before + 1)) << "round " << round;
    }
    vemo_unregister_callback();
  }
}

// A daemonised process that closed its standard input gets its socket on descriptor 0, which
// works like any other and is closed by the teardown.
TEST_F(Resilience, DescriptorZeroIsAConnectionLikeAnyOther) {
  const int saved = dup(0);
  ASSERT_GE(saved, 0);
  close(0);
  ASSERT_EQ(0, vemo_reconnect_cloud());
  EXPECT_NE(-1, fcntl(0, F_GETFD)) << "the client's socket is not on descriptor 0";
  char *text = nullptr;
  EXPECT_EQ(0, vemo_send_request_sync("on zero", 3000, 0, &text));
  free(text);
  ASSERT_EQ(1, daemon_.send_server_notify(1));
  ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "end to destroy the client..."));
  EXPECT_TRUE(daemon_.wait_for_open_connections(0, kWaitMs)) << "descriptor 0 was never closed";
  dup2(saved, 0);
  close(saved);
}

#ifdef VEMO_CLOUDD_PATH
// Anyone may bind the path while the daemon is down. A daemon that runs neither as root nor as
// this process's user gets nothing: the connection is refused before its greeting is read.
TEST_F(Resilience, DaemonOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a daemon as another user";
  const std::string path = "/tmp/vemo-stranger-" + std::to_string(getpid());
  ChildProcess stranger;
  ASSERT_TRUE(stranger.start({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                              VEMO_CLOUDD_PATH, "--socket", path}));
  ASSERT_TRUE(stranger.wait_for_line([&](const std::string &l) { return l == "listening on " + path; })
                  .has_value())
      << stranger.output();
  ASSERT_EQ(0, vemo_set_socket_path(path.c_str()));
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, vemo_reconnect_cloud());
  EXPECT_EQ(std::vector<std::string>{"the server runs as another user, uid=65534"},
            Messages("connect_server", "ERROR"));
  stranger.write_line("quit");
  EXPECT_TRUE(stranger.wait_exit(kWaitMs).has_value());
  EXPECT_EQ(std::string::npos, stranger.output().find("reconnect_cloud")) << "the stranger heard us";
  unlink(path.c_str());
  vemo_set_socket_path(nullptr);
}
#endif

}  // namespace
}  // namespace vemo_e2e
