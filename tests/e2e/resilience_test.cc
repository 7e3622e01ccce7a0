// Faults a long-running device process meets, over the real socket, one test each: the daemon
// restarting, a stream out of step, a registration racing an ordered teardown, a daemon that
// stalls (sends and ids), a late acknowledgement, descriptor 0, a costly frame, abandoned
// requests, and a stranger serving the socket path.
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "child_process.h"  // tools/test_support
#include "support/e2e_fixture.h"
#include "vemo/ipc_socket.h"
#include "vemo/vemo_ext.h"

namespace vemo_e2e {
namespace {

class Resilience : public E2ETest {};

// A daemon of the test's own on a private path, which the client is pointed at: it accepts one
// connection, greets, and runs body on it.
class RawDaemon {
 public:
  explicit RawDaemon(std::function<void(int fd)> body) : path_("/tmp/vemo-raw-" + std::to_string(getpid())) {
    unlink(path_.c_str());
    listener_ = ipc_socket_init_as_server(path_.c_str());
    thread_ = std::thread([this, body] {
      struct pollfd p = {listener_, POLLIN, 0};
      const int fd = poll(&p, 1, kWaitMs) == 1 ? accept(listener_, nullptr, nullptr) : -1;
      if (fd < 0) return;
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
      ipc_socket_send(fd, R"({"inner_method":"server_notify","inner_params":{"type":0}})");
      body(fd);
      close(fd);
    });
    vemo_set_socket_path(path_.c_str());
  }
  ~RawDaemon() {
    thread_.join();
    close(listener_);
    unlink(path_.c_str());
    vemo_set_socket_path(nullptr);
  }
  bool ok() const { return listener_ >= 0; }

 private:
  std::string path_;
  int listener_ = -1;
  std::thread thread_;
};

// 1. The daemon goes away and a new one binds the path: a listen-only application is served
// again without doing anything, and a caller simply connects to the new daemon.
TEST_F(Resilience, RestartedDaemonGetsTheRegistrationAgain) {
  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  for (int restart = 1; restart <= 3; ++restart) {
    const size_t seen = daemon_.received().size();  // the log outlives a restart
    daemon_.stop();
    ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
    ASSERT_TRUE(daemon_.wait_for_method("register_callback", 6000, seen).has_value()) << restart;
    EXPECT_EQ("again", Ask(restart, "again"));
  }
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("after the restarts", 3000, 0, &text));
  EXPECT_STREQ("after the restarts", text);
  free(text);
}

// 2. A frame the client cannot trust (a stray byte, a length above the cap, a frame cut off by
// the close) ends the connection at once; the client connects again and announces its handler.
TEST_F(Resilience, UntrustworthyFrameEndsTheConnectionAndTheClientRecovers) {
  const struct {
    const char *name;
    std::string bytes;
    bool close_after;
    const char *line;
  } kFaults[] = {
      {"stray byte", std::string("\x00\xA1\xB2\x00\x00\x00\x02{}", 9), false, "the magic does not match"},
      {"oversize length", std::string("\xA1\xB2\xFF\xFF\xFF\xFF", 6), false,
       "the length of the message is too long, size=4294967295"},
      {"cut frame", std::string("\xA1\xB2\x00\x00\x00\x64{\"inner_", 13), true, "fail to receive the message, code=7"},
  };
  ASSERT_EQ(0, vemo_register_callback(echo, nullptr));
  for (const auto &fault : kFaults) {
    SCOPED_TRACE(fault.name);
    const size_t seen = daemon_.received().size();
    const int connection = daemon_.connections_seen();
    ASSERT_EQ(1, daemon_.send_bytes(fault.bytes, connection));
    if (fault.close_after) daemon_.close_connections(connection);
    EXPECT_TRUE(WaitLogged("", "ERROR", fault.line));
    ASSERT_TRUE(daemon_.wait_for_method("register_callback", 6000, seen).has_value());
    EXPECT_EQ(fault.name, Ask(10 + connection, fault.name));
  }
}

// 3. A registration made while a teardown ordered by the daemon runs: a call that returns 0
// leaves its handler answering, and one that fails leaves none.
TEST_F(Resilience, RegistrationDuringAnOrderedTeardownKeepsItsWord) {
  for (int round = 1; round <= 20; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(0, vemo_reconnect_cloud());
    ASSERT_EQ(1, daemon_.send_server_notify(1));
    ASSERT_TRUE(WaitLogged("client_destroy", "DEBUG", "begin to destroy the client...", round));
    const int rc = vemo_register_callback(echo, nullptr);
    if (rc == 0) {
      EXPECT_EQ("round", Ask(100 + round, "round"));
    } else {
      EXPECT_EQ(VEMO_ERR_DISCONNECTED, rc);
      ASSERT_EQ(0, vemo_reconnect_cloud());
      EXPECT_TRUE(Unhandled(Incoming::kCloudRequest));
    }
    vemo_unregister_callback();
  }
}

// 4. Every call returns within its deadline, whatever the daemon does: here a daemon that stops
// reading (the sends block), then one that holds every message id (the takes wait).
TEST_F(Resilience, CallsReturnWithinTheirDeadlineWhenTheDaemonStopsReading) {
  Gate done;
  RawDaemon deaf([&done](int) { done.pass(); });  // never reads
  ASSERT_TRUE(deaf.ok());
  const std::string big(512 * 1024, 'x');
  for (int i = 0; i < 8; ++i) {
    const auto start = std::chrono::steady_clock::now();
    char *text = nullptr;
    EXPECT_NE(0, vemo_send_request_sync(big.c_str(), 200, 0, &text));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300)) << "request " << i;
  }
  done.open();
}

