// Start and stop: the socket file before, during and after a run, start-up failures, and
// commands from several threads at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "vemo/codes.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace {

using cloudd_test::device_request;
using cloudd_test::RawClient;
using vemo::cloudd::CloudDaemon;

constexpr int kWait = 5000;

bool exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

bool is_socket(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// Leaves a socket file at path with nobody listening on it, as a crashed daemon does.
void make_stale_socket(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)));
  close(fd);
  ASSERT_TRUE(is_socket(path));
}

class Lifecycle : public ::testing::Test {
 protected:
  Lifecycle() : path_(cloudd_test::temp_socket_path("life")) {}
  ~Lifecycle() override { unlink(path_.c_str()); }
  std::string path_;
};

TEST_F(Lifecycle, StaleSocketIsReplacedAndOwnSocketRemovedAtStop) {
  make_stale_socket(path_);
  CloudDaemon daemon(path_);
  ASSERT_EQ(0, daemon.start()) << daemon.last_error();
  EXPECT_TRUE(daemon.running());
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  EXPECT_TRUE(client.recv(kWait));
  daemon.stop();
  EXPECT_FALSE(daemon.running());
  EXPECT_FALSE(exists(path_));
  EXPECT_TRUE(client.wait_closed(kWait));
}

TEST_F(Lifecycle, DestructorStopsAndRemovesTheSocket) {
  {
    CloudDaemon daemon(path_);
    ASSERT_EQ(0, daemon.start());
    EXPECT_TRUE(is_socket(path_));
  }
  EXPECT_FALSE(exists(path_));
}

// Each path the daemon must not serve: start fails with a reason and leaves what is there.
TEST_F(Lifecycle, PathsThatCannotBeServedAreRefused) {
  CloudDaemon first(path_);
  const std::pair<std::string, std::string> rows[] = {
      {path_, "refusing to replace " + path_ + ": it exists and is not a socket"},
      {path_, "another daemon is already listening on " + path_},
      {"/tmp/vemo_cloudd_no_such_dir/sock",
       "cannot listen on /tmp/vemo_cloudd_no_such_dir/sock: No such file or directory"},
      {"/tmp/" + std::string(120, 'x'),
       "the socket path /tmp/" + std::string(120, 'x') + " is too long (at most 107 characters)"},
      {"", "the socket path is empty"},
  };
  for (const auto &row : rows) {
    const bool regular_file = row.second.find("not a socket") != std::string::npos;
    if (regular_file) std::ofstream(path_) << "precious";
    if (row.second.find("another daemon") != std::string::npos) {
      unlink(path_.c_str());
      ASSERT_EQ(0, first.start());
    }
    CloudDaemon daemon(row.first);
    EXPECT_EQ(VEMO_ERR_NO_SERVER, daemon.start());
    EXPECT_FALSE(daemon.running());
    EXPECT_EQ(row.second, daemon.last_error());
    std::string content;
    if (regular_file) std::ifstream(path_) >> content;
    EXPECT_EQ(regular_file ? "precious" : "", content);
  }
  RawClient client;  // the live daemon still serves
  ASSERT_EQ(0, client.connect(path_));
  EXPECT_TRUE(client.recv(kWait));
  EXPECT_TRUE(first.wait_for_connections(2, kWait));  // the probe, then the client
}

TEST_F(Lifecycle, StartTwiceIsHarmlessAndRestartServesAgain) {
  CloudDaemon daemon(path_);
  ASSERT_EQ(0, daemon.start());
  EXPECT_EQ(0, daemon.start());
  daemon.stop();
  daemon.stop();
  EXPECT_FALSE(exists(path_));
  ASSERT_EQ(0, daemon.start()) << daemon.last_error();
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  EXPECT_TRUE(client.recv(kWait));
  // Request ids go on where they were; the log keeps the earlier run.
  ASSERT_TRUE(client.send(device_request(1, "x")));
  EXPECT_EQ("{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":{\"id\":1000}}",
            client.recv(kWait).value_or("<none>"));
}

TEST_F(Lifecycle, StopLeavesASocketThatIsNoLongerItsOwn) {
  CloudDaemon first(path_);
  ASSERT_EQ(0, first.start());
  // Someone removed our file and another daemon took the path.
  ASSERT_EQ(0, unlink(path_.c_str()));
  CloudDaemon second(path_);
  ASSERT_EQ(0, second.start());
  first.stop();
  EXPECT_TRUE(is_socket(path_));
  RawClient client;
  EXPECT_EQ(0, client.connect(path_));
}

TEST_F(Lifecycle, StopDoesNotWaitForPendingTimers) {
  CloudDaemon daemon(path_);
  daemon.set_response_delay_ms(600000);
  ASSERT_EQ(0, daemon.start());
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  ASSERT_TRUE(client.recv(kWait));
  ASSERT_TRUE(client.send(device_request(1, "never answered")));
  ASSERT_TRUE(client.recv(kWait));  // the acknowledgement
  daemon.stop();  // a ten-minute timer must not hold it (the test's timeout would)
  EXPECT_TRUE(client.wait_closed(kWait));
}

TEST_F(Lifecycle, CommandsFromManyThreadsWhileClientsTalk) {
  CloudDaemon daemon(path_);
  daemon.set_response_delay_ms(0);
  ASSERT_EQ(0, daemon.start());
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  RawClient client;
  ASSERT_EQ(0, client.connect(path_));
  ASSERT_TRUE(client.recv(kWait));

  std::atomic<int> sent{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&daemon, &sent, t] {
      for (int i = 0; i < kEach; ++i) {
        sent += daemon.send_server_notify(t * 1000 + i);
        daemon.set_ack_delay_ms(0);  // setters race with the loop's reads
      }
    });
  }
  // Meanwhile the client's own requests are answered in between.
  for (int i = 1; i <= 20; ++i) ASSERT_TRUE(client.send(device_request(i, "r")));
  int frames = 0;
  int acks = 0;
  while (frames < kThreads * kEach + 40) {
    std::optional<std::string> f = client.recv(kWait);
    ASSERT_TRUE(f) << "after " << frames << " frames";
    if (f->find("\"inner_id\":") == 1) ++acks;
    ++frames;
  }
  for (std::thread &th : threads) th.join();
  EXPECT_EQ(kThreads * kEach, sent.load());
  EXPECT_EQ(20, acks);
  EXPECT_EQ(20u, daemon.received().size());
}

}  // namespace
