// The built vemo-cli run against the in-process daemon on a socket path of this test process's
// own, so that cases in parallel processes (and /tmp/cloud_svr) never meet.
#ifndef VEMO_CLI_TESTS_CLI_SUPPORT_H
#define VEMO_CLI_TESTS_CLI_SUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "child_process.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace vemo_cli_test {

// The bound of every wait for something due promptly; only a hang reaches it.
constexpr int kWaitMs = 10000;

const std::string &test_socket_path();

// The program, --socket test_socket_path(), then args (a later --socket wins).
std::vector<std::string> cli_argv(const std::vector<std::string> &args);

// want with every "..." standing for any text; "time":"<RFC 3339 UTC>" matches "time":T.
bool matches(const std::string &got, const std::string &want);

// The in-process daemon on test_socket_path(), with no response delay, which keeps tests quick.
class DaemonTest : public ::testing::Test {
 public:  // for the rows' lambdas
  void SetUp() override {
    daemon_.set_response_delay_ms(0);
    ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
  }
  vemo::cloudd::CloudDaemon daemon_{test_socket_path()};
};

}  // namespace vemo_cli_test

#endif