TEST_F(Resilience, WaitForAFreeIdCountsAgainstTheDeadline) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_ack(true);
  std::vector<std::future<int>> holders;
  for (int i = 0; i < 256; ++i)
    holders.push_back(std::async(std::launch::async, [] { return vemo_send_request_async("hold", 3000, 0, nullptr); }));
  // Counted, not "id 256 seen": the connection's own traffic may have moved the rotation.
  int holds = 0;
  ASSERT_TRUE(daemon_.wait_for_message([&](const Received &m) { return m.request == "hold" && ++holds == 256; }, kWaitMs));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("no id for me", 100, 0, nullptr));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_TRUE(Logged("send_with_recv", "ERROR", "fail to get the message id, error=-20002"));
  for (auto &h : holders) EXPECT_EQ(VEMO_ERR_TIMEOUT, FinishOrDie(h, kWaitMs, "a holder"));
}

// 5. An acknowledgement that comes after its sender gave up can never complete a newer request:
// the id stays out of use until that late answer has come.
TEST_F(Resilience, LateAcknowledgementNeverReachesANewerRequest) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_ack(true);
  EXPECT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_async("given up", 100, 0, nullptr));
  const int late_id = daemon_.wait_for_method("device_request", kWaitMs)->id;
  daemon_.set_drop_ack(false);
  daemon_.set_drop_response(true);
  for (int i = 0; i < 300; ++i) ASSERT_GE(vemo_send_request_async("newer", 3000, 0, nullptr), 0) << i;
  for (const Received &m : ReceivedMethod("device_request"))
    EXPECT_FALSE(m.request == "newer" && m.id == late_id) << "id " << late_id << " was handed out while its answer was due";
  daemon_.send_text("{\"inner_id\":" + std::to_string(late_id) + R"(,"inner_error_code":0,"inner_result":{"id":4242}})");
  EXPECT_TRUE(WaitLogged("dispatch_response", "ERROR", "fail to get the message data, id=" + std::to_string(late_id)));
  char *text = nullptr;
  EXPECT_EQ(VEMO_ERR_NOT_FOUND, vemo_get_response(4242, &text));
}

