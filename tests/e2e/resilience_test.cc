// Faults a long-running device process meets, over the real socket: the daemon restarting, a
// registration racing a teardown the daemon ordered, the socket landing on descriptor 0, and a
// stranger serving the socket path.
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "support/e2e_fixture.h"
#include "vemo/ipc_socket.h"
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

// A frame the client cannot trust (a stray byte, a length above the cap, a frame cut off by the
// close) ends the connection at once; the client connects again and announces its handler.
struct StreamFault {
  const char *name;
  std::string bytes;
  bool close_after;
  const char *line;  // what the client logs for it
};

TEST_F(Resilience, UntrustworthyFrameEndsTheConnectionAndTheClientRecovers) {
  const StreamFault kFaults[] = {
      {"stray byte", std::string("\x00\xA1\xB2\x00\x00\x00\x02{}", 9), false, "the magic does not match"},
      {"oversize length", std::string("\xA1\xB2\xFF\xFF\xFF\xFF", 6), false,
       "the length of the message is too long, size=4294967295"},
      {"cut frame", std::string("\xA1\xB2\x00\x00\x00\x64{\"inner_", 13), true,
       "fail to receive the message, code=7"},
  };
  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  int connection = 1;
  for (const StreamFault &fault : kFaults) {
    SCOPED_TRACE(fault.name);
    const size_t seen = daemon_.received().size();
    ASSERT_EQ(1, daemon_.send_bytes(fault.bytes, connection));
    if (fault.close_after) daemon_.close_connections(connection);
    EXPECT_TRUE(WaitLogged("", "ERROR", fault.line));
    ASSERT_TRUE(daemon_.wait_for_method("register_callback", 6000, seen).has_value());
    connection = daemon_.connections_seen();
    EXPECT_TRUE(answered(daemon_, 10 + connection, fault.name));
  }
}

// Every call returns within its deadline, whatever the daemon does: here a daemon that stops
// reading (the sends block), then one that holds every message id (the takes wait).
TEST_F(Resilience, CallsReturnWithinTheirDeadlineWhenTheDaemonStopsReading) {
  const std::string path = "/tmp/vemo-deaf-" + std::to_string(getpid());
  unlink(path.c_str());
  const int listener = ipc_socket_init_as_server(path.c_str());
  ASSERT_GE(listener, 0);
  std::thread deaf([listener] {  // accepts, greets, never reads
    int fd = -1;
    for (int i = 0; i < 500 && fd < 0; ++i) {
      fd = accept(listener, nullptr, nullptr);
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (fd >= 0) ipc_socket_send(fd, R"({"inner_method":"server_notify","inner_params":{"type":0}})");
    std::this_thread::sleep_for(std::chrono::seconds(4));
    if (fd >= 0) close(fd);
  });
  ASSERT_EQ(0, vemo_set_socket_path(path.c_str()));
  const std::string big(512 * 1024, 'x');
  for (int i = 0; i < 8; ++i) {
    const auto start = std::chrono::steady_clock::now();
    char *text = nullptr;
    EXPECT_NE(0, vemo_send_request_sync(big.c_str(), 200, 0, &text));
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(took, 300) << "request " << i;
  }
  deaf.join();
  close(listener);
  unlink(path.c_str());
  vemo_set_socket_path(nullptr);
}

TEST_F(Resilience, WaitForAFreeIdCountsAgainstTheDeadline) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_ack(true);
  std::vector<std::future<int>> holders;
  for (int i = 0; i < 256; ++i) {
    holders.push_back(std::async(std::launch::async, [] { return vemo_send_request_async("hold", 3000, 0, nullptr); }));
  }
  // Counted, not "id 256 seen": the connection's own traffic may have moved the rotation, so
  // the last holder can still be on its way when id 256 arrives.
  int holds = 0;
  ASSERT_TRUE(daemon_.wait_for_message(
      [&](const Received &m) { return m.request == "hold" && ++holds == 256; }, kWaitMs));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("no id for me", 100, 0, nullptr));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_TRUE(Logged("send_with_recv", "ERROR", "fail to get the message id, error=-20002"));
  for (auto &h : holders) EXPECT_EQ(VEMO_ERR_TIMEOUT, FinishOrDie(h, kWaitMs, "a holder"));
}

