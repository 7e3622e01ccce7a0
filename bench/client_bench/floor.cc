#include "floor.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "vemo/ipc_socket.h"

namespace bench {
namespace {

// The echo side: one thread per connection, until this side is closed.
[[noreturn]] void echo_main(const std::vector<int> &fds, const std::vector<int> &replies,
                            const std::string &ack, const std::string &response) {
  std::vector<std::thread> threads;
  for (size_t i = 0; i < fds.size(); ++i) {
    threads.emplace_back([fd = fds[i], n = replies[i], &ack, &response] {
      for (;;) {
        char *text = nullptr;
        if (ipc_socket_recv(fd, &text) != 0) break;
        free(text);
        if (ipc_socket_send(fd, ack.c_str()) != 0) break;
        if (n == 2 && ipc_socket_send(fd, response.c_str()) != 0) break;
      }
      close(fd);
    });
  }
  for (auto &t : threads) t.join();
  _exit(0);
}

}  // namespace

bool EchoChild::start(int pairs, const std::string &ack, const std::string &response) {
  std::vector<int> child_fds, child_replies;
  for (int kind = 1; kind <= 2; ++kind) {
    for (int i = 0; i < pairs; ++i) {
      int sv[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return false;
      (kind == 1 ? one_ : two_).push_back(sv[0]);
      child_fds.push_back(sv[1]);
      child_replies.push_back(kind);
    }
  }
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    for (int fd : one_) close(fd);
    for (int fd : two_) close(fd);
    echo_main(child_fds, child_replies, ack, response);
  }
  pid_ = pid;
  for (int fd : child_fds) close(fd);
  return true;
}

void EchoChild::stop() {
  for (int fd : one_) close(fd);
  for (int fd : two_) close(fd);
  one_.clear();
  two_.clear();
  if (pid_ > 0) {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
  }
}

int floor_exchange(int fd, const std::string &request, int replies) {
  int rc = ipc_socket_send(fd, request.c_str());
  for (int i = 0; rc == 0 && i < replies; ++i) {
    char *text = nullptr;
    rc = ipc_socket_recv(fd, &text);
    free(text);
  }
  return rc;
}

}  // namespace bench