// 6. A daemonised process that closed its standard input gets its socket on descriptor 0, which
// works like any other and is closed by the teardown.
TEST_F(Resilience, DescriptorZeroIsAConnectionLikeAnyOther) {
  const int saved = dup(0);
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

// 7. One 4 MiB frame of tiny values once cost 170 MB of tree: it is dropped before it is parsed,
// and the connection goes on. A raw daemon sends it, so that only the client's memory counts.
// Sanitizer shadow memory and an emulator's translations grow the resident size whatever the
// library does, so there the bound is looser.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VEMO_EMULATED_TARGET)
constexpr long kPeakBoundKib = 8 * 32 * 1024;
#else
constexpr long kPeakBoundKib = 32 * 1024;
#endif

long peak_rss_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

TEST_F(Resilience, CostlyFrameIsDroppedAndTheConnectionStays) {
  std::string flood = "[0";
  while (flood.size() < IPC_FRAME_MAX_PAYLOAD - 2) flood += ",0";
  flood += "]";
  RawDaemon raw([&flood](int fd) {  // reads the first request, floods, acknowledges
    char *request = nullptr;
    if (ipc_socket_recv(fd, &request) == 0) {
      ipc_socket_send(fd, flood.c_str());
      ipc_socket_send(fd, R"({"inner_id":1,"inner_error_code":0})");
    }
    free(request);
    struct pollfd p = {fd, POLLIN, 0};
    poll(&p, 1, kWaitMs);  // until the client closes
  });
  ASSERT_TRUE(raw.ok());
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts from now
  const long before = peak_rss_kib();
  EXPECT_EQ(0, vemo_reconnect_cloud()) << "the connection did not survive the flood";
  EXPECT_LT(peak_rss_kib() - before, kPeakBoundKib) << "KiB of peak growth";
  EXPECT_TRUE(Logged("dispatch_message", "ERROR", "the message is too complex to parse, size=" + std::to_string(flood.size())));
  ASSERT_EQ(0, vemo_shutdown(1000));
}

// 8. A synchronous request that gives up takes its entry along: a response arriving afterwards
// is not stored for nobody.
TEST_F(Resilience, AbandonedRequestsLeaveNoEntries) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  daemon_.set_drop_response(true);
  daemon_.set_next_request_id(7000);
  for (int i = 0; i < 10; ++i) {
    char *text = nullptr;
    ASSERT_EQ(VEMO_ERR_TIMEOUT, vemo_send_request_sync("abandoned", 300, 0, &text));
  }
  for (int id = 7000; id < 7010; ++id) EXPECT_TRUE(Logged("", "DEBUG", "clear the message id, id=" + std::to_string(id))) << id;
  daemon_.send_text(R"({"inner_error_code":0,"inner_result":{"id":7010,"response":"late"}})");
  EXPECT_TRUE(WaitLogged("", "ERROR", "can not find the message id, id=7010"));
}

#ifdef VEMO_CLOUDD_PATH
// 9. Anyone may bind the path while the daemon is down. A daemon that runs neither as root nor as
// this process's user gets nothing: the connection is refused before its greeting is read.
TEST_F(Resilience, DaemonOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a daemon as another user";
  const std::string path = "/tmp/vemo-stranger-" + std::to_string(getpid());
  tools_test::ChildProcess stranger;
  ASSERT_TRUE(stranger.start({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                              VEMO_CLOUDD_PATH, "--socket", path}));
  // The daemon must be reachable for that user (the build tree's folders must let it in).
  if (!eventually([&] { return listening_on(path); }, kWaitMs))
    GTEST_SKIP() << "the daemon cannot run as uid 65534 from this build tree: " << stranger.err();
  ASSERT_EQ(0, vemo_set_socket_path(path.c_str()));
  EXPECT_EQ(VEMO_ERR_DISCONNECTED, vemo_reconnect_cloud());
  EXPECT_EQ(Strings{"the server runs as another user, uid=65534"}, Messages("connect_server", "ERROR"));
  vemo_set_socket_path(nullptr);
  unlink(path.c_str());
}
#endif

}  // namespace
}  // namespace vemo_e2e
