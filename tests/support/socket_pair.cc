#include "support/socket_pair.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "ipc/frame_codec.h"

namespace vemo_test {

SocketPair::SocketPair() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
    local_ = fds[0];
    peer_ = fds[1];
  }
}

SocketPair::~SocketPair() {
  close_local();
  close_peer();
}

void SocketPair::close_local() {
  if (local_ >= 0) close(local_);
  local_ = -1;
}

void SocketPair::close_peer() {
  if (peer_ >= 0) close(peer_);
  peer_ = -1;
}

std::string frame_with_length(uint32_t length, const std::string &body) {
  uint8_t header[vemo::frame::kHeaderSize];
  vemo::frame::write_header(length, header);
  return std::string(reinterpret_cast<char *>(header), sizeof header) + body;
}

std::string frame_of(const std::string &text) {
  return frame_with_length(static_cast<uint32_t>(text.size()), text);
}

bool write_all(int fd, const std::string &bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string read_available(int fd) {
  std::string out;
  char buffer[4096];
  for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) out.append(buffer, n);
  return out;
}

namespace {
// Calls visit with the name of every entry of directory but "." and "..".
void each_entry(const std::string &directory, const std::function<void(const std::string &)> &visit) {
  DIR *dir = opendir(directory.c_str());
  if (dir == nullptr) return;
  while (struct dirent *entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") visit(name);
  }
  closedir(dir);
}
}  // namespace

int open_descriptor_count() {
  int count = 0;
  each_entry("/proc/self/fd", [&count](const std::string &) { ++count; });
  return count - 1;  // the directory's own descriptor
}

TempSocketPath::TempSocketPath() {
  char pattern[] = "/tmp/vemo-ipc-XXXXXX";
  if (mkdtemp(pattern) != nullptr) directory_ = pattern;
  path_ = directory_ + "/sock";
}

TempSocketPath::~TempSocketPath() {
  if (directory_.empty()) return;
  each_entry(directory_, [this](const std::string &name) { unlink((directory_ + "/" + name).c_str()); });
  rmdir(directory_.c_str());
}

}  // namespace vemo_test