// An acknowledgement that comes after its sender gave up can never complete a newer request:
// the id stays out of use until that late answer has come.
TEST_F(Resilience, LateAcknowledgementNeverReachesANewerRequest) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_ack(true);
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("given up", 100, 0, nullptr));
  const int late_id = daemon_.wait_for_method("device_request", kWaitMs)->id;
  daemon_.set_drop_ack(false);
  daemon_.set_drop_response(true);
  for (int i = 0; i < 300; ++i) ASSERT_GE(vemo_send_request_async("newer", 3000, 0, nullptr), 0) << i;
  int reused = 0;
  for (const Received &m : ReceivedMethod("device_request")) reused += m.request == "newer" && m.id == late_id;
  EXPECT_EQ(0, reused) << "id " << late_id << " was handed out while its answer was due";
  daemon_.send_text("{\"inner_id\":" + std::to_string(late_id) + ",\"inner_error_code\":0,\"inner_result\":{\"id\":4242}}");
  EXPECT_TRUE(WaitLogged("dispatch_response", "ERROR", "fail to get the message data, id=" + std::to_string(late_id)));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(4242, &text));
}

// The bound of one frame's cost; sanitizer shadow memory and an emulator's translations grow
// the resident size whatever the library does, so there it is looser.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VEMO_EMULATED_TARGET)
constexpr long kPeakBoundKib = 8 * 32 * 1024;
#else
constexpr long kPeakBoundKib = 32 * 1024;
#endif

long peak_rss_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// One 4 MiB frame of tiny values once cost 170 MB of tree: it is dropped before it is parsed,
// and the connection goes on. A raw daemon sends it, so that only the client's memory counts.
TEST_F(Resilience, CostlyFrameIsDroppedAndTheConnectionStays) {
  const std::string path = "/tmp/vemo-flood-" + std::to_string(getpid());
  unlink(path.c_str());
  const int listener = ipc_socket_init_as_server(path.c_str());
  ASSERT_GE(listener, 0);
  std::string flood = "[0";
  while (flood.size() < IPC_FRAME_MAX_PAYLOAD - 2) flood += ",0";
  flood += "]";
  std::thread raw([listener, &flood] {  // greets, reads the first request, floods, acknowledges
    int fd = -1;
    for (int i = 0; i < 500 && fd < 0; ++i) {
      fd = accept(listener, nullptr, nullptr);
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (fd < 0) return;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    ipc_socket_send(fd, R"({"inner_method":"server_notify","inner_params":{"type":0}})");
    char *request = nullptr;
    if (ipc_socket_recv(fd, &request) == 0) {
      ipc_socket_send(fd, flood.c_str());
      ipc_socket_send(fd, R"({"inner_id":1,"inner_error_code":0})");
    }
    free(request);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    close(fd);
  });
  ASSERT_EQ(0, vemo_set_socket_path(path.c_str()));
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts from now
  const long before = peak_rss_kib();
  EXPECT_EQ(0, vemo_reconnect_cloud()) << "the connection did not survive the flood";
  EXPECT_LT(peak_rss_kib() - before, kPeakBoundKib) << "KiB of peak growth";
  EXPECT_TRUE(Logged("dispatch_message", "ERROR",
                     "the message is too complex to parse, size=" + std::to_string(flood.size())));
  raw.join();
  close(listener);
  unlink(path.c_str());
  vemo_set_socket_path(nullptr);
}

// A synchronous request that gives up takes its entry along: a response arriving afterwards is
// not stored for nobody.
TEST_F(Resilience, AbandonedRequestsLeaveNoEntries) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(7000);
  for (int i = 0; i < 10; ++i) {
    char *text = nullptr;
    ASSERT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_sync("abandoned", 300, 0, &text));
  }
  for (int id = 7000; id < 7010; ++id) {
    EXPECT_TRUE(Logged("", "DEBUG", "clear the message id, id=" + std::to_string(id))) << id;
  }
  daemon_.send_text(R"({"inner_error_code":0,"inner_result":{"id":7010,"response":"late"}})");
  EXPECT_TRUE(WaitLogged("", "ERROR", "can not find the message id, id=7010"));
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
  const std::string listening = "listening on " + path;
  // The daemon must be reachable for that user (the build tree's folders must let it in).
  if (!stranger.wait_for_line([&](const std::string &l) {
                  return l.size() >= listening.size() &&
                         l.compare(l.size() - listening.size(), listening.size(), listening) == 0;
                })
           .has_value()) {
    GTEST_SKIP() << "the daemon cannot run as uid 65534 from this build tree: " << stranger.output();
  }
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
