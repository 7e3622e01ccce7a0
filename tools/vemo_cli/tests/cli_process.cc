#include "cli_process.h"

#include <unistd.h>

#include <chrono>

namespace vemo_cli_test {

bool CliProcess::start(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {VEMO_CLI_PATH, "--socket", test_socket_path()};
  argv.insert(argv.end(), args.begin(), args.end());
  return ChildProcess::start(argv);
}

CliRun run_cli(const std::vector<std::string> &args, int timeout_ms) {
  CliRun run;
  CliProcess cli;
  if (!cli.start(args)) {
    run.err = "could not start " VEMO_CLI_PATH;
    return run;
  }
  run.status = cli.wait_exit(timeout_ms).value_or(-1000);
  run.out = cli.out();
  run.err = cli.err();
  return run;
}

const std::string &test_socket_path() {
  static const std::string path = "/tmp/vemo_cli_test_" + std::to_string(getpid()) + ".sock";
  return path;
}

void DaemonTest::SetUp() {
  daemon_.set_log_sink([this](const std::string &line) {
    std::lock_guard<std::mutex> hold(lines_mu_);
    daemon_lines_.push_back(line);
    lines_cv_.notify_all();
  });
  daemon_.set_response_delay_ms(0);
  ASSERT_EQ(0, daemon_.start()) << daemon_.last_error();
}

bool DaemonTest::WaitDisconnected(int conn, int timeout_ms) {
  const std::string prefix = "disconnected " + std::to_string(conn) + " ";
  std::unique_lock<std::mutex> hold(lines_mu_);
  return lines_cv_.wait_for(hold, std::chrono::milliseconds(timeout_ms), [&] {
    for (const std::string &line : daemon_lines_)
      if (line.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
  });
}

std::vector<vemo::cloudd::Received> DaemonTest::ReceivedOn(int conn) {
  std::vector<vemo::cloudd::Received> out;
  for (const vemo::cloudd::Received &r : daemon_.received())
    if (r.conn == conn) out.push_back(r);
  return out;
}

void DaemonTest::TearDown() {
  daemon_.stop();
  if (HasFailure()) {
    std::lock_guard<std::mutex> hold(lines_mu_);
    fprintf(stderr, "---- daemon lines ----\n");
    for (const std::string &line : daemon_lines_) fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace vemo_cli_test
